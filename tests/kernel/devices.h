/**
 * @file
 * @brief Answers the ioctls of a simulated host's device files.
 *
 * It fails closed: an ioctl that it does not know, a question that the device has no answer for, and a field of a
 * request that is not as the library has to send it are complaints. So is an answer that nobody ever asks for.
 */
#ifndef ZENDRA_TESTS_KERNEL_DEVICES_H
#define ZENDRA_TESTS_KERNEL_DEVICES_H

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kernel/host.h"

namespace Kernel {

/** The most that SG_IO may write into the caller's buffers. */
constexpr std::size_t scsiDataLimit = 255;
constexpr std::size_t senseLimit = 32;
constexpr std::size_t ataIdentifySize = 512;
constexpr std::size_t nvmeIdentifySize = 4096;

class Devices {
public:
    using Complaint = std::function<void(const std::string&)>;

    /** `theComplain` may throw or end the process. */
    explicit Devices(Complaint theComplain) : complain(std::move(theComplain)) {}

    /** Starts every sequence of answers at its first. */
    void BeginCall() { positions.clear(); }

    /** What ioctl() does on an open device file: the result, or -1 with errno. `entry` must outlive this. */
    int Ioctl(const DevEntry& entry, unsigned request, void* argument);

    /** Complains about each answer that no call has had. */
    void ComplainOfUnusedAnswers(const std::vector<DevEntry>& entries);

    /** Commands of 10 bytes are answered as INQUIRY is; otherwise they are complaints. */
    void AllowLongCommands() { longCommands = true; }

    unsigned ScsiCommands() const { return scsiCommands; }

private:
    struct Position {
        std::size_t answer = 0;
        unsigned given = 0;
    };

    int Fail(int error, const std::string& complaint);
    void ExpectZero(const DevEntry& entry, const void* bytes, std::size_t size, const char* what);
    const Answer* NextAnswer(const std::vector<Answer>& answers, const DevEntry& entry, const char* what);
    int Plain(const DevEntry& entry, const std::optional<PlainAnswer>& plain, void* argument, std::size_t size,
              const char* what);
    int ScsiCommand(const DevEntry& entry, void* argument);
    int AtaCommand(const DevEntry& entry, void* argument);
    int NvmeCommand(const DevEntry& entry, void* argument);

    Complaint complain;
    bool longCommands = false;
    unsigned scsiCommands = 0;
    std::map<const std::vector<Answer>*, Position> positions;
    /** The most that one call has had of an answer. */
    std::map<const Answer*, unsigned> mostGiven;
    std::map<const PlainAnswer*, unsigned> plainGiven;
    /** What the caller's buffers must hold before the next SCSI command: nothing but what we wrote. */
    Bytes expectedSense = Bytes(senseLimit);
    Bytes expectedData = Bytes(scsiDataLimit);
};

}  // namespace Kernel

#endif
