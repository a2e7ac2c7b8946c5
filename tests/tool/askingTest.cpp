/**
 * @file
 * @brief Devices that are slow, silent or deadly cost no more than their own records.
 */
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "simhost.h"
#include "simhostTest.h"
#include "toolTests.h"
#include "tools/zddevices/doctor/doctor.h"
#include "tools/zddevices/scan/asking.h"
#include "tools/zddevices/scan/questions.h"
#include "tools/zddevices/scan/sharing.h"

namespace Zendra::ZDDevices {
namespace {

using Strings = std::vector<std::string>;

SimHost::Answer Always(const std::string& text)
{
    SimHost::Answer answer;
    answer.anyTimes = true;
    answer.data.assign(36, ' ');
    answer.data[0] = 0;
    answer.data[4] = 31;
    std::copy(text.begin(), text.end(), answer.data.begin() + 8);
    return answer;
}

/** So many disks, each with an sd and an sg node. */
SimHost::Host HostWithDisks(int disks)
{
    SimHost::Host host;
    for (int disk = 0; disk < disks; ++disk) {
        const std::string letter(1, static_cast<char>('a' + disk));
        for (const std::string& name : {"sd" + letter, "sg" + std::to_string(disk)}) {
            SimHost::DevEntry entry;
            entry.name = name;
            entry.node.sgVersion = SimHost::PlainAnswer{0, {30536}, 0};
            entry.node.scsiId = SimHost::PlainAnswer{0, {1, 0, disk, 1}, 0};
            entry.node.idLun = SimHost::PlainAnswer{0, {disk | 1 << 8}, 0};
            entry.node.busNumber = SimHost::PlainAnswer{0, {1}, 0};
            entry.node.inquiry = {Always("HALVARD DISK " + letter)};
            SimHost::Answer none;
            none.anyTimes = true;
            none.failure = EIO;
            entry.node.serial = {none};
            entry.node.ataIdentify = {none};
            host.dev.push_back(entry);
        }
    }
    return host;
}

/** A host whose device files do something before they answer. */
class SickHost : public SimHost::MountedHost {
public:
    SickHost(const SimHost::Host& whole, std::function<void(const std::string& file)> illness)
        : MountedHost(whole), befall(std::move(illness))
    {
    }

    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        befall(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
        return MountedHost::Ioctl(descriptor, request, argument);
    }

private:
    std::function<void(const std::string& file)> befall;
};

Strings DevicesOf(const Inventory& inventory)
{
    Strings devices;
    for (const StorageDevice& device : inventory.devices.value()) {
        devices.push_back(device.product.substr(0, 6));
    }
    return devices;
}

/** "/dev/sda no_answer_in_time" */
Strings MissingOf(const Inventory& inventory)
{
    Strings missing;
    for (const Missing& one : inventory.missing) {
        missing.push_back(one.deviceFile + " " + WordOf(one.reason));
    }
    return missing;
}

class Asking : public testing::Test {
protected:
    void SetUp() override { SIMHOST_NEEDS_NAMESPACE(); }

    /** The inventory of a host with so many disks; of one class with `type`. */
    static Inventory Take(int disks, const std::function<void(const std::string& file)>& illness,
                          std::optional<std::chrono::nanoseconds> limit, std::size_t jobs = usualJobs)
    {
        const SimHost::Host host = HostWithDisks(disks);
        const SickHost mounted(host, illness);
        Options options;
        options.type = ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
        options.timeLimit = limit;
        options.jobs = jobs;
        return TakeInventory(options, nullptr);
    }
};

const Strings allButTheSecond = {"DISK a", "DISK c", "DISK d", "DISK e"};

TEST_F(Asking, ADeviceThatIsSilentCostsItsOwnRecord)
{
    for (const std::size_t jobs : {usualJobs, std::size_t{1}}) {
        const Inventory inventory = Take(
            5,
            [](const std::string& file) {
                while (file == "/dev/sdb") {
                    pause();
                }
            },
            std::chrono::seconds(4), jobs);
        EXPECT_EQ(DevicesOf(inventory), allButTheSecond) << jobs;
        EXPECT_EQ(MissingOf(inventory), Strings({"/dev/sdb no_answer_in_time"})) << jobs;
        EXPECT_EQ(inventory.missing.at(0).message, "no answer within 4 s");
    }
}

TEST_F(Asking, ADeviceThatIsLateAnswersAllTheSame)
{
    bool isLate = true;
    const Inventory inventory = Take(
        5,
        [&isLate](const std::string& file) {
            if (file == "/dev/sdb" && isLate) {
                isLate = false;
                // Longer than anybody waits for it before going on.
                usleep(1500000);
            }
        },
        std::nullopt);
    EXPECT_EQ(DevicesOf(inventory), Strings({"DISK a", "DISK b", "DISK c", "DISK d", "DISK e"}));
    EXPECT_EQ(MissingOf(inventory), Strings());
}

TEST_F(Asking, ADeviceThatKillsWhoAsksCostsItsOwnRecord)
{
    const auto isDeadly = [](const std::string& file) {
        if (file == "/dev/sdb") {
            std::raise(SIGKILL);
        }
    };
    const Inventory inventory = Take(5, isDeadly, std::chrono::seconds(600));
    EXPECT_EQ(DevicesOf(inventory), allButTheSecond);
    EXPECT_EQ(MissingOf(inventory), Strings({"/dev/sdb worker_died"}));
    EXPECT_EQ(inventory.missing.at(0).message, "its process was ended by signal 9 (Killed)");
    EXPECT_EQ(DevicesOf(Take(5, isDeadly, std::nullopt)), allButTheSecond);
}

TEST_F(Asking, WhereEveryDeviceKillsItComesToAnEnd)
{
    const Inventory inventory = Take(
        3, [](const std::string& /*file*/) { std::raise(SIGKILL); }, std::chrono::seconds(600));
    EXPECT_EQ(DevicesOf(inventory), Strings());
    EXPECT_EQ(MissingOf(inventory), Strings({"/dev/sda worker_died", "/dev/sdb worker_died", "/dev/sdc worker_died"}));
}

TEST_F(Asking, SlowDevicesAreSharedAndTheOrderStays)
{
    const SimHost::Host host = HostWithDisks(26);
    // Far above what a class is shared out for, so that a busy machine makes no difference.
    const SickHost mounted(host, [](const std::string& /*file*/) { usleep(20000); });
    Options options;
    // The whole list would be in the order of addresses, whoever asks.
    options.type = ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
    const Strings shared = DevicesOf(TakeInventory(options, nullptr));
    options.jobs = 1;
    EXPECT_EQ(shared, DevicesOf(TakeInventory(options, nullptr)));
    EXPECT_EQ(shared.size(), 26U);
}

TEST_F(Asking, DoctorTellsTheDeviceThatIsSilentFromThatWhichAnswers)
{
    const SimHost::Host host = HostWithDisks(2);
    const SickHost mounted(host, [](const std::string& file) {
        while (file == "/dev/sdb") {
            pause();
        }
    });
    const std::vector<CheckedFile> files =
        CheckInWorkers({{ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, "/dev/sdb"},
                        {ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, "/dev/sda"}},
                       std::chrono::seconds(4), std::chrono::steady_clock::now(), nullptr);
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(files[0].path, "/dev/sdb");
    EXPECT_EQ(files[0].visibility, Visibility::NoAnswerInTime);
    EXPECT_EQ(files[1].visibility, Visibility::Visible);
    EXPECT_EQ(files[1].product, "DISK a");
}

TEST_F(Asking, ATapeDriveIsAskedByOneFileAtATime)
{
    SimHost::Host host = HostWithDisks(1);
    SimHost::DevEntry tape = host.dev.front();
    host.dev.clear();
    for (const char* name : {"nst0l", "nst0", "nst0a", "nst0m", "nst1", "nst1a"}) {
        tape.name = name;
        host.dev.push_back(tape);
    }
    const SickHost mounted(host, [](const std::string& file) {
        const int drive = open(("/sys" + file.substr(0, sizeof "/dev/nst0" - 1)).c_str(), O_CREAT | O_RDWR, 0600);
        if (flock(drive, LOCK_EX | LOCK_NB) != 0) {
            std::ofstream("/sys/clash") << file;
        }
        // Loading takes longer than anybody waits for a device before going on; the others are slow.
        const bool isLoaded = std::filesystem::exists("/sys/loaded");
        std::ofstream("/sys/loaded") << file;
        usleep(isLoaded ? 20000 : 1500000);
        close(drive);
    });
    std::filesystem::create_directories("/sys/dev");
    Options options;
    options.type = ZDSystemDevice::SYS_DEVICE_TAPE;
    EXPECT_EQ(DevicesOf(TakeInventory(options, nullptr)), Strings(6, "DISK a"));
    EXPECT_TRUE(std::filesystem::exists("/sys/loaded"));
    EXPECT_FALSE(std::filesystem::exists("/sys/clash"));
}

/** Mounts an empty directory over one of sysfs, in this thread's mount namespace, while it lives. */
class EmptyDirectory {
public:
    explicit EmptyDirectory(std::filesystem::path where) : path(std::move(where))
    {
        EXPECT_EQ(mount("tmpfs", path.c_str(), "tmpfs", 0, nullptr), 0);
    }
    ~EmptyDirectory() { EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0); }
    EmptyDirectory(const EmptyDirectory&) = delete;
    EmptyDirectory& operator=(const EmptyDirectory&) = delete;

private:
    std::filesystem::path path;
};

TEST_F(Asking, ADeviceThatGoesOutOfServiceWhileItIsAskedIsSaidToBeSo)
{
    namespace fs = std::filesystem;
    SimHost::Host host = HostWithDisks(1);
    for (SimHost::DevEntry& entry : host.dev) {
        entry.node.inquiry = entry.node.serial;  // nothing but errors
    }
    const fs::path disk = "/sys/class/hosts/host0/target0:0:0/0:0:0:0";
    const SickHost mounted(host, [&disk](const std::string& /*file*/) {
        // Long after the program has read sysfs for the first time.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        std::ofstream(disk / "state") << "offline\n";
    });
    fs::create_directories(disk / "block/sda");
    fs::create_directories("/sys/class/block");
    fs::create_directories("/sys/bus/scsi/devices");
    fs::create_symlink(disk / "block/sda", "/sys/class/block/sda");
    fs::create_symlink(disk, "/sys/bus/scsi/devices/0:0:0:0");
    std::ofstream(disk / "state") << "running\n";
    Options options;
    options.type = ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
    const Inventory inventory = TakeInventory(options, nullptr);
    EXPECT_EQ(MissingOf(inventory), Strings({"/dev/sda offline"}));
}

TEST_F(Asking, ADeviceFileThatAppearsMeanwhileIsSaidToHaveDoneSo)
{
    const Inventory inventory = Take(
        1, [](const std::string& /*file*/) { std::ofstream("/dev/sdq"); }, std::nullopt);
    EXPECT_EQ(DevicesOf(inventory), Strings({"DISK a"}));
    ASSERT_EQ(MissingOf(inventory), Strings({"/dev/sdq not_asked"}));
    EXPECT_EQ(inventory.missing[0].message, "it appeared while other devices were asked");
}

TEST_F(Asking, ATapeThatAnsweredByOneFileLacksNoneOfTheOthers)
{
    namespace fs = std::filesystem;
    SimHost::Host host = HostWithDisks(1);
    SimHost::DevEntry tape = host.dev.front();
    tape.name = "nst0";
    host.dev = {tape};
    for (const char* name : {"nst0a", "nst1"}) {
        tape.name = name;
        tape.node.inquiry = tape.node.serial;  // nothing but errors
        host.dev.push_back(tape);
    }
    const SimHost::MountedHost mounted(host);
    fs::create_directories("/sys/bus/scsi/devices");
    for (const auto& [address, names] : {std::pair{"0:0:0:0", Strings{"nst0", "nst0a"}}, {"0:0:1:0", {"nst1"}}}) {
        const fs::path device = fs::path("/sys/devices/host0/target0:0:0") / address;
        for (const std::string& name : names) {
            fs::create_directories(device / "scsi_tape" / name);
            fs::create_directories("/sys/class/scsi_tape");
            fs::create_symlink(device / "scsi_tape" / name, "/sys/class/scsi_tape/" + name);
        }
        fs::create_symlink(device, fs::path("/sys/bus/scsi/devices") / address);
    }
    Options options;
    options.type = ZDSystemDevice::SYS_DEVICE_TAPE;
    const Inventory inventory = TakeInventory(options, nullptr);
    EXPECT_EQ(DevicesOf(inventory), Strings({"DISK a"}));
    EXPECT_EQ(MissingOf(inventory), Strings({"/dev/nst1 no_usable_answer"}));
}

TEST_F(Asking, ADiskThatAnsweredByOneFileLacksItsOther)
{
    namespace fs = std::filesystem;
    SimHost::Host host = HostWithDisks(2);
    for (SimHost::DevEntry& entry : host.dev) {
        if (entry.name == "sdb") {
            entry.node.inquiry = entry.node.serial;  // nothing but errors
        }
    }
    const SimHost::MountedHost mounted(host);
    const fs::path device = "/sys/devices/host0/target0:0:0/0:0:0:0";
    fs::create_directories("/sys/bus/scsi/devices");
    fs::create_directories("/sys/class/block");
    fs::create_symlink(device, "/sys/bus/scsi/devices/0:0:0:0");
    for (const std::string name : {"sda", "sdb"}) {
        fs::create_directories(device / "block" / name);
        fs::create_symlink(device / "block" / name, "/sys/class/block/" + name);
    }
    Options options;
    options.type = ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
    EXPECT_EQ(MissingOf(TakeInventory(options, nullptr)), Strings({"/dev/sdb no_usable_answer"}));
}

TEST_F(Asking, AnSgDriverThatModprobeDoesNotFindIsAWarning)
{
    SimHost::Host host = HostWithDisks(1);
    host.modprobeStatus = 256;
    const SimHost::MountedHost mounted(host);
    EXPECT_TRUE(TakeInventory({}, nullptr).missing.empty());
    std::filesystem::create_directories("/sys/module/sg");
    Options options;
    for (const bool asLibrary : {false, true}) {
        options.asLibrary = asLibrary;
        const Inventory inventory = TakeInventory(options, nullptr);
        ASSERT_EQ(inventory.missing.size(), 1U);
        EXPECT_EQ(inventory.missing[0].reason, Reason::NoDriver);
        EXPECT_EQ(inventory.missing[0].message.find("the sg driver is loaded, but \"modprobe sg\" fails"), 0U);
    }
}

TEST_F(Asking, AnEmptySysIsToldWhereRowsAreMadeOfIt)
{
    SimHost::Host host = HostWithDisks(1);
    host.modprobeStatus = 0;
    const SimHost::MountedHost mounted(host);
    EXPECT_EQ(MissingOf(TakeInventory({}, nullptr)), Strings());
    const EmptyDirectory sysfs("/sys");
    EXPECT_EQ(MissingOf(TakeInventory({}, nullptr)), Strings({" not_asked"}));
    Options asLibrary;
    asLibrary.asLibrary = true;
    EXPECT_EQ(MissingOf(TakeInventory(asLibrary, nullptr)), Strings());
}

TEST_F(Asking, TheAdapterOfADeviceIsTheFirstDriverAboveIt)
{
    namespace fs = std::filesystem;
    const EmptyDirectory classes("/sys/class");
    for (const auto& [driver, atATime] :
         {std::pair{"usb-storage", 1U}, {"ata_piix", 2U}, {"uas", 4U}, {"ahci", 8U}, {"mpt3sas", 16U}}) {
        const fs::path adapter = fs::path("/sys/class/adapters") / driver;
        const fs::path disk = adapter / "host0/target0:0:0/0:0:0:0";
        const fs::path block = fs::path("/sys/class/block") / (std::string("disk-of-") + driver);
        fs::create_directories(disk);
        fs::create_directories(block);
        // Of the disk itself, which is none of the adapter's.
        fs::create_symlink("/drivers/sd", disk / "driver");
        fs::create_symlink(fs::path("/drivers") / driver, adapter / "driver");
        fs::create_symlink(disk, block / "device");
        const HostAdapter found = HostAdapterOf("/dev/" + block.filename().string());
        EXPECT_EQ(found.directory, adapter);
        EXPECT_EQ(found.atATime, atATime);
    }
    EXPECT_EQ(HostAdapterOf("/dev/nowhere").directory, "");
}

TEST(TapeDriveOf, FilesOfADriveHaveItsNumber)
{
    for (const char* file : {"/dev/st0", "/dev/nst0", "/dev/nst0a", "/dev/st0m"}) {
        EXPECT_EQ(TapeDriveOf(file).directory, "st0") << file;
        EXPECT_EQ(TapeDriveOf(file).atATime, 1U);
    }
    EXPECT_EQ(TapeDriveOf("/dev/nst10l").directory, "st10");
    for (const char* file : {"/dev/sda", "/dev/nvme0n1", "/dev/sg0", "/dev/n", "/dev/st"}) {
        EXPECT_EQ(TapeDriveOf(file).directory, "") << file;
    }
}

TEST(Ask, AWorkerThatSendsSomethingElseIsAFailure)
{
    for (const Strings& part :
         {Strings(), Strings({"/dev/sda"}), Strings({"/dev/sda", "0", "x"}), Strings({"/dev/sda", "0", "99999999999"}),
          Strings({"/dev/sda", "0", "0", "one"}), Strings(6, "0")}) {
        const Task sends = [part](const Tell& tell) {
            tell.part(part);
            return Strings{"0"};
        };
        const std::vector<AskedOutcome> outcomes =
            Ask({{std::nullopt, sends}}, {std::chrono::seconds(600), std::chrono::steady_clock::now(), nullptr, 1});
        EXPECT_EQ(outcomes.at(0).failure, improperAnswer) << part.size();
        EXPECT_FALSE(outcomes.at(0).status);
    }
    for (const char* status : {"", "x"}) {
        const Task sends = [status](const Tell& /*tell*/) { return Strings{status}; };
        EXPECT_EQ(Ask({{std::nullopt, sends}}, {{}, std::chrono::steady_clock::now(), nullptr, 1}).at(0).failure,
                  improperAnswer);
    }
}

TEST(SharedFiles, EachIsTakenOnce)
{
    SharedFiles files({{"/dev/sda", "/dev/sdb"}, {"/dev/sda"}});
    EXPECT_TRUE(files.Has(0, "/dev/sdb"));
    EXPECT_FALSE(files.Has(1, "/dev/sdb"));
    EXPECT_EQ(files.LeftToTake(0), 2U);
    EXPECT_TRUE(files.Take(0, "/dev/sda"));
    EXPECT_FALSE(files.Take(0, "/dev/sda"));
    EXPECT_TRUE(files.Take(1, "/dev/sda"));
    files.LetGo(0, "/dev/sda");
    files.LetGo(0, "/dev/nowhere");
    EXPECT_FALSE(files.Take(0, "/dev/sda"));
    EXPECT_EQ(files.LeftToTake(0), 1U);
    EXPECT_EQ(files.LeftToTake(1), 0U);
}

TEST(SharedFiles, AnAdapterIsAskedForNoMoreThanItTakes)
{
    SharedFiles files({{"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/nvme0n1"}, {"/dev/sg0"}});
    EXPECT_TRUE(files.Take(0, "/dev/sdc"));
    files.Spare([](const std::string& path) {
        return path == "/dev/nvme0n1" ? HostAdapter{{}, 1} : HostAdapter{"/sys/devices/pci", 2};
    });
    EXPECT_TRUE(files.Take(0, "/dev/sda"));
    EXPECT_TRUE(files.Take(1, "/dev/sg0"));
    EXPECT_FALSE(files.Take(0, "/dev/sdb"));
    EXPECT_EQ(files.LeftToTake(0), 1U);
    EXPECT_TRUE(files.Take(0, "/dev/nvme0n1"));
    // Twice is once: the program lets go of what a worker may let go of, too.
    files.LetGo(1, "/dev/sg0");
    files.LetGo(1, "/dev/sg0");
    // It was taken before its adapter was known, and does not count there.
    files.LetGo(0, "/dev/sdc");
    EXPECT_EQ(files.LeftToTake(0), 1U);
    EXPECT_TRUE(files.Take(0, "/dev/sdb"));
    EXPECT_EQ(files.LeftToTake(0), 0U);
}

}  // namespace
}  // namespace Zendra::ZDDevices
