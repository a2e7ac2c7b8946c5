#include "tools/zddevices/scan/missing.h"

#include <cerrno>

#include "toolTests.h"
#include "tools/zddevices/output/messages.h"

namespace Zendra::ZDDevices {
namespace {

using ZDSystemDevice::SysDeviceType;
using Strings = std::vector<std::string>;

KernelDevice Device(std::vector<std::string> files, std::optional<unsigned int> type, bool hasDriver = true)
{
    KernelDevice device;
    device.files = std::move(files);
    device.scsiType = type;
    device.hasDriver = hasDriver;
    device.address = type ? "2:0:1:0" : "";
    return device;
}

TEST(WhyNoRecord, NamesTheReasonOfEachError)
{
    for (const auto& [openError, error, reason] : {std::tuple{EACCES, 0, Reason::Denied},
                                                   {EPERM, 0, Reason::Denied},
                                                   {0, EPERM, Reason::Refused},
                                                   {EBUSY, 0, Reason::Busy},
                                                   {0, EBUSY, Reason::Busy},
                                                   {ENOMEDIUM, 0, Reason::NoMedium},
                                                   {ENXIO, 0, Reason::Removed},
                                                   {ENOENT, 0, Reason::Removed},
                                                   {0, ENODEV, Reason::Removed},
                                                   {0, 0, Reason::NoUsableAnswer},
                                                   {0, EIO, Reason::NoUsableAnswer},
                                                   {ELOOP, 0, Reason::NoUsableAnswer}}) {
        const Missing missing = WhyNoRecord({"/dev/nowhere", openError, error}, nullptr);
        EXPECT_EQ(missing.reason, reason) << openError << " " << error;
        EXPECT_EQ(missing.deviceFile, "/dev/nowhere");
        EXPECT_EQ(missing.error, openError + error);
        EXPECT_FALSE(missing.message.empty());
    }
    EXPECT_EQ(WhyNoRecord({"/dev/sda", 0, EIO}, nullptr).message, "gives no answer: Input/output error (EIO)");
    EXPECT_EQ(WhyNoRecord({"/dev/sda", EPERM, 0}, nullptr).message,
              "this container or service has no access to the device");
}

TEST(WhyNoRecord, AStateThatPassesNoCommandsExplainsAnyError)
{
    KernelDevice device = Device({"/dev/sda"}, 0);
    device.state = "offline";
    EXPECT_EQ(WhyNoRecord({"/dev/sda", ENXIO, 0}, &device).reason, Reason::Offline);
    for (const char* state : {"running", "live", ""}) {
        device.state = state;
        EXPECT_EQ(WhyNoRecord({"/dev/sda", ENXIO, 0}, &device).reason, Reason::Removed) << state;
    }
}

Strings Without(const std::vector<KernelDevice>& devices, std::optional<SysDeviceType> type,
                const std::set<std::string>& accounted)
{
    Strings found;
    for (const Missing& one : DevicesWithoutFile(KernelDevices(devices), type, accounted)) {
        found.push_back(one.deviceFile + " " + WordOf(one.reason) + ": " + one.message);
    }
    return found;
}

TEST(DevicesWithoutFile, ATapeWithoutItsDriverIsMissingAmongTapesAlone)
{
    const std::vector<KernelDevice> devices = {Device({"/dev/sg3"}, 1, false)};
    EXPECT_EQ(Without(devices, ZDSystemDevice::SYS_DEVICE_TAPE, {}),
              Strings({"/dev/sg3 no_driver: the tape drive at 2:0:1:0 lacks a driver: modprobe st"}));
    EXPECT_EQ(Without(devices, std::nullopt, {"/dev/sg3"}), Strings());
    EXPECT_EQ(Without(devices, ZDSystemDevice::SYS_DEVICE_SCSI, {}), Strings());
}

TEST(DevicesWithoutFile, EachTypeHasItsDriver)
{
    const std::vector<std::pair<unsigned int, const char*>> drivers = {
        {0x00, "the disk at 2:0:1:0 lacks a driver: modprobe sd_mod"},
        {0x04, "the write-once drive at 2:0:1:0 lacks a driver: modprobe sr_mod"},
        {0x05, "the optical drive at 2:0:1:0 lacks a driver: modprobe sr_mod"},
        {0x07, "the optical disk at 2:0:1:0 lacks a driver: modprobe sd_mod"},
        {0x0E, "the disk at 2:0:1:0 lacks a driver: modprobe sd_mod"},
        {0x14, "the zoned disk at 2:0:1:0 lacks a driver: modprobe sd_mod"},
        {0x08, "the medium changer at 2:0:1:0 lacks a driver: modprobe sg"},
        {0x0D, "the enclosure at 2:0:1:0 lacks a driver: modprobe sg"},
        {0x03, "the SCSI device at 2:0:1:0 lacks a driver: modprobe sg"}};
    for (const auto& [type, message] : drivers) {
        EXPECT_EQ(Without({Device({}, type, false)}, std::nullopt, {}),
                  Strings({std::string(" no_driver: ") + message}));
    }
}

TEST(DevicesWithoutFile, AFileThatIsNotThereAndADiskThatIsNeverAskedAreNamed)
{
    EXPECT_EQ(Without({Device({"/dev/sda", "/dev/sg0"}, 0)}, std::nullopt, {}),
              Strings({"/dev/sda not_asked: the kernel has this disk at 2:0:1:0, /dev has no such file"}));
    EXPECT_EQ(Without({Device({"/dev/sda", "/dev/sg0"}, 0)}, std::nullopt, {"/dev/sg0"}), Strings());
    const std::vector<KernelDevice> nvme = {
        Device({"/dev/nvme10n1", "/dev/nvme10"}, std::nullopt), Device({"/dev/nvme1"}, std::nullopt),
        Device({"/dev/nvme2n1", "/dev/nvme2"}, std::nullopt), Device({"/dev/nvme3n10", "/dev/nvme3"}, std::nullopt)};
    EXPECT_EQ(Without(nvme, std::nullopt, {}),
              Strings({"/dev/nvme10 not_asked: the kernel has this NVMe disk, /dev has no such file",
                       "/dev/nvme2n1 not_asked: the kernel has this NVMe disk, /dev has no such file",
                       "/dev/nvme3n10 not_asked: the library asks no NVMe disk of this name"}));
    EXPECT_EQ(Without(nvme, ZDSystemDevice::SYS_DEVICE_TAPE, {}), Strings());
    EXPECT_EQ(
        Without(nvme, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, {"/dev/nvme10n1", "/dev/nvme2n1", "/dev/nvme3n10"}),
        Strings());
}

TEST(DevicesWithoutFile, AnNvmeControllerOutOfServiceHasLostItsDisks)
{
    KernelDevice controller = Device({"/dev/nvme1"}, std::nullopt);
    controller.state = "live";
    EXPECT_EQ(Without({controller}, std::nullopt, {}), Strings());
    controller.state = "dead";
    EXPECT_EQ(Without({controller}, std::nullopt, {}),
              Strings({"/dev/nvme1 offline: out of service: the kernel has set it \"dead\""}));
    EXPECT_EQ(Without({controller}, ZDSystemDevice::SYS_DEVICE_SCSI, {}), Strings());
}

TEST(DevicesWithoutFile, AnAddressAtWhichNoUnitIsConnectedLacksNothing)
{
    KernelDevice device = Device({"/dev/sg3"}, 0, false);
    EXPECT_EQ(Without({device}, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, {}).size(), 1U);
    device.isConnected = false;
    EXPECT_EQ(Without({device}, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, {}), Strings());
}

TEST(DevicesWithoutFile, WhereTheDirectoryMayNotBeListedNobodyKnowsWhichFilesAreThere)
{
    EXPECT_EQ(Without({Device({"/dev/sda", "/dev/sg0"}, 0)}, std::nullopt, {"/dev"}), Strings());
}

TEST(DescribeMissing, NamesTenAndCountsTheRest)
{
    std::vector<Missing> missing;
    for (int i = 0; i < 13; ++i) {
        missing.push_back({"/dev/sd" + std::to_string(i), Reason::Busy, EBUSY, "in use", {}});
        missing.push_back({"/dev/sg" + std::to_string(i), Reason::Denied, EACCES, "denied", "disk"});
    }
    const Strings lines = DescribeMissing(missing, false);
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines[0], "/dev/sd0: in use");
    EXPECT_EQ(lines[10], "3 more gave no answer; --format json names them all");
    EXPECT_EQ(lines[11].substr(0, 59), "13 device files could not be opened for lack of privilege (");
    EXPECT_NE(lines[11].find("/dev/sg9, ...); run zddevices as root, or join the group disk"), std::string::npos);
    EXPECT_EQ(DescribeMissing({{{}, Reason::NoDriver, 0, "no \x1b", {}}}, true), Strings({"no \\x1b"}));
}

TEST(Reasons, HaveTheirWords)
{
    const std::set<std::string> words = {
        WordOf(Reason::Denied),         WordOf(Reason::Refused),    WordOf(Reason::NoAnswerInTime),
        WordOf(Reason::Offline),        WordOf(Reason::Busy),       WordOf(Reason::NoMedium),
        WordOf(Reason::Removed),        WordOf(Reason::WorkerDied), WordOf(Reason::NotAsked),
        WordOf(Reason::NoUsableAnswer), WordOf(Reason::NoDriver)};
    EXPECT_EQ(words, std::set<std::string>({"denied", "refused", "no_answer_in_time", "offline", "busy", "no_medium",
                                            "removed", "worker_died", "not_asked", "no_usable_answer", "no_driver"}));
}

}  // namespace
}  // namespace Zendra::ZDDevices
