/**
 * @file
 * @brief What a simulated host has: device files and what they answer, revision files, the optical table.
 */
#ifndef ZENDRA_TESTS_KERNEL_HOST_H
#define ZENDRA_TESTS_KERNEL_HOST_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kernel {

using Bytes = std::vector<unsigned char>;

/** One line of a sequence of answers. */
struct Answer {
    unsigned times = 1;
    /** Given as often as asked; `times` is then 1. */
    bool anyTimes = false;
    /** 0, or why the ioctl fails. */
    int failure = 0;
    /** What an ioctl that does not fail returns. */
    int result = 0;
    /** At most 255 bytes reach the data buffer of SG_IO; ATA sends 512 bytes and NVMe 4096, or fewer. */
    Bytes data;
    /** At most 32 bytes reach the sense buffer. */
    Bytes sense;
    unsigned char senseLengthWritten = 0;
    unsigned info = 0;
    unsigned char status = 0;
    unsigned char maskedStatus = 0;
    unsigned short hostStatus = 0;
    unsigned short driverStatus = 0;
    /** Line of the host file, for complaints. */
    unsigned line = 0;
};

/** An answer that is the same however often it is asked for. */
struct PlainAnswer {
    int failure = 0;
    std::vector<std::int32_t> values;
    unsigned line = 0;
};

/** Everything that a device file answers. */
struct Node {
    std::optional<PlainAnswer> sgVersion;
    /** host, channel, id, lun */
    std::optional<PlainAnswer> scsiId;
    std::optional<PlainAnswer> idLun;
    std::optional<PlainAnswer> busNumber;
    std::vector<Answer> inquiry;
    std::vector<Answer> serial;
    std::vector<Answer> ataIdentify;
    std::vector<Answer> nvmeIdentify;
};

enum class EntryKind { Node, File, Directory, Dangling, Unreadable, Unopenable, Link };

/** One entry of /dev. */
struct DevEntry {
    EntryKind kind = EntryKind::Node;
    std::string name;
    /** Of a Link: the entry's name that it leads to. */
    std::string target;
    Node node;
};

/** One entry of /sys/block. */
struct BlockEntry {
    std::string name;
    std::optional<std::string> firmwareRev;
    std::optional<std::string> rev;
};

struct Host {
    /** What system() returns for the module loading. */
    int modprobeStatus = 0;
    std::vector<DevEntry> dev;
    bool devUnreadable = false;
    std::vector<BlockEntry> block;
    bool blockAbsent = false;
    std::optional<std::string> cdromInfo;
};

}  // namespace Kernel

#endif
