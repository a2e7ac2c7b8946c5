/**
 * @file
 * @brief What the program reads of the kernel's devices in a made-up /sys.
 */
#include "tools/zddevices/scan/kernelDevices.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "simhost.h"
#include "simhostTest.h"
#include "toolTests.h"
#include "tools/zddevices/scan/missing.h"

namespace Zendra::ZDDevices {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

class KernelDevicesTest : public testing::Test {
protected:
    void SetUp() override
    {
        SIMHOST_NEEDS_NAMESPACE();
        ASSERT_EQ(mount("none", "/sys", "tmpfs", 0, "mode=755"), 0);
        mounted = true;
        // libudev would take a /sys for none that is not the kernel's own.
        setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    }

    void TearDown() override
    {
        if (mounted) {
            unsetenv("SYSTEMD_DEVICE_VERIFY_SYSFS");
            EXPECT_EQ(umount("/sys"), 0);
        }
    }

    static void Write(const fs::path& file, const std::string& text)
    {
        fs::create_directories(file.parent_path());
        std::ofstream(file) << text << "\n";
    }

    static void Link(const fs::path& link, const fs::path& target)
    {
        fs::create_directories(link.parent_path());
        fs::create_symlink(target, link);
    }

    /** A device of a bus ("bus/scsi") or of a class ("class/nvme"). */
    static fs::path Device(const fs::path& directory, const std::string& subsystem, const std::string& kind = {})
    {
        const fs::path place = fs::path("/sys") / subsystem;
        Write(directory / "uevent", kind.empty() ? "" : "DEVTYPE=" + kind);
        fs::create_directories(place);
        Link(directory / "subsystem", place);
        Link((subsystem.rfind("bus/", 0) == 0 ? place / "devices" : place) / directory.filename(), directory);
        return directory;
    }

    static fs::path Host(const std::string& parent, const std::string& number, const std::string& driver)
    {
        const std::string name = "host" + number;
        fs::path host = Device("/sys/devices/" + parent + "/" + name, "bus/scsi", "scsi_host");
        Write(host / "scsi_host" / name / "proc_name", driver);
        return host;
    }

    /** A device behind a host adapter, with entries that stand for its files: "block/sda". */
    static fs::path Unit(const fs::path& target, const std::string& address, const std::string& type,
                         const std::vector<std::string>& entries)
    {
        fs::path unit = Device(target / address, "bus/scsi", "scsi_device");
        Write(unit / "type", type);
        for (const std::string& entry : entries) {
            fs::create_directories(unit / entry);
            // As the kernel writes its links.
            Link(fs::path("/sys/class") / entry, "../.." / (unit / entry).lexically_relative("/sys"));
        }
        return unit;
    }

    static std::string TransportOf(const std::string& file)
    {
        const KernelDevices devices = KernelDevices::Read();
        const KernelDevice* const device = devices.OfFile(file);
        return device != nullptr ? device->transport : "no such device";
    }

private:
    bool mounted = false;
};

using Strings = std::vector<std::string>;

TEST_F(KernelDevicesTest, AHostWithoutSysfsHasNoDevice)
{
    EXPECT_TRUE(KernelDevices::Read().All().empty());
}

TEST_F(KernelDevicesTest, OneDiskHasAllThatTheKernelTiesToIt)
{
    const fs::path host = Host("pci0/ata1", "2", "ahci");
    const fs::path disk = Unit(host / "target2:0:0", "2:0:0:0", "0",
                               {"scsi_generic/sg1", "block/sda", "bsg/2:0:0:0", "scsi_device/2:0:0:0"});
    Write(disk / "block/sda/size", "2097152");
    Write(disk / "block/sda/sda1/size", "2048");
    Write(disk / "state", "running");
    Write(disk / "vendor", "ATA     ");
    Write(disk / "model", "QEMU HARDDISK   ");
    Write(disk / "rev", "2.5+");
    Write(disk / "wwid", "naa.5000c50015ea71ac");
    Link(disk / "driver", "/sys/bus/scsi/drivers/sd");
    fs::create_directories("/sys/bus/scsi/drivers/sd");

    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), 1U);
    const KernelDevice& found = devices.All().front();
    EXPECT_EQ(found.files, Strings({"/dev/sda", "/dev/sg1", "/dev/bsg/2:0:0:0"}));
    EXPECT_EQ(found.address, "2:0:0:0");
    EXPECT_EQ(found.scsiType, 0U);
    EXPECT_TRUE(found.hasDriver);
    EXPECT_EQ(found.sizeBytes, 1024UL * 1024 * 1024);
    EXPECT_EQ(found.transport, "sata");
    EXPECT_EQ(found.wwn, "0x5000c50015ea71ac");
    EXPECT_EQ(found.state, "running");
    EXPECT_EQ(found.driver, "ahci");
    EXPECT_EQ(found.slot, "");
    EXPECT_EQ(found.model, "QEMU HARDDISK");
    EXPECT_EQ(found.revision, "2.5+");
    EXPECT_EQ(devices.OfFile("/dev/sg1"), &found);
    EXPECT_EQ(devices.OfFile("/dev/sda1"), nullptr);
    EXPECT_EQ(devices.OfFile("/dev/sg2"), nullptr);
}

TEST_F(KernelDevicesTest, WhatIsNoScsiDeviceIsPassedOver)
{
    const fs::path target = Device(Host("pci0", "2", "ahci") / "target2:0:0", "bus/scsi", "scsi_target");
    Unit(target, "2:0:0:0", "0", {});
    // As one looks that goes away between two system calls.
    Device("/sys/devices/nowhere/3:0:0:0", "bus/scsi");
    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), 1U);
    EXPECT_EQ(devices.All().front().address, "2:0:0:0");
}

TEST_F(KernelDevicesTest, AnAddressMayHaveNoUnitConnected)
{
    const fs::path target = Host("pci0", "0", "x") / "target0:0:0";
    const std::map<std::string, std::string> inquiries = {
        {"0:0:0:0", std::string("\0\0\6", 3)}, {"0:0:0:1", "\x20"}, {"0:0:0:2", "\x7F"}, {"0:0:0:3", "\5"}};
    for (const auto& [address, inquiry] : inquiries) {
        Write(Unit(target, address, "0", {"scsi_generic/sg" + address}) / "inquiry", inquiry);
    }
    Unit(target, "0:0:0:4", "0", {"scsi_generic/sg4"});
    const KernelDevices devices = KernelDevices::Read();
    for (const auto& [address, isConnected] : std::map<std::string, bool>{
             {"0:0:0:0", true}, {"0:0:0:1", false}, {"0:0:0:2", false}, {"0:0:0:3", true}, {"0:0:0:4", true}}) {
        ASSERT_NE(devices.OfAddress(address), nullptr);
        EXPECT_EQ(devices.OfAddress(address)->isConnected, isConnected) << address;
    }
}

TEST_F(KernelDevicesTest, TheFileThatAPersonUsesIsTheFirst)
{
    const fs::path target = Host("pci0", "0", "(null)") / "target0:0:0";
    Unit(target, "0:0:0:0", "1",
         {"scsi_tape/nst0", "scsi_tape/nst0a", "scsi_tape/st0a", "scsi_tape/st0", "bsg/0:0:0:0", "scsi_generic/sg10"});
    Unit(target, "0:0:0:1", "8", {"scsi_changer/sch0", "scsi_generic/sg2"});
    Unit(target, "0:0:0:2", "5", {"scsi_generic/sg3", "block/sr0"});
    Unit(target, "0:0:0:3", "1", {"scsi_generic/sg4"});

    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), 4U);
    EXPECT_EQ(devices.OfFile("/dev/nst0")->files,
              Strings({"/dev/st0", "/dev/st0a", "/dev/nst0", "/dev/nst0a", "/dev/sg10", "/dev/bsg/0:0:0:0"}));
    EXPECT_EQ(devices.OfFile("/dev/sch0")->files, Strings({"/dev/sg2", "/dev/sch0"}));
    EXPECT_EQ(devices.OfFile("/dev/sr0")->files, Strings({"/dev/sr0", "/dev/sg3"}));
    const KernelDevice& bareTape = *devices.OfFile("/dev/sg4");
    EXPECT_EQ(bareTape.files, Strings({"/dev/sg4"}));
    EXPECT_EQ(bareTape.scsiType, 1U);
    EXPECT_FALSE(bareTape.hasDriver);
    EXPECT_FALSE(bareTape.sizeBytes);
    EXPECT_EQ(bareTape.driver, "");
}

TEST_F(KernelDevicesTest, TransportsHaveTheWordsThatLsblkHasForThem)
{
    const auto hostOf = [](const std::string& parent, const std::string& number, const std::string& driver,
                           const std::string& hostClass = {}) {
        const fs::path host = Host(parent, number, driver);
        Unit(host / ("target" + number), number + ":0:0:0", "0", {"block/sd" + number});
        if (!hostClass.empty()) {
            Write(host / hostClass / ("host" + number) / "symbolic_name",
                  number == "5" ? "fcoe v0.1 over eth0" : "some adapter");
        }
        return host;
    };
    hostOf("pci0", "1", "sym53c8xx", "spi_host");
    hostOf("pci0", "2", "mpt3sas", "sas_host");
    hostOf("pci0", "3", "iscsi_tcp", "iscsi_host");
    hostOf("pci0", "4", "qla2xxx", "fc_host");
    hostOf("pci0", "5", "bnx2fc", "fc_host");
    hostOf("pci0/usb1/1-1", "6", "usb-storage");
    hostOf("pci0/ata1", "7", "ahci");
    hostOf("pci0/ata2", "8", "ata_piix");
    hostOf("pci0/virtio1", "9", "virtio_scsi");
    Write(hostOf("pci0/fw1", "10", "sbp2") / "target10/10:0:0:0/ieee1394_id", "0");
    Write(hostOf("pci0", "11", "hpsa") / "target11/11:0:0:0/sas_device/x", "");

    const Strings words = {"spi", "sas", "iscsi", "fc", "fcoe", "usb", "sata", "ata", "", "sbp", "sas"};
    for (std::size_t i = 0; i < words.size(); ++i) {
        EXPECT_EQ(TransportOf("/dev/sd" + std::to_string(i + 1)), words[i]) << i + 1;
    }
}

TEST_F(KernelDevicesTest, AnAdapterWhoseDriverGivesNoNameHasTheOneThatItHangsOn)
{
    const fs::path interface = Device("/sys/devices/pci0/usb2/2-2:1.0", "bus/usb", "usb_interface");
    fs::create_directories("/sys/bus/usb/drivers/uas");
    Link(interface / "driver", "/sys/bus/usb/drivers/uas");
    Unit(Host("pci0/usb2/2-2:1.0", "11", "<NULL>") / "target11:0:0", "11:0:0:0", "0", {"block/sda"});
    Unit(Host("pci0", "12", "<NULL>") / "target12:0:0", "12:0:0:0", "0", {"block/sdb"});
    const KernelDevices devices = KernelDevices::Read();
    EXPECT_EQ(devices.OfFile("/dev/sda")->driver, "uas");
    EXPECT_EQ(devices.OfFile("/dev/sdb")->driver, "");
}

TEST_F(KernelDevicesTest, AWorldWideNameIsWrittenAsInDevDiskById)
{
    const fs::path target = Host("pci0", "0", "x") / "target0:0:0";
    const std::vector<std::pair<std::string, std::string>> names = {{"naa.600605b0", "0x600605b0"},
                                                                    {"eui.0025385971b2b2c4", "eui.0025385971b2b2c4"},
                                                                    {"t10.ATA     QEMU HARDDISK    QM00001", ""}};
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string number = std::to_string(i);
        Write(Unit(target, "0:0:0:" + number, "0", {"block/sd" + number}) / "wwid", names[i].first);
    }
    const KernelDevices devices = KernelDevices::Read();
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(devices.OfFile("/dev/sd" + std::to_string(i))->wwn, names[i].second);
    }
}

TEST_F(KernelDevicesTest, ASlotIsTheEnclosuresComponentElseTheBayOfTheEndDevice)
{
    const fs::path host = Host("pci0", "6", "mpt3sas");
    fs::create_directories(host / "sas_host/host6");
    const fs::path inSlot = Unit(host / "port-6:0/end_device-6:0/target6:0:0", "6:0:0:0", "0", {"block/sda"});
    const fs::path endDevice = Device(host / "port-6:1/end_device-6:1", "class/sas_port");
    Write(endDevice / "sas_device/end_device-6:1/enclosure_identifier", "0x500304800ad4e03f");
    Write(endDevice / "sas_device/end_device-6:1/bay_identifier", "7");
    Device(endDevice / "target6:0:1", "bus/scsi", "scsi_target");
    Unit(endDevice / "target6:0:1", "6:0:1:0", "0", {"block/sdb"});
    const fs::path enclosure = Unit(host / "target6:0:9", "6:0:9:0", "13", {"scsi_generic/sg2"});
    const fs::path services = Device(enclosure / "enclosure/6:0:9:0", "class/enclosure");
    Link(services / "device", enclosure);
    const fs::path slot = Device(services / "Slot 03", "class/enclosure");
    Write(slot / "slot", "3");
    Link(slot / "device", inSlot);

    const KernelDevices devices = KernelDevices::Read();
    EXPECT_EQ(devices.OfFile("/dev/sda")->slot, "6:0:9:0/Slot 03");
    EXPECT_EQ(devices.OfFile("/dev/sdb")->slot, "0x500304800ad4e03f/7");
    EXPECT_EQ(devices.OfFile("/dev/sg2")->slot, "");
}

TEST_F(KernelDevicesTest, ABayWithoutAnEnclosureIsNoSlot)
{
    const fs::path host = Host("pci0", "6", "mptsas");
    fs::create_directories(host / "sas_host/host6");
    // Zero bytes are what the kernel gives where the driver fails.
    const std::vector<std::string> enclosures = {"", "0x0", "0x0000000000000000", std::string(33, '\0')};
    for (std::size_t i = 0; i < enclosures.size(); ++i) {
        const std::string number = std::to_string(i);
        const std::string endDevice = "end_device-6:" + number;
        const fs::path directory = host / ("port-6:" + number) / endDevice;
        Write(directory / "sas_device" / endDevice / "enclosure_identifier", enclosures[i]);
        Write(directory / "sas_device" / endDevice / "bay_identifier", "0");
        Unit(directory / ("target6:0:" + number), "6:0:" + number + ":0", "0", {"block/sd" + number});
    }

    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), enclosures.size());
    for (const KernelDevice& device : devices.All()) {
        EXPECT_EQ(device.transport, "sas");
        EXPECT_EQ(device.slot, "") << device.address;
    }
}

TEST_F(KernelDevicesTest, AnNvmeControllerIsOneDeviceWithItsNamespaces)
{
    const fs::path controller = Device("/sys/devices/pci0/nvme/nvme0", "class/nvme");
    Write(controller / "state", "live");
    Write(controller / "model", "SAMSUNG MZVL2512HCJQ-00B00              ");
    Write(controller / "firmware_rev", "GXA7401Q");
    for (const std::string number : {"1", "2", "10"}) {
        const fs::path disk = Device(controller / ("nvme0n" + number), "class/block", "disk");
        Write(disk / "size", "2048");
        Write(disk / "wwid", "eui.000000000000000" + number);
        Device(controller / ("ng0n" + number), "class/nvme-generic");
    }
    fs::create_directories(controller / "nvme0n1p1");

    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), 1U);
    const KernelDevice& found = devices.All().front();
    EXPECT_EQ(found.files, Strings({"/dev/nvme0n1", "/dev/nvme0n2", "/dev/nvme0n10", "/dev/nvme0", "/dev/ng0n1",
                                    "/dev/ng0n2", "/dev/ng0n10"}));
    EXPECT_EQ(found.address, "");
    EXPECT_FALSE(found.scsiType);
    EXPECT_TRUE(found.hasDriver);
    EXPECT_EQ(found.sizeBytes, 3UL * 1024 * 1024);
    EXPECT_EQ(found.namespaces.at("/dev/nvme0n10").sizeBytes, 1024U * 1024);
    EXPECT_EQ(found.namespaces.at("/dev/nvme0n10").wwn, "eui.00000000000000010");
    EXPECT_EQ(found.transport, "nvme");
    EXPECT_EQ(found.driver, "nvme");
    EXPECT_EQ(found.wwn, "eui.0000000000000001");
    EXPECT_EQ(found.state, "live");
    EXPECT_EQ(found.model, "SAMSUNG MZVL2512HCJQ-00B00");
    EXPECT_EQ(found.revision, "GXA7401Q");
}

TEST_F(KernelDevicesTest, ANamespaceIsAFileOfEachControllerThatReachesIt)
{
    const fs::path subsystem = Device("/sys/devices/virtual/nvme-subsystem/nvme-subsys0", "class/nvme-subsystem");
    for (const std::string number : {"0", "1"}) {
        const fs::path controller = Device("/sys/devices/pci0/nvme/nvme" + number, "class/nvme");
        Link(subsystem / ("nvme" + number), controller);
        fs::create_directories(controller / ("nvme0c" + number + "n1"));
        // The first namespace is shared, of the others each controller has one; the last is not ready yet.
        fs::create_directories(controller / ("nvme0c" + number + "n" + (number == "0" ? "2" : "3")));
        fs::create_directories(controller / ("nvme0c" + number + "n4"));
        const fs::path disk = Device(subsystem / ("nvme0n" + (number == "0" ? "2"s : "3"s)), "class/block", "disk");
        Write(disk / "size", "16");
        Write(disk / "wwid", "uuid." + number);
    }
    const fs::path disk = Device(subsystem / "nvme0n1", "class/block", "disk");
    Write(disk / "size", "8");
    Write(disk / "wwid", "uuid.x");
    Device(subsystem / "ng0n1", "class/nvme-generic");

    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), 2U);
    EXPECT_EQ(devices.All()[0].files, Strings({"/dev/nvme0n1", "/dev/nvme0n2", "/dev/nvme0", "/dev/ng0n1"}));
    EXPECT_EQ(devices.All()[1].files, Strings({"/dev/nvme0n1", "/dev/nvme0n3", "/dev/nvme1", "/dev/ng0n1"}));
    EXPECT_EQ(devices.All()[0].wwn, "uuid.x");
    EXPECT_EQ(devices.All()[1].sizeBytes, 12U * 1024);
    EXPECT_EQ(devices.OfFile("/dev/nvme0n1"), &devices.All()[0]);
    EXPECT_EQ(devices.OfFile("/dev/nvme0n3"), &devices.All()[1]);
    EXPECT_EQ(devices.CountPaths("uuid.x"), 2U);
    EXPECT_EQ(devices.CountPaths("uuid.1"), 1U);
    EXPECT_EQ(devices.CountPaths("uuid.y"), 0U);
}

TEST_F(KernelDevicesTest, AFileIsTheDevicesWhoseNumberItHasWhateverItsName)
{
    const fs::path target = Host("pci0", "0", "x") / "target0:0:0";
    const fs::path disk = Unit(target, "0:0:0:0", "0", {"block/sda"});
    const fs::path tape = Unit(target, "0:0:0:1", "1", {"scsi_tape/st0"});
    Link("/sys/dev/block/8:0", disk / "block/sda");
    Link("/sys/dev/char/9:0", tape / "scsi_tape/st0");
    const fs::path directory = "/sys/nodes";
    fs::create_directories(directory);
    if (mknod((directory / "null").c_str(), S_IFCHR, makedev(1, 3)) != 0) {
        GTEST_SKIP() << "making device nodes takes root: " << std::strerror(errno);
    }
    const auto node = [&](const char* name, mode_t kind, unsigned major) {
        const fs::path path = directory / name;
        EXPECT_EQ(mknod(path.c_str(), kind | S_IRUSR, makedev(major, 0)), 0);
        return path.string();
    };
    const KernelDevices devices = KernelDevices::Read();
    ASSERT_EQ(devices.All().size(), 2U);
    const std::string blockFile = node("sdb", S_IFBLK, 8);
    const std::string tapeFile = node("tape", S_IFCHR, 9);
    EXPECT_EQ(devices.OfFile(blockFile), devices.OfAddress("0:0:0:0"));
    EXPECT_EQ(devices.OfFile(tapeFile), devices.OfAddress("0:0:0:1"));
    EXPECT_EQ(devices.OfFile(node("sdc", S_IFCHR, 8)), nullptr);
    EXPECT_TRUE(DevicesWithoutFile(devices, std::nullopt, {blockFile, tapeFile}).empty());
    const std::vector<Missing> missing = DevicesWithoutFile(devices, std::nullopt, {tapeFile});
    ASSERT_EQ(missing.size(), 1U);
    EXPECT_EQ(missing.front().deviceFile, "/dev/sda");
}

}  // namespace
}  // namespace Zendra::ZDDevices
