#include "module/osinfos/systemdevice/deviceCollector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/allocations.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/fakeHost.h"
#include "support/groupingLocale.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

const char* const proxyNames[] = {"TapeProxy", "SCSIProxy", "PhysicalDriveProxy", "CDDVDProxy"};

class DeviceCollectorTest : public DeviceTest {
protected:
    static Lines Constructed() { return {L4("Enter construct DeviceCollector ")}; }

    /** The log of one class's scan, `scan` being what its proxy logs between its making and its end. */
    static Lines Individual(int type, const Lines& scan)
    {
        const std::string number = std::to_string(type);
        const std::string proxy = proxyNames[type >= 0 && type <= 3 ? type : 1];
        return Join({{L4("Enter DeviceCollector::GetIndividualDevice() device type = " + number),
                      L4("Enter construct SysDevice device type is " + number),
                      L4("Enter SysDevice::GetData()  device_type = " + number)},
                     Logs::Made(proxy),
                     {L4("Entry DataProxy::GetDeviceList()")},
                     scan,
                     Logs::Deleted(proxy)});
    }

    static Lines All()
    {
        DeviceCollector collector;
        std::vector<SystemDevice> devices;
        EXPECT_EQ(0U, collector.GetAllDevice(devices));
        return Texts(devices);
    }

    static Lines One(int type, unsigned status = 0)
    {
        DeviceCollector collector;
        std::vector<SystemDevice> devices;
        EXPECT_EQ(status, collector.GetIndividualDevice(devices, static_cast<SysDeviceType>(type)));
        return Texts(devices);
    }

    /** A disk with this address, named by its vendor; its record has the given address texts. */
    static FakeDevice Disk(const std::string& vendor, int host, int channel, int target, int lun)
    {
        return ScsiDevice(0, vendor, "PRODUCT", "REV1", "SERIAL", host, channel, target, lun);
    }
    static std::string DiskRecord(const std::string& vendor, const std::string& port, const std::string& target,
                                  const std::string& bus, const std::string& lun)
    {
        return Record(vendor, "PRODUCT", "Direct Access Device", "SERIAL", "REV1", port, target, bus, lun);
    }
};

TEST_F(DeviceCollectorTest, HoldsNothingAndConstructorOnlyLogs)
{
    static_assert(std::is_empty<DeviceCollector>::value);
    static_assert(!std::is_polymorphic<DeviceCollector>::value);
    ExpectTraceAtEveryLevel(Constructed(), [] { DeviceCollector(); });
}

TEST_F(DeviceCollectorTest, HostWithoutDevicesLogsTheFourNoneFoundLinesAndAnswersOk)
{
    ListDev({".", "..", "null", "stdin", "stdout", "stderr"});
    ExpectTraceAtEveryLevel(Join({Constructed(),
                                  {L4("Enter DeviceCollector::GetAllDevice()")},
                                  Individual(0, Join({Logs::Scan(), Logs::Scan()})),
                                  {L4(" There has none tape device file.")},
                                  Individual(1, Logs::Scan()),
                                  {L4(" There has none scsi device file.")},
                                  Individual(2, Join({Logs::Scan(), Logs::Scan(), Logs::Scan()})),
                                  {L4(" There has none physical driver device file. ")},
                                  Individual(3, Logs::Scan()),
                                  {L4(" There has none cddvd device file. ")},
                                  {L4("Leave DeviceCollector::GetAllDevice()")}}),
                            [] {
                                DeviceCollector collector;
                                std::vector<SystemDevice> devices(1);
                                devices[0].vendor = "before";
                                EXPECT_EQ(0U, collector.GetAllDevice(devices));
                                EXPECT_EQ((Lines{Record("before", "", "", "", "", "", "", "", "")}), Texts(devices));
                            });
}

TEST_F(DeviceCollectorTest, ClassWithDeviceFilesThatDoNotAnswerHasNoNoneFoundLine)
{
    FakeHost host;
    FakeDevice locked;
    locked.openError = EACCES;
    for (const char* name : {"st0", "sg0", "sda", "sr0"}) {
        host.Add(name, locked);
    }
    host.Install();
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ(Lines(), All());
    Zendra::Log::SetMinLogLevel(0);
    for (const std::string& line : Trace::Take()) {
        EXPECT_EQ(std::string::npos, line.find("There has none")) << line;
    }
}

TEST_F(DeviceCollectorTest, IndividualClassIsScannedAndItsCodePassedThrough)
{
    ListDev({});
    for (const int type : {0, 1, 2, 3, 42, -1}) {
        SCOPED_TRACE(type);
        const std::size_t scans = type == 0 ? 2 : type == 2 ? 3 : 1;
        Lines scan;
        for (std::size_t i = 0; i < scans; ++i) {
            scan = Join({scan, Logs::Scan()});
        }
        ExpectTraceAtEveryLevel(Join({Constructed(), Individual(type, scan)}),
                                [type] { EXPECT_EQ(Lines(), One(type, 6)); });
    }
}

TEST_F(DeviceCollectorTest, DiskSeenAsSdAndSgIsListedOnceWithTheGenericRecord)
{
    FakeHost host;
    // The two nodes are told apart by their revision only.
    host.Add("sdb", ScsiDevice(0, "SEAGATE", "ST3300657SS", "viaD", "3SJ0", 0, 0, 1, 0));
    host.Add("sg1", ScsiDevice(0, "SEAGATE", "ST3300657SS", "viaG", "3SJ0", 0, 0, 1, 0));
    host.Install();
    const std::string generic =
        Record("SEAGATE", "ST3300657SS", "Direct Access Device", "3SJ0", "viaG", "0", "1", "0", "0");
    const std::string disk =
        Record("SEAGATE", "ST3300657SS", "Direct Access Device", "3SJ0", "viaD", "0", "1", "0", "0");
    EXPECT_EQ((Lines{generic}), All());
    EXPECT_EQ((Lines{disk}), One(2));
    EXPECT_EQ((Lines{generic}), One(1));
}

TEST_F(DeviceCollectorTest, DiskAndOpticalDriveAtOneAddressLeaveTheDisk)
{
    FakeHost host;
    host.Add("sr0", ScsiDevice(5, "HL-DT-ST", "DVDRAM", "1.00", "", 1, 0, 0, 0));
    host.Add("sda", Disk("DISK", 1, 0, 0, 0));
    host.Install();
    EXPECT_EQ((Lines{DiskRecord("DISK", "1", "0", "0", "0")}), All());
}

TEST_F(DeviceCollectorTest, TwoDisksWithoutAddressAreBothListedWithEmptyAddresses)
{
    FakeHost host;
    host.Add("sda", Disk("FIRST", 0, 0, 0, 0));
    host.Add("sdb", Disk("SECOND", 0, 0, 0, 0));
    host.Install();
    EXPECT_EQ((Lines{DiskRecord("FIRST", "", "", "", ""), DiskRecord("SECOND", "", "", "", "")}), All());
    EXPECT_EQ((Lines{DiskRecord("FIRST", "0", "0", "0", "0"), DiskRecord("SECOND", "0", "0", "0", "0")}), One(2));
}

TEST_F(DeviceCollectorTest, CounterGoesOnAcrossClassesAndCountsTheLostOnesToo)
{
    FakeHost host;
    // The generic scan and the disk scan both see the disk, and without an address they cannot be one.
    host.Add("sg0", Disk("GENERIC", 0, 0, 0, 0));
    host.Add("sda", Disk("DISK", 0, 0, 0, 0));
    host.Add("sr0", ScsiDevice(5, "OPTICAL", "PRODUCT", "REV1", "", 0, 0, 0, 0));
    host.Add("st0", ScsiDevice(1, "TAPE", "PRODUCT", "REV1", "SERIAL", 2, 2, 2, 2));
    host.Install();
    // The tape at 2:2:2:2 takes the key of the second one without an address, which is the disk.
    EXPECT_EQ((Lines{DiskRecord("GENERIC", "", "", "", ""),
                     Record("TAPE", "PRODUCT", "Sequential Access Device", "SERIAL", "REV1", "2", "2", "2", "2"),
                     Record("OPTICAL", "PRODUCT", "CD-ROM Device", "", "REV1", "", "", "", "")}),
              All());
}

TEST_F(DeviceCollectorTest, CallingTwiceOnOneVectorYieldsEveryDeviceTwice)
{
    FakeHost host;
    host.Add("sda", Disk("A", 3, 0, 0, 0));
    host.Add("sdb", Disk("B", 0, 0, 0, 0));
    host.Install();
    DeviceCollector collector;
    std::vector<SystemDevice> devices;
    EXPECT_EQ(0U, collector.GetAllDevice(devices));
    EXPECT_EQ(0U, collector.GetAllDevice(devices));
    const Lines once = {DiskRecord("B", "", "", "", ""), DiskRecord("A", "3", "0", "0", "0")};
    EXPECT_EQ(Join({once, once}), Texts(devices));
    EXPECT_EQ(0U, collector.GetIndividualDevice(devices, SYS_DEVICE_PHYSICAL_DRIVE));
    EXPECT_EQ(Join({once, once, {DiskRecord("A", "3", "0", "0", "0"), DiskRecord("B", "0", "0", "0", "0")}}),
              Texts(devices));
}

TEST_F(DeviceCollectorTest, NvmeDiskHasNoAddress)
{
    FakeHost host;
    FakeDevice nvme;
    nvme.scsi = false;
    nvme.nvme = NvmeData("deadbeef", "QEMU NVMe Ctrl", "8.2.2");
    host.Add("nvme0n1", nvme);
    host.Install();
    const auto record = [](const std::string& number) {
        return Record("NVMe", Padded("QEMU NVMe Ctrl", 39), "Direct Access Device", Padded("deadbeef", 19), "8.2.2   ",
                      number, number, number, number);
    };
    EXPECT_EQ((Lines{record("")}), All());
    EXPECT_EQ((Lines{record("0")}), One(2));
}

TEST_F(DeviceCollectorTest, AddressesOfFiveDigitsAreWrittenPlainInAThousandsGroupingLocale)
{
    const GroupingLocale locale;
    FakeHost host;
    host.Add("sg0", Disk("A", 65535, 1000, 12345, 54321));
    host.Install();
    EXPECT_EQ((Lines{DiskRecord("A", "65535", "12345", "1000", "54321")}), All());
}

TEST_F(DeviceCollectorTest, EachCallLoadsTheModuleOncePerClass)
{
    int loads = 0;
    Calls().onSystem = [&loads](const std::string& command) {
        EXPECT_EQ(modprobeCommand, command);
        ++loads;
        return 0;
    };
    ListDev({});
    DeviceCollector collector;
    EXPECT_EQ(0, loads);
    std::vector<SystemDevice> devices;
    collector.GetAllDevice(devices);
    EXPECT_EQ(4, loads);
    collector.GetIndividualDevice(devices, SYS_DEVICE_TAPE);
    EXPECT_EQ(5, loads);
}

TEST_F(DeviceCollectorTest, WithoutTheSgModuleTheGenericClassReportsTheSdNodes)
{
    AnswerModprobe(256);
    FakeHost host;
    FakeDevice disk = Disk("SEAGATE", 0, 0, 1, 0);
    disk.ata = AtaData("WDC WD5000", "15.01H15", "WD-1");
    host.Add("sda", disk);
    host.Install();
    EXPECT_EQ((Lines{Record("WDC", "WD5000", "", Padded("WD-1", 20), "15.01H15", "0", "0", "0", "0")}), One(1));
    // Asked in two ways the disk has an address once, and so is listed twice.
    EXPECT_EQ((Lines{DiskRecord("SEAGATE", "0", "1", "0", "0"),
                     Record("WDC", "WD5000", "", Padded("WD-1", 20), "15.01H15", "", "", "", "")}),
              All());
}

TEST_F(DeviceCollectorTest, ExceptionsOfTheScanPassToTheCaller)
{
    ListDev({});
    int scans = 0;
    Calls().onOpenDirectory = [&scans](const std::string&) {
        ++scans;  // tape: st and nst; then generic: sg
        if (scans == 2) {
            Allocations::WatchNextOfSize(sizeof(SCSIProxy));
        } else if (scans == 3) {
            throw std::runtime_error("from within the scan");
        }
    };
    DeviceCollector collector;
    std::vector<SystemDevice> devices(1);
    EXPECT_THROW(collector.GetAllDevice(devices), std::runtime_error);
    EXPECT_EQ(1U, devices.size());
    // The proxy that was at work is not deleted; nobody but us can do so now.
    ASSERT_NE(nullptr, Allocations::Watched());
    delete static_cast<SCSIProxy*>(Allocations::Watched());
}

TEST_F(DeviceCollectorTest, ProxyThatCannotBeMadeIsNoNoneFoundAndTheOtherClassesGoOn)
{
    FakeHost host;
    host.Add("sr0", ScsiDevice(5, "HL-DT-ST", "DVDRAM", "1.00", "", 1, 0, 0, 0));
    host.Install();
    Zendra::Log::SetMinLogLevel(4);
    DeviceCollector collector;
    std::vector<SystemDevice> devices;
    Allocations::FailNextOfSize(sizeof(TapeProxy));
    EXPECT_EQ(0U, collector.GetAllDevice(devices));
    EXPECT_TRUE(Allocations::StopFailing());
    Zendra::Log::SetMinLogLevel(0);
    int noneFound = 0;
    int outOfMemory = 0;
    for (const std::string& line : Trace::Take()) {
        EXPECT_NE(L4(" There has none tape device file."), line);
        noneFound += line.find("There has none") != std::string::npos ? 1 : 0;
        outOfMemory += line == L4("makeDataProxy error due to catch an exception bad_alloc") ? 1 : 0;
    }
    EXPECT_EQ(2, noneFound);
    EXPECT_EQ(1, outOfMemory);
    EXPECT_EQ((Lines{Record("HL-DT-ST", "DVDRAM", "CD-ROM Device", "", "1.00", "1", "0", "0", "0")}), Texts(devices));
}

TEST_F(DeviceCollectorTest, MessagesNameTheirSourceFilesRelativeToTheRepository)
{
    FakeHost host;
    host.Add("sg0", Disk("A", 3, 0, 0, 0));
    host.Install();
    Zendra::Log::SetMinLogLevel(4);
    All();
    const std::string directory = "src/module/osinfos/systemdevice/";
    EXPECT_EQ((Lines{directory + "deviceCollector.cpp", directory + "sysDevice.cpp", directory + "dataProxy_linux.cpp",
                     directory + "dataOperator_linux.cpp"}),
              Trace::SourceFiles());
}

TEST_F(DeviceCollectorTest, NoMemoryOrDescriptorIsLeftBehind)
{
    FakeHost host;
    host.Add("sda", Disk("A", 3, 0, 0, 0));
    host.Add("sg0", Disk("A", 3, 0, 0, 0));
    host.Install();
    DeviceCollector collector;
    const auto scan = [&collector] {
        std::vector<SystemDevice> devices;
        collector.GetAllDevice(devices);
        EXPECT_EQ(1U, devices.size());
    };
    scan();
    const long before = Allocations::Live();
    scan();
    EXPECT_EQ(before, Allocations::Live());
    EXPECT_EQ(0U, host.OpenFiles());
}

}  // namespace
