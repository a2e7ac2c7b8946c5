// The kernel's table of optical drives: GetOpticalProperties() on a host with up to three drives.
//
// Input: byte 0: how cat ends: 0 normally, 1 with silence, 2 with a failing select, 3 with a failing waitpid; 4 is
// added where there is no cat, 8 for a log. Byte 1: what one read brings (more where that would be too many reads); 0:
// all. Byte 2: the number of drives (modulo 4). Then the table.

#include <cerrno>

#include "fakeSystem.h"
#include "logCapture.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "opticalModel.h"

using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using Zendra::ZDSystemDevice::OpticalProperty;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::Input input(data, size);
    const unsigned flags = input.Byte();
    Zendra::Fuzz::Child cat;
    cat.end = static_cast<Zendra::Fuzz::Child::End>(flags % 4);
    cat.execFailure = (flags & 4) != 0 ? ENOENT : 0;
    const bool logs = (flags & 8) != 0;
    const std::size_t pieceSize = input.Byte();
    const std::size_t driveCount = input.Byte() % 4;
    const std::string table = input.RestText();
    cat.output = Zendra::Fuzz::Pieces(table, pieceSize);

    Zendra::Fuzz::Host host;
    host.children.push_back(cat);
    std::vector<Zendra::Fuzz::OpticalDrive> drives;
    for (std::size_t i = 0; i < driveCount; ++i) {
        const std::string number = std::to_string(i);
        Kernel::DevEntry device;
        device.name = "sr" + number;
        Kernel::Answer inquiry;
        const std::string answer = std::string("\x05\x80\x05\x02\x1f\0\0\0", 8) + "Zendra " + number +
                                   "Optical drive  " + number + "1.0" + number;
        inquiry.data.assign(answer.begin(), answer.end());
        device.node.inquiry.push_back(inquiry);
        Zendra::Fuzz::Complete(device.node);
        host.dev.push_back(device);
        // Missing addresses and revision files are nothing to an optical drive.
        drives.push_back({"/dev/sr" + number, "Zendra " + number, "Optical drive  " + number});
    }

    std::string text;
    if (cat.execFailure == 0) {
        for (const std::string& chunk : Zendra::Fuzz::Chunks(cat.output)) {
            text += chunk;
        }
    }
    const std::vector<std::string> lines = Zendra::Fuzz::OpticalLines(text);
    const auto expected = Zendra::Fuzz::ExpectOptical(lines, drives);

    std::vector<OpticalProperty> properties(1);
    properties.front().drive_name_ = "another";
    Zendra::Fuzz::FakeSystem system(host);
    const Zendra::Fuzz::LogCapture log(logs ? 4 : 0);
    const unsigned status = Zendra::ZDSystemDevice::DeviceCollector().GetOpticalProperties(properties);
    RequireEqual(status, driveCount == 0 ? 6 : 0, "the status");
    RequireEqual(properties.front().drive_name_, "another", "the record that was there before");
    if (driveCount == 0) {
        Require(system.executions.empty(), "without a drive nothing is run");
        RequireEqual(static_cast<std::int64_t>(properties.size()), 1, "records without a drive");
        return 0;
    }
    RequireEqual(static_cast<std::int64_t>(system.executions.size()), 1, "programs that are run");
    RequireEqual(system.executions[0].path, "cat", "the program that is run");
    Require(system.executions[0].arguments == std::vector<std::string>{"cat", "/proc/sys/dev/cdrom/info"},
            "cat is given the table's path");
    RequireEqual(static_cast<std::int64_t>(properties.size()), expected ? 2 : 1, "records");
    if (expected) {
        RequireEqual(properties[1], *expected);
    }
    const std::string& written = Zendra::Fuzz::LogCapture::Lines();
    if (logs) {
        const std::string counted = "4 cat cdrom info result =      " + text +
                                    "\n4 cat cdrom lines =      " + std::to_string(lines.size()) + "\n" +
                                    (lines.size() < 20 ? "4 reading cdrom information is incomplete.\n" : "");
        Require(written.find(counted) != std::string::npos, "the log holds the table and counts its lines");
        const bool complains = written.find("4 reading cdrom information is incomplete.\n",
                                            written.find(counted) + counted.size()) != std::string::npos;
        Require(!complains, "no further complaint");
    } else {
        RequireEqual(written, "", "the log");
    }
    return 0;
}
