/**
 * @file
 * @brief What a fault may leave of a call's result, told by runs without any fault.
 *
 * A request that fails once is a device that does not answer it; a revision file that cannot be opened is one that is
 * not there; a listing that ends early is a directory with fewer entries. So for nearly every call that can fail there
 * is a host on which nothing fails and on which the call must have the same status and the same records, to the last
 * field. This makes these hosts from the given one and the calls that were recorded on it, and runs them. What the
 * library says about such hosts is held to the model in tests/simhost. Hosts as in hosts/: no sense data, every answer
 * `times=any`.
 */
#ifndef ZENDRA_TESTS_FAULTS_FAULTLESS_H
#define ZENDRA_TESTS_FAULTS_FAULTLESS_H

#include <set>
#include <string>
#include <vector>

#include "run.h"
#include "simhost.h"
#include "watch.h"

namespace Faults {

/** What one fault may leave. */
struct Allowed {
    /** The whole result is one of these ... */
    std::vector<Result> results;
    /** ... or, where this is set, has only records that one of them has, each once. */
    bool anyOfTheRecords = false;
};

/** Classes of devices, by their number within the call, that have lost their proxy or its operator. */
struct MissingObjects {
    std::set<unsigned> proxies;
    std::set<unsigned> operators;
};

class FaultlessRuns {
public:
    /** Runs the host's first call. No host may be mounted. */
    FaultlessRuns(const SimHost::Host& theHost, unsigned theLogLevel);

    /** The host as it is. */
    const Ran& Clean() const { return clean; }

    /** For every kind but operator new. No host may be mounted. */
    Allowed After(const Fault& fault);

    /** For objects that could not be made. No host may be mounted. */
    Allowed Without(const MissingObjects& missing);

    /** Every log line of the runs up to now. */
    const std::set<std::string>& Lines() const { return lines; }

private:
    Ran Run(const SimHost::Host& changed);
    Allowed Only(const SimHost::Host& changed);
    std::size_t IndexOf(Call kind, unsigned long number) const;
    SimHost::Host WithoutAnswers(std::size_t index, bool fromThenOn) const;
    SimHost::Host WithoutFiles(std::size_t index) const;
    Allowed AfterOpen(std::size_t index, bool fromThenOn);
    Allowed AfterRead(std::size_t index);
    Allowed AfterListing(std::size_t index, bool fromThenOn);
    Allowed AfterLostOutput(std::size_t index);

    const SimHost::Host& host;
    SimHost::Call call;
    unsigned logLevel;
    std::set<std::string> lines;
    Ran clean;
    /** Where no directory can be listed. */
    Result nothingListed;
};

}  // namespace Faults

#endif
