/**
 * @file
 * @brief What the library must make of what the system has answered, worked out a second time.
 *
 * A Model goes through the recorded calls of one run: it knows which call has to come next, takes its outcome from the
 * record (made to fail or not) and the device's answer from the host, and builds the status and the records that follow
 * from them. So it has an exact expectation for every fault, and a record that holds anything of another device, or
 * something left over from it, differs. Hosts as in hosts/: no sense data, every answer `times=any`.
 */
#ifndef ZENDRA_TESTS_FAULTS_MODEL_H
#define ZENDRA_TESTS_FAULTS_MODEL_H

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "simhost.h"
#include "watch.h"

namespace Faults {

/** The library has made another call than it must, or none. */
class Divergence : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** A record's fields in the order of their declaration. */
using Fields = std::vector<std::string>;

/** What a call of the facade gives back. */
struct Result {
    unsigned status = 0;
    std::vector<Fields> records;
};

/** Allocations that the library lives without, by the number of the class scan (0: the first of the call). */
struct MissingObjects {
    std::set<unsigned> proxies;
    std::set<unsigned> operators;
};

/** One run. */
class Model {
public:
    Model(const SimHost::Host& theHost, const std::vector<Event>& theTrace, const MissingObjects& theMissing);

    /** Throws Divergence, also when calls are left over. */
    Result Run(const SimHost::Call& call);

private:
    struct Device {
        unsigned hostAdapter = 0;
        unsigned bus = 0;
        unsigned target = 0;
        unsigned lun = 0;
        std::string vendor;
        std::string product;
        std::string revision;
        std::string serial;
        std::string type;
    };
    struct ClassResult {
        unsigned status = 0;
        std::vector<Device> devices;
    };
    using Answers = std::vector<SimHost::Answer> SimHost::Node::*;

    [[noreturn]] void Diverge(const std::string& expected) const;
    bool NextIs(Call call) const;
    const Event& Take(Call call, const std::string& text);

    ClassResult ScanClass(std::int32_t type);
    Result Optical();
    bool BeginClass();
    std::vector<std::string> ReadNames(const std::string& directory, bool& opened, bool& complete);
    std::vector<std::string> FilesOf(const std::string& prefix);
    int Request(const std::string& path, unsigned request);
    const SimHost::Node& NodeOf(const std::string& path) const;
    int Inquire(const std::string& path, bool serialPage, const SimHost::Bytes*& answer);
    int Generic(const std::string& path, Device& device, bool isSg);
    int Driver(const std::string& path, Device& device);
    int Nvme(const std::string& path, Device& device);
    void RevisionFromFile(const std::string& path, Device& device);
    bool ProbeDisk(const std::string& path, Device& device);
    bool ProbeTape(const std::string& path, Device& device);
    bool ProbeOptical(const std::string& path, Device& device);
    bool ProbeGeneric(const std::string& path, Device& device);
    std::string Capture();

    const SimHost::Host& host;
    std::vector<Event> trace;
    std::size_t position = 0;
    MissingObjects missing;
    unsigned classNumber = 0;
    bool hasSg = false;
    bool hasOperator = false;
    std::optional<std::vector<std::string>> blockNames;
    bool blockNamesComplete = false;
};

}  // namespace Faults

#endif
