// What DataOperator::ExecPassThruCmd() makes of a driver's answers: status, sense data, retries, log.
//
// Input: byte 0: bit 0: log; bit 1: a 10-byte command; bit 2: the device file cannot be opened; bit 3: the driver does
// not tell its version. Bytes 1-4: the driver's version. Then one answer to SG_IO after the other:
//   1 errno (0: none), 1 info, 1 status, 1 masked status, 1 sense length written, 2 host status, 2 driver status,
//   1 n and n bytes of sense data, 1 n and n bytes of data.
// Behind the end of the input SG_IO answers with zeros. Numbers have their low byte first.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "fakeSystem.h"
#include "logCapture.h"
#include "module/osinfos/systemdevice/dataOperator_linux.h"

using Kernel::Answer;
using Zendra::Fuzz::Bytes;
using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;

namespace {

constexpr unsigned mostAttempts = 5;
constexpr std::size_t senseLength = 32;
constexpr std::size_t dataLength = 255;

/** What must come of a command. */
struct Expectation {
    int status = Zendra::ZDSystemDevice::DEV_SUCCESS;
    unsigned commands = 0;
    unsigned sleeps = 0;
    Bytes data = Bytes(dataLength);
    std::string log;
};

std::string Number(unsigned value, bool hexadecimal)
{
    char text[16];
    std::snprintf(text, sizeof text, hexadecimal ? "%x" : "%u", value);
    return text;
}

Expectation Expect(const Kernel::DevEntry& device, std::int32_t version)
{
    Expectation expected;
    const auto line = [&](const std::string& text) { expected.log += "4 " + text + "\n"; };
    const auto ioctl = [&](bool succeeds) {
        line("Enter DataOperator::ExecIoCtl().");
        line("Enter DataOperator::OpenDriveFile() driveName = /dev/sg0");
        if (device.kind != Kernel::EntryKind::Node) {
            line("DataOperator::ExecIoCtl(/dev/sg0)  invalid");
            return static_cast<int>(Zendra::ZDSystemDevice::DEV_OPEN_FAILED);
        }
        line(succeeds ? "Exit DataOperator::ExecIoCtl(), ret = 0" : "Exit DataOperator::ExecIoCtl(), ret = -1");
        return static_cast<int>(succeeds ? Zendra::ZDSystemDevice::DEV_SUCCESS : Zendra::ZDSystemDevice::DEV_FAILURE);
    };
    line("Enter DataOperator::ExecPassThruCmd()");
    expected.status = ioctl(device.node.sgVersion->failure == 0);
    if (expected.status != Zendra::ZDSystemDevice::DEV_SUCCESS || version < 30000) {
        line("Device do not compat with SCSI");
        return expected;
    }
    Bytes sense(senseLength);
    bool again = true;
    while (again && expected.commands < mostAttempts) {
        const std::size_t index = std::min<std::size_t>(expected.commands, device.node.inquiry.size() - 1);
        const Answer& answer = device.node.inquiry[index];
        ++expected.commands;
        expected.status = ioctl(answer.failure == 0);
        again = false;
        if (answer.failure != 0) {
            line("SG IOCTL error.");
            if (expected.commands == mostAttempts) {
                return expected;
            }
            break;
        }
        std::copy(answer.sense.begin(), answer.sense.end(), sense.begin());
        std::copy(answer.data.begin(), answer.data.end(), expected.data.begin());
        if (answer.info % 2 == 1) {
            again = sense[2] % 16 == 6 || (sense[12] == 4 && sense[13] == 1) || (sense[12] == 0x28 && sense[13] == 0);
            if (again) {
                line("Retry condition...");
                ++expected.sleeps;
            }
            const bool hexadecimal = answer.senseLengthWritten != 0;
            if (hexadecimal) {
                std::string bytes;
                // A driver that claims more than there is room for is not believed.
                for (std::size_t i = 0; i < answer.senseLengthWritten && i < senseLength; ++i) {
                    bytes += Number(sense[i], true);
                }
                line("SCSI sense data: " + bytes);
            }
            if (answer.maskedStatus != 0) {
                line(std::string("SG SCSI status=") + static_cast<char>(answer.status));
            }
            if (answer.hostStatus != 0) {
                line("SG Host status=" + Number(answer.hostStatus, hexadecimal));
            }
            if (answer.driverStatus != 0) {
                line("SG Driver status=" + Number(answer.driverStatus, hexadecimal));
            }
        }
    }
    line("Exit scsiPassThrough::execSCSICommand().");
    return expected;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::Input input(data, size);
    const unsigned flags = input.Byte();
    const bool logs = (flags & 1) != 0;
    const bool longCommand = (flags & 2) != 0;
    Zendra::Fuzz::Host host;
    host.dev.emplace_back();
    Kernel::DevEntry& device = host.dev.back();
    device.name = "sg0";
    device.kind = (flags & 4) != 0 ? Kernel::EntryKind::Unreadable : Kernel::EntryKind::Node;
    const std::int32_t version = input.Number32();
    device.node.sgVersion = Kernel::PlainAnswer{(flags & 8) != 0 ? EINVAL : 0, {version}, 0};
    do {
        Answer answer;
        answer.failure = input.Byte();
        answer.info = input.Byte();
        answer.status = input.Byte();
        answer.maskedStatus = input.Byte();
        answer.senseLengthWritten = input.Byte();
        answer.hostStatus = input.Number16();
        answer.driverStatus = input.Number16();
        answer.sense = input.Take(std::min<std::size_t>(input.Byte(), senseLength));
        answer.data = input.Take(input.Byte());
        device.node.inquiry.push_back(answer);
    } while (!input.IsEmpty() && device.node.inquiry.size() < mostAttempts);
    if (device.node.inquiry.size() < mostAttempts) {
        device.node.inquiry.emplace_back();
    }
    Zendra::Fuzz::Complete(device.node);
    const Expectation expected = Expect(device, version);

    const auto command = std::make_unique<unsigned char[]>(longCommand ? 10 : 9);
    const Bytes inquiry = {0x12, 0, 0, 0, 0x80, 0};
    std::copy(inquiry.begin(), inquiry.end(), command.get());
    command[7] = command[8] = 0x55;
    const auto buffer = std::make_unique<unsigned char[]>(dataLength);
    {
        Zendra::Fuzz::FakeSystem system(host);
        const Zendra::Fuzz::LogCapture log(logs ? 4 : 0);
        Zendra::ZDSystemDevice::DataOperator dataOperator;
        Zendra::ZDSystemDevice::ReqPassThruParam request;
        request.driveName = "/dev/sg0";
        request.cdb = command.get();
        request.cdbLength = longCommand ? 10 : 6;
        request.dataBuffer = buffer.get();
        RequireEqual(dataOperator.ExecPassThruCmd(request), expected.status, "the status");
        RequireEqual(system.Answers().ScsiCommands(), expected.commands, "SG_IOs");
        RequireEqual(system.Sleeps(), expected.sleeps, "sleeps");
        RequireEqual(Zendra::Fuzz::LogCapture::Lines(), logs ? expected.log : "", "the log");
    }
    Require(std::equal(expected.data.begin(), expected.data.end(), buffer.get()), "the data is what the device sent");
    Require(std::equal(inquiry.begin(), inquiry.end(), command.get()), "the command stays as it was");
    RequireEqual(command[7], expected.commands == 0 ? 0x55 : 0x00, "byte 7 behind the command");
    RequireEqual(command[8], expected.commands == 0 ? 0x55 : 0xff, "byte 8 behind the command");
    return 0;
}
