#include "kernel/devices.h"

#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace Kernel {

namespace {

constexpr std::size_t ataHeaderSize = 4;
// <scsi/scsi.h> names them only for the kernel, and <linux/hdreg.h> declares clashing names.
constexpr unsigned scsiGetIdLun = 0x5382;
constexpr unsigned scsiGetBusNumber = 0x5386;
constexpr unsigned hdioDriveCommand = 0x031f;
/** What the kernel leaves in the part of an answer that nobody should look at. */
constexpr std::int32_t notForTheCaller = 0x5aa55aa5;

bool IsZero(const void* bytes, std::size_t size)
{
    const auto* first = static_cast<const unsigned char*>(bytes);
    return std::all_of(first, first + size, [](unsigned char byte) { return byte == 0; });
}

std::string HexText(const void* bytes, std::size_t size)
{
    std::ostringstream text;
    for (std::size_t i = 0; i < size; ++i) {
        text << std::hex << std::setw(2) << std::setfill('0')
             << static_cast<unsigned>(static_cast<const unsigned char*>(bytes)[i]);
    }
    return text.str();
}

}  // namespace

int Devices::Fail(int error, const std::string& complaint)
{
    if (!complaint.empty()) {
        complain(complaint);
    }
    errno = error;
    return -1;
}

void Devices::ExpectZero(const DevEntry& entry, const void* bytes, std::size_t size, const char* what)
{
    if (!IsZero(bytes, size)) {
        complain(std::string(what) + " on " + entry.name + ": the argument is not zeroed");
    }
}

void Devices::ComplainOfUnusedAnswers(const std::vector<DevEntry>& entries)
{
    for (const DevEntry& entry : entries) {
        for (const auto* plain :
             {&entry.node.sgVersion, &entry.node.scsiId, &entry.node.idLun, &entry.node.busNumber}) {
            if (*plain && plainGiven[&**plain] == 0) {
                complain("never asked for: the answer of " + entry.name + " in line " + std::to_string((*plain)->line));
            }
        }
        for (const auto* answers :
             {&entry.node.inquiry, &entry.node.serial, &entry.node.ataIdentify, &entry.node.nvmeIdentify}) {
            for (const Answer& answer : *answers) {
                if (mostGiven[&answer] < answer.times) {
                    complain("asked for only " + std::to_string(mostGiven[&answer]) +
                             " times in one call: the answer of " + entry.name + " in line " +
                             std::to_string(answer.line));
                }
            }
        }
    }
}

const Answer* Devices::NextAnswer(const std::vector<Answer>& answers, const DevEntry& entry, const char* what)
{
    Position& position = positions[&answers];
    if (position.answer < answers.size() && !answers[position.answer].anyTimes &&
        position.given == answers[position.answer].times) {
        ++position.answer;
        position.given = 0;
    }
    if (position.answer >= answers.size()) {
        Fail(ENOTTY,
             (answers.empty() ? "no answer for " : "asked too often: ") + std::string(what) + " on " + entry.name);
        return nullptr;
    }
    const Answer& answer = answers[position.answer];
    unsigned& most = mostGiven[&answer];
    most = std::max(most, ++position.given);
    if (answer.failure != 0) {
        errno = answer.failure;
        return nullptr;
    }
    return &answer;
}

int Devices::Plain(const DevEntry& entry, const std::optional<PlainAnswer>& plain, void* argument, std::size_t size,
                   const char* what)
{
    ExpectZero(entry, argument, size, what);
    if (!plain) {
        return Fail(ENOTTY, std::string("no answer for ") + what + " on " + entry.name);
    }
    ++plainGiven[&*plain];
    if (plain->failure != 0) {
        return Fail(plain->failure, "");
    }
    std::memcpy(argument, plain->values.data(), std::min(size, plain->values.size() * sizeof(std::int32_t)));
    return 0;
}

int Devices::Ioctl(const DevEntry& entry, unsigned request, void* argument)
{
    if (argument == nullptr) {
        return Fail(EFAULT, "ioctl without an argument on " + entry.name);
    }
    if (entry.kind == EntryKind::Directory || entry.kind == EntryKind::File) {
        return Fail(ENOTTY, "");
    }
    switch (request) {
    case SG_GET_VERSION_NUM:
        // A new command, with buffers of its own.
        expectedSense.assign(senseLimit, 0);
        expectedData.assign(scsiDataLimit, 0);
        return Plain(entry, entry.node.sgVersion, argument, sizeof(int), "SG_GET_VERSION_NUM");
    case SG_GET_SCSI_ID:
        return Plain(entry, entry.node.scsiId, argument, sizeof(sg_scsi_id), "SG_GET_SCSI_ID");
    case scsiGetIdLun: {
        const int result = Plain(entry, entry.node.idLun, argument, 2 * sizeof(int), "SCSI_IOCTL_GET_IDLUN");
        if (result == 0) {
            std::memcpy(static_cast<char*>(argument) + sizeof(int), &notForTheCaller, sizeof notForTheCaller);
        }
        return result;
    }
    case scsiGetBusNumber:
        return Plain(entry, entry.node.busNumber, argument, sizeof(int), "SCSI_IOCTL_GET_BUS_NUMBER");
    case SG_IO:
        return ScsiCommand(entry, argument);
    case hdioDriveCommand:
        return AtaCommand(entry, argument);
    case NVME_IOCTL_ADMIN_CMD:
        return NvmeCommand(entry, argument);
    default: {
        std::ostringstream number;
        number << std::hex << request;
        return Fail(ENOTTY, "unknown ioctl 0x" + number.str() + " on " + entry.name);
    }
    }
}

int Devices::ScsiCommand(const DevEntry& entry, void* argument)
{
    ++scsiCommands;
    auto& header = *static_cast<sg_io_hdr*>(argument);
    bool asRequired = true;
    const auto require = [&](bool right, const char* what) {
        if (!right) {
            complain(what + (" in the SG_IO header for " + entry.name));
            asRequired = false;
        }
    };
    const bool isLong = longCommands && header.cmd_len == 10;
    require(header.interface_id == 'S', "interface_id");
    require(header.cmd_len == 6 || isLong, "cmd_len");
    require(header.cmdp != nullptr, "cmdp");
    require(header.dxferp != nullptr, "dxferp");
    require(header.sbp != nullptr, "sbp");
    require(header.dxfer_len == scsiDataLimit, "dxfer_len");
    require(header.mx_sb_len == senseLimit, "mx_sb_len");
    if (!asRequired) {
        return Fail(EINVAL, "");
    }
    require(header.dxfer_direction == SG_DXFER_FROM_DEV, "dxfer_direction");
    require(header.iovec_count == 0, "iovec_count");
    require(header.timeout == 20000, "timeout");
    require(header.flags == 0, "flags");
    require(header.pack_id == 0, "pack_id");
    require(header.usr_ptr == nullptr, "usr_ptr");
    require(header.status == 0 && header.masked_status == 0 && header.msg_status == 0 && header.sb_len_wr == 0 &&
                header.host_status == 0 && header.driver_status == 0 && header.resid == 0 && header.duration == 0 &&
                header.info == 0,
            "the answer's fields (not zeroed)");
    // Atomic: other threads may be sending the same block, and write the same bytes.
    require(__atomic_load_n(&header.cmdp[7], __ATOMIC_RELAXED) == 0x00 &&
                __atomic_load_n(&header.cmdp[8], __ATOMIC_RELAXED) == 0xff,
            "bytes 7 and 8 of the command");
    require(std::equal(expectedSense.begin(), expectedSense.end(), header.sbp),
            "the sense buffer (neither zeroed nor left as it was)");
    require(std::equal(expectedData.begin(), expectedData.end(), static_cast<unsigned char*>(header.dxferp)),
            "the data buffer (neither zeroed nor left as it was)");

    static constexpr std::array<unsigned char, 6> standardInquiry = {0x12, 0x00, 0x00, 0x00, 0x80, 0x00};
    static constexpr std::array<unsigned char, 6> serialInquiry = {0x12, 0x01, 0x80, 0x00, 0xff, 0x00};
    const Answer* answer = nullptr;
    if (isLong || std::equal(standardInquiry.begin(), standardInquiry.end(), header.cmdp)) {
        answer = NextAnswer(entry.node.inquiry, entry, "INQUIRY");
    } else if (std::equal(serialInquiry.begin(), serialInquiry.end(), header.cmdp)) {
        answer = NextAnswer(entry.node.serial, entry, "the serial number page");
    } else {
        return Fail(EINVAL, "unknown command " + HexText(header.cmdp, header.cmd_len) + " for " + entry.name);
    }
    if (answer == nullptr) {
        return -1;
    }
    const std::size_t dataSize = std::min(answer->data.size(), scsiDataLimit);
    std::copy_n(answer->data.begin(), dataSize, static_cast<unsigned char*>(header.dxferp));
    std::copy_n(answer->data.begin(), dataSize, expectedData.begin());
    const std::size_t senseSize = std::min(answer->sense.size(), senseLimit);
    std::copy_n(answer->sense.begin(), senseSize, header.sbp);
    std::copy_n(answer->sense.begin(), senseSize, expectedSense.begin());
    header.status = answer->status;
    header.masked_status = answer->maskedStatus;
    header.sb_len_wr = answer->senseLengthWritten;
    header.host_status = answer->hostStatus;
    header.driver_status = answer->driverStatus;
    header.resid = static_cast<int>(scsiDataLimit - dataSize);
    header.info = answer->info;
    return answer->result;
}

int Devices::AtaCommand(const DevEntry& entry, void* argument)
{
    auto* buffer = static_cast<unsigned char*>(argument);
    static constexpr std::array<unsigned char, ataHeaderSize> required = {0xec, 0x00, 0x00, 0x01};
    if (!std::equal(required.begin(), required.end(), buffer)) {
        return Fail(EINVAL, "HDIO_DRIVE_CMD on " + entry.name + " with header " + HexText(buffer, ataHeaderSize));
    }
    ExpectZero(entry, buffer + ataHeaderSize, ataIdentifySize, "HDIO_DRIVE_CMD");
    const Answer* answer = NextAnswer(entry.node.ataIdentify, entry, "IDENTIFY DEVICE");
    if (answer == nullptr) {
        return -1;
    }
    // The kernel puts status, error and sector count of the finished command into the header.
    static constexpr std::array<unsigned char, ataHeaderSize> finished = {0x50, 0x00, 0x00, 0x00};
    std::copy(finished.begin(), finished.end(), buffer);
    std::copy_n(answer->data.begin(), std::min(answer->data.size(), ataIdentifySize), buffer + ataHeaderSize);
    return answer->result;
}

int Devices::NvmeCommand(const DevEntry& entry, void* argument)
{
    nvme_admin_cmd required{};
    nvme_admin_cmd command{};
    std::memcpy(&command, argument, sizeof command);
    required.opcode = 0x06;
    required.data_len = nvmeIdentifySize;
    required.cdw10 = 1;
    required.addr = command.addr;
    if (command.addr == 0 || std::memcmp(&command, &required, sizeof command) != 0) {
        return Fail(EINVAL, "NVME_IOCTL_ADMIN_CMD on " + entry.name + " with " + HexText(argument, sizeof command));
    }
    auto* buffer = reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(command.addr));
    ExpectZero(entry, buffer, nvmeIdentifySize, "NVME_IOCTL_ADMIN_CMD");
    const Answer* answer = NextAnswer(entry.node.nvmeIdentify, entry, "Identify Controller");
    if (answer == nullptr) {
        return -1;
    }
    std::copy_n(answer->data.begin(), std::min(answer->data.size(), nvmeIdentifySize), buffer);
    return answer->result;
}

}  // namespace Kernel
