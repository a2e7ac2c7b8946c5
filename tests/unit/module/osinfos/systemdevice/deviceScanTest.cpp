#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/allocations.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/privateSysBlock.h"
#include "support/scriptedOperator.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

// ScanDeviceFiles

class DeviceFileScan : public DeviceTest {
protected:
    /** Scans `names` for `prefix`; expects `found`, in order, and the log that goes with it. */
    static void Expect(const std::string& prefix, const std::vector<std::string>& names,
                       const std::vector<std::string>& found)
    {
        SCOPED_TRACE(prefix);
        ListDev(names);
        Scripted<SCSIProxy> proxy;
        Trace::Take();
        ExpectTraceAtEveryLevel(Logs::Scan(found), [&] {
            std::string scanned = prefix;
            Lines files = {"kept"};
            EXPECT_EQ(0U, proxy.ScanDeviceFiles(scanned, files));
            Lines expected = {"kept"};
            for (const std::string& name : found) {
                expected.push_back("/dev/" + name);
            }
            EXPECT_EQ(expected, files);
            EXPECT_EQ(prefix, scanned);
        });
    }
};

TEST_F(DeviceFileScan, TakesTheNamesThatBelongToThePrefix)
{
    Expect("st", {".", "nst0", "st0", "st0a", "stdin", "stdout", "st1"}, {"st0", "st1"});
    Expect("nst", {"nst0", "nst0a", "st0"}, {"nst0", "nst0a"});
    Expect("sd", {"sda", "sda1", "sdab", "SDA"}, {"sda", "sdab"});
    Expect("nvme", {"nvme0", "nvme10", "nvme0n1", "nvme10n1"}, {"nvme10", "nvme0n1"});
    Expect("", {".", "..", "sda1"}, {".", "..", "sda1"});
}

TEST_F(DeviceFileScan, OrderIsThatOfTheDirectory)
{
    Expect("sg", {"sg2", "sg10", "sg1", "sg0"}, {"sg2", "sg10", "sg1", "sg0"});
}

TEST_F(DeviceFileScan, NamesThatLookTheSameAreAllTaken)
{
    Expect("sg", {"sg0", "sg0"}, {"sg0", "sg0"});
}

TEST_F(DeviceFileScan, NameOf255BytesIsTaken)
{
    const std::string name = "sg" + std::string(253, '1');
    Expect("sg", {name}, {name});
}

TEST_F(DeviceFileScan, UnreadableDirectoryGivesAllBitsSetAndNoExitLine)
{
    Calls().directories["/dev/"].openError = EACCES;
    Scripted<SCSIProxy> proxy;
    Trace::Take();
    ExpectTraceAtEveryLevel({L4("Entry  DataProxy::ScanDeviceFiles() ")}, [&proxy] {
        std::string prefix = "sg";
        Lines files = {"kept"};
        EXPECT_EQ(0xFFFFFFFFU, proxy.ScanDeviceFiles(prefix, files));
        EXPECT_EQ((Lines{"kept"}), files);
    });
}

TEST_F(DeviceFileScan, DirectoryStreamIsClosedAfterEveryScan)
{
    ListDev({"sg0"});
    Scripted<SCSIProxy> proxy;
    std::string prefix = "sg";
    for (int scan = 1; scan <= 3; ++scan) {
        Lines files;
        proxy.ScanDeviceFiles(prefix, files);
        EXPECT_EQ(scan, Calls().directoriesOpened);
        EXPECT_EQ(scan, Calls().directoriesClosed);
    }
}

TEST_F(DeviceFileScan, WhenMemoryRunsOutTheListHoldsWholePathsOnly)
{
    const std::string name = "-with-a-name-that-needs-memory-of-its-own";
    ListDev({"sg0" + name, "sg1", "sg2" + name});
    const Lines all = {"kept", "/dev/sg0" + name, "/dev/sg1", "/dev/sg2" + name};
    Scripted<SCSIProxy> proxy;
    bool failed = true;
    std::size_t failures = 0;
    for (std::size_t succeeding = 0; failed; ++succeeding) {
        std::string prefix = "sg";
        Lines files = {"kept"};
        Allocations::FailAfter(succeeding);
        try {
            proxy.ScanDeviceFiles(prefix, files);
            failed = Allocations::StopFailing();
        } catch (const std::bad_alloc&) {
            Allocations::StopFailing();
            ++failures;
        }
        ASSERT_LE(files.size(), all.size());
        EXPECT_TRUE(std::equal(files.begin(), files.end(), all.begin())) << succeeding;
    }
    EXPECT_GE(failures, 4U);
}

TEST_F(DeviceFileScan, DirectoryStreamIsClosedWhenMemoryRunsOut)
{
    ListDev({"sg0-with-a-name-that-needs-memory-of-its-own", "sg1-with-a-name-that-needs-memory-of-its-own"});
    Scripted<SCSIProxy> proxy;
    std::string prefix = "sg";
    bool completed = false;
    std::size_t failures = 0;
    for (std::size_t after = 0; !completed && after < 200; ++after) {
        Lines files;
        Calls().directoriesOpened = 0;
        Calls().directoriesClosed = 0;
        Allocations::FailAfter(after);
        try {
            proxy.ScanDeviceFiles(prefix, files);
            completed = !Allocations::StopFailing();
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(Allocations::StopFailing());
            ++failures;
        }
        EXPECT_EQ(Calls().directoriesOpened, Calls().directoriesClosed);
    }
    EXPECT_TRUE(completed);
    EXPECT_GT(failures, 0U);
}

// GetDeviceInfo

const std::string diskModel = Padded("WDC WD5000AAKX-001CA0", 40);
const std::string noAddress = "Port:0|Target:0|Bus:0|Lun:0";

/** The log of one optical, tape or sd probe through the SCSI ioctls that finds the address 2:0:1:3. */
Lines GenericLog(const std::string& serial)
{
    return Join({Logs::GenericEntry(false), Logs::AddressFromIoctls("Port:2|Target:1|Bus:0|Lun:3"),
                 serial.empty() ? Lines() : Logs::Serial(serial), Logs::GenericExit()});
}

class ProbeTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        ListSysBlock({});
    }

    /** The answers that go with GenericLog. */
    static std::vector<Step> GenericSteps(const std::string& path, unsigned char type, const std::string& vendor,
                                          const std::string& product, const std::string& serial)
    {
        std::vector<Step> steps = {Inquiry(path, InquiryData(type, vendor, product, "0001")), IdLun(path, 0x02000301),
                                   BusNumber(path, 2)};
        if (!serial.empty()) {
            steps.push_back(SerialPage(path, SerialPageData(serial)));
        }
        return steps;
    }

    template <class Proxy>
    static void Expect(const std::vector<Step>& steps, const Lines& log, unsigned status,
                       const std::function<unsigned(Scripted<Proxy>&, BusDevice&)>& probe,
                       const std::function<void(const BusDevice&)>& check = nullptr)
    {
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            SCOPED_TRACE("log level " + std::to_string(level));
            Scripted<Proxy> proxy(steps);
            Trace::Take();
            Zendra::Log::SetMinLogLevel(level);
            BusDevice device;
            EXPECT_EQ(status, probe(proxy, device));
            Zendra::Log::SetMinLogLevel(0);
            EXPECT_EQ(AtLevel(level, log), Trace::Take());
            if (check) {
                check(device);
            }
        }
    }
};

// Optical

class OpticalProbe : public ProbeTest {
protected:
    void ExpectProbe(const std::vector<Step>& steps, const Lines& log, unsigned status,
                     const std::function<void(const BusDevice&)>& check = nullptr)
    {
        Expect<CDDVDProxy>(
            steps, Join({{L4("Entry CDDVDProxy::GetDeviceInfo()")}, log, {L4("Exit CDDVDProxy::GetDeviceInfo()")}}),
            status,
            [this](Scripted<CDDVDProxy>& proxy, BusDevice& device) { return proxy.GetDeviceInfo(device, path); },
            check);
    }
    std::string path = "/dev/sr0";
};

TEST_F(OpticalProbe, DriveThatAnswersItsInquiryIsNotAskedAgain)
{
    ExpectProbe(GenericSteps(path, 5, "HL-DT-ST", "DVDRAM", ""), Join({GenericLog(""), Logs::NoFirmware()}), 4,
                [](const BusDevice& device) {
                    EXPECT_EQ("HL-DT-ST", device.vendorId);
                    EXPECT_EQ("0001", device.revision);
                    EXPECT_EQ(2, device.hostAdapter);
                });
}

TEST_F(OpticalProbe, FailedInquiryIsFollowedByTheAtaQuestionWhoseStatusCounts)
{
    ExpectProbe({Inquiry(path, {}, 5), AtaIdentify(path, AtaData("HL-DT-ST DVD", "R", "S"))},
                Join({Logs::GenericFailed(false), Logs::Driver(Padded("HL-DT-ST DVD", 40)), Logs::NoFirmware()}), 4);
    ExpectProbe({Inquiry(path, {}, 5), AtaIdentify(path, {}, 3)},
                Join({Logs::GenericFailed(false), Logs::DriverFailed(), Logs::NoFirmware()}), 3);
}

TEST_F(OpticalProbe, EmptyNamesAreFollowedByTheAtaQuestionWhoseStatusReplacesTheSuccess)
{
    ExpectProbe({Inquiry(path, {}), AtaIdentify(path, AtaData("A B", "R", "S"))},
                Join({Logs::GenericEmpty(false), Logs::Driver(Padded("A B", 40)), Logs::NoFirmware()}), 4,
                [](const BusDevice& device) { EXPECT_EQ("A", device.vendorId); });
    ExpectProbe({Inquiry(path, {}), AtaIdentify(path, {}, 5)},
                Join({Logs::GenericEmpty(false), Logs::DriverFailed(), Logs::NoFirmware()}), 5);
}

TEST_F(OpticalProbe, OneNameIsEnoughToLeaveOutTheAtaQuestion)
{
    Bytes answer = InquiryData(5, "", "PRODUCT", "1.00");
    std::fill(answer.begin() + 8, answer.begin() + 16, static_cast<unsigned char>(0));
    ExpectProbe({Inquiry(path, answer)}, Join({Logs::GenericEmpty(false), Logs::NoFirmware()}), 4,
                [](const BusDevice& device) {
                    EXPECT_EQ("", device.vendorId);
                    EXPECT_EQ("PRODUCT", device.productId);
                });
}

TEST_F(OpticalProbe, RevisionOfSysfsReplacesTheOneOfTheInquiryWithItsLineFeed)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sr0/device/rev", "1.02\n");
    ListSysBlock({"sr0"});
    ExpectProbe(GenericSteps(path, 5, "HL-DT-ST", "DVDRAM", ""),
                Join({GenericLog(""),
                      {L4("Entry  DataProxy::GetFirmwareVersionFile() "),
                       L1("Fail in get firmware version from /sys/block/sr0/device/firmware_rev.")}}),
                4, [](const BusDevice& device) { EXPECT_EQ("1.02\n", device.revision); });
}

TEST_F(OpticalProbe, EmptyRevisionOfSysfsLeavesTheOneOfTheInquiry)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::MakeDirectory("sr0/device");
    ListSysBlock({"sr0"});
    ExpectProbe(GenericSteps(path, 5, "HL-DT-ST", "DVDRAM", ""),
                Join({GenericLog(""), Logs::FirmwareFilesMissing("sr0")}), 4,
                [](const BusDevice& device) { EXPECT_EQ("0001", device.revision); });
}

TEST_F(OpticalProbe, RevisionOfSysfsIsReadEvenWhenEveryQuestionFailed)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sr0/device/firmware_rev", "1.02\n");
    ListSysBlock({"sr0"});
    ExpectProbe(
        {Inquiry(path, {}, 5), AtaIdentify(path, {}, 5)},
        Join({Logs::GenericFailed(false), Logs::DriverFailed(), {L4("Entry  DataProxy::GetFirmwareVersionFile() ")}}),
        5, [](const BusDevice& device) { EXPECT_EQ("1.02\n", device.revision); });
}

// Tape

class TapeProbe : public ProbeTest {
protected:
    void ExpectProbe(const std::vector<Step>& steps, const Lines& log, unsigned status,
                     const std::function<void(const BusDevice&)>& check = nullptr)
    {
        Expect<TapeProxy>(
            steps, Join({{L4("Entry TapeProxy::GetDeviceInfo()")}, log, {L4("Exit TapeProxy::GetDeviceInfo()")}}),
            status, [this](Scripted<TapeProxy>& proxy, BusDevice& device) { return proxy.GetDeviceInfo(device, path); },
            check);
    }
    std::string path = "/dev/st0";
};

TEST_F(TapeProbe, DriveThatAnswersItsInquiryIsNotAskedAgain)
{
    ExpectProbe(GenericSteps(path, 1, "HP", "Ultrium 5-SCSI", "HU1234567"),
                Join({GenericLog("HU1234567"), Logs::NoFirmware()}), 4, [](const BusDevice& device) {
                    EXPECT_EQ("Ultrium 5-SCSI", device.productId);
                    EXPECT_EQ("HU1234567", device.serialNum);
                });
}

TEST_F(TapeProbe, FailedInquiryIsFollowedByTheAtaQuestionWhoseStatusCounts)
{
    ExpectProbe({Inquiry(path, {}, 3), AtaIdentify(path, AtaData("A B", "R", "S"))},
                Join({Logs::GenericFailed(false), Logs::Driver(Padded("A B", 40)), Logs::NoFirmware()}), 4);
    ExpectProbe({Inquiry(path, {}, 3), AtaIdentify(path, {}, 3)},
                Join({Logs::GenericFailed(false), Logs::DriverFailed(), Logs::NoFirmware()}), 3);
}

TEST_F(TapeProbe, EmptyNamesAreFollowedByTheAtaQuestionWhoseFailureIsIgnored)
{
    ExpectProbe({Inquiry(path, {}), AtaIdentify(path, {}, 5)},
                Join({Logs::GenericEmpty(false), Logs::DriverFailed(), Logs::NoFirmware()}), 4);
    ExpectProbe({Inquiry(path, {}), AtaIdentify(path, AtaData("A B", "R", "S"))},
                Join({Logs::GenericEmpty(false), Logs::Driver(Padded("A B", 40)), Logs::NoFirmware()}), 4,
                [](const BusDevice& device) { EXPECT_EQ("B", device.productId); });
}

TEST_F(TapeProbe, AtaQuestionAfterAFailedInquiryIsAskedOnce)
{
    // Its success with a blank model leaves both names empty, which is no reason to ask again.
    ExpectProbe({Inquiry(path, {}, 5), AtaIdentify(path, AtaData("", "R", "S"))},
                Join({Logs::GenericFailed(false), Logs::Driver(std::string(40, ' ')), Logs::NoFirmware()}), 4);
}

TEST_F(TapeProbe, RevisionOfSysfsReplacesTheOneOfTheInquiry)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("st0/device/firmware_rev", "Z39W\n");
    ListSysBlock({"st0"});
    ExpectProbe(GenericSteps(path, 1, "HP", "Ultrium 5-SCSI", "HU1"),
                Join({GenericLog("HU1"), {L4("Entry  DataProxy::GetFirmwareVersionFile() ")}}), 4,
                [](const BusDevice& device) { EXPECT_EQ("Z39W\n", device.revision); });
}

// Generic SCSI

class GenericProbe : public ProbeTest {
protected:
    void ExpectProbe(bool sgLoaded, const std::vector<Step>& steps, const Lines& log, unsigned status,
                     const std::function<void(const BusDevice&)>& check = nullptr)
    {
        Expect<SCSIProxy>(
            steps, Join({{L4("Entry SCSIProxy::GetDeviceInfo()")}, log}), status,
            [this, sgLoaded](Scripted<SCSIProxy>& proxy, BusDevice& device) {
                proxy.SetSgLoaded(sgLoaded);
                return proxy.GetDeviceInfo(device, path);
            },
            check);
    }
    static Lines Returned(const std::string& status) { return {L4("GetGenericDeviceData() ret = " + status)}; }
    std::string path = "/dev/sg0";
};

TEST_F(GenericProbe, DeviceThatAnswersItsInquiryIsNotAskedAgain)
{
    ExpectProbe(true,
                {Inquiry(path, InquiryData(0, "SEAGATE", "ST3300657SS", "0008")), ScsiId(path, 0, 0, 1, 0),
                 SerialPage(path, SerialPageData("3SJ0"))},
                Join({Logs::GenericEntry(true), Logs::AddressFromSg("Port:0|Target:1|Bus:0|Lun:0"),
                      Logs::Serial("3SJ0"), Logs::GenericExit(), Returned("4"), Logs::NoFirmware()}),
                4, [](const BusDevice& device) { EXPECT_EQ("SEAGATE", device.vendorId); });
}

TEST_F(GenericProbe, FailedInquiryGetsNoSecondAttempt)
{
    ExpectProbe(true, {Inquiry(path, {}, 3)}, Join({Logs::GenericFailed(true), Returned("5"), Logs::NoFirmware()}), 5);
}

TEST_F(GenericProbe, EmptyNamesAreFollowedByTheAtaQuestionWhoseStatusCounts)
{
    ExpectProbe(true, {Inquiry(path, {}), AtaIdentify(path, AtaData("A B", "R", "S"))},
                Join({Logs::GenericEmpty(true), Returned("4"), Logs::Driver(Padded("A B", 40)), Logs::NoFirmware()}),
                4);
    ExpectProbe(true, {Inquiry(path, {}), AtaIdentify(path, {}, 5)},
                Join({Logs::GenericEmpty(true), Returned("4"), Logs::DriverFailed(), Logs::NoFirmware()}), 5);
}

TEST_F(GenericProbe, WithoutTheSgModuleOnlyTheAtaQuestionIsAsked)
{
    path = "/dev/sda";
    ExpectProbe(false, {AtaIdentify(path, AtaData("A B", "R", "S"))},
                Join({Logs::Driver(Padded("A B", 40)), Logs::NoFirmware()}), 4);
    ExpectProbe(false, {AtaIdentify(path, {}, 3)}, Join({Logs::DriverFailed(), Logs::NoFirmware()}), 3);
}

TEST_F(GenericProbe, RevisionOfSysfsReplacesTheOneOfTheQuery)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    path = "/dev/sda";
    PrivateSysBlock::Write("sda/device/firmware_rev", "NEW\n");
    ListSysBlock({"sda"});
    ExpectProbe(false, {AtaIdentify(path, AtaData("A B", "R", "S"))},
                Join({Logs::Driver(Padded("A B", 40)), {L4("Entry  DataProxy::GetFirmwareVersionFile() ")}}), 4,
                [](const BusDevice& device) { EXPECT_EQ("NEW\n", device.revision); });
}

// Disks

class DiskProbe : public ProbeTest {
protected:
    void ExpectProbe(bool useGeneric, const std::vector<Step>& steps, const Lines& log, unsigned status,
                     const std::function<void(const BusDevice&)>& check = nullptr)
    {
        Expect<PhysicalDriveProxy>(
            steps, Join({{L4("Entry PhysicalDriveProxy::GetDeviceInfo()")}, log}), status,
            [this, useGeneric](Scripted<PhysicalDriveProxy>& proxy, BusDevice& device) {
                return proxy.GetDeviceInfo(device, path, useGeneric);
            },
            check);
    }
    static std::vector<Step> Join2(std::vector<Step> steps, Step last)
    {
        steps.push_back(std::move(last));
        return steps;
    }
    std::string path = "/dev/sda";
    const Lines update = {L4("Entry  UpdateFirmwareVersionForSdDisk() ")};
};

TEST_F(DiskProbe, ScsiDiskKeepsTheRevisionOfItsInquiryWithoutAnyFirmwareLookup)
{
    ExpectProbe(true, GenericSteps(path, 0, "SEAGATE", "ST3300657SS", "3SJ0"), GenericLog("3SJ0"), 4,
                [](const BusDevice& device) { EXPECT_EQ("0001", device.revision); });
    EXPECT_EQ(0, Calls().directoriesOpened);
}

TEST_F(DiskProbe, AtaDiskOnSdTakesRevisionAndProductFromItsIdentifyData)
{
    ExpectProbe(true,
                Join2(GenericSteps(path, 0, "ATA", "WDC WD5000AAKX-0", "WD-1"),
                      AtaIdentify(path, AtaData(diskModel, "15.01H15", "WD-WCAYUJ123456"))),
                Join({GenericLog("WD-1"), update}), 4, [](const BusDevice& device) {
                    EXPECT_EQ("ATA", device.vendorId);
                    EXPECT_EQ("WDC", device.productId);
                    EXPECT_EQ("15.01H15", device.revision);
                    EXPECT_EQ("WD-1", device.serialNum);
                    EXPECT_EQ(2, device.hostAdapter);
                });
}

TEST_F(DiskProbe, StatusOfTheAtaUpdateReplacesTheSuccessOfTheInquiry)
{
    for (const int status : {5, 3}) {
        ExpectProbe(true,
                    Join2(GenericSteps(path, 0, "ATA", "WDC WD5000AAKX-0", "WD-1"), AtaIdentify(path, {}, status)),
                    Join({GenericLog("WD-1"), update}), static_cast<unsigned>(status));
    }
}

TEST_F(DiskProbe, AtaAnywhereInTheVendorCountsAndItsCaseMatters)
{
    ExpectProbe(true, Join2(GenericSteps(path, 0, "xATAx", "P", "S1"), AtaIdentify(path, AtaData("M", "R", "S"))),
                Join({GenericLog("S1"), update}), 4);
    ExpectProbe(true, GenericSteps(path, 0, "ata", "P", "S1"), GenericLog("S1"), 4);
    ExpectProbe(true, GenericSteps(path, 0, "AT A", "ATA", "S1"), GenericLog("S1"), 4);
}

TEST_F(DiskProbe, FailedInquiryIsFollowedByTheAtaQuestionWhoseStatusCounts)
{
    ExpectProbe(true, {Inquiry(path, {}, 5), AtaIdentify(path, AtaData(diskModel, "R", "S"))},
                Join({Logs::GenericFailed(false), Logs::Driver(diskModel)}), 4,
                [](const BusDevice& device) { EXPECT_EQ("WDC", device.vendorId); });
    ExpectProbe(true, {Inquiry(path, {}, 5), AtaIdentify(path, {}, 3)},
                Join({Logs::GenericFailed(false), Logs::DriverFailed()}), 3);
}

TEST_F(DiskProbe, EmptyNamesAreFollowedByTheAtaQuestionWhoseStatusReplacesTheSuccess)
{
    ExpectProbe(true, {Inquiry(path, {}), AtaIdentify(path, {}, 5)},
                Join({Logs::GenericEmpty(false), Logs::DriverFailed()}), 5);
    ExpectProbe(true, {Inquiry(path, {}), AtaIdentify(path, AtaData(diskModel, "R", "S"))},
                Join({Logs::GenericEmpty(false), Logs::Driver(diskModel)}), 4);
}

TEST_F(DiskProbe, IdeDiskIsAskedTheAtaQuestionOnly)
{
    path = "/dev/hda";
    ExpectProbe(false, {AtaIdentify(path, AtaData(diskModel, "R", "S"))}, Logs::Driver(diskModel), 4);
    ExpectProbe(false, {AtaIdentify(path, {}, 5)}, Logs::DriverFailed(), 5);
}

TEST_F(DiskProbe, IdeDiskWithAtaInItsVendorTakesTheRevisionOfSysfs)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    path = "/dev/hda";
    const std::string model = Padded("FUJATA MHT", 40);
    PrivateSysBlock::Write("hda/device/firmware_rev", "SYSFS\n");
    ListSysBlock({"hda"});
    ExpectProbe(false, {AtaIdentify(path, AtaData(model, "R", "S"))},
                Join({Logs::Driver(model), {L4("Entry  DataProxy::GetFirmwareVersionFile() ")}}), 4,
                [](const BusDevice& device) { EXPECT_EQ("SYSFS\n", device.revision); });
    ListSysBlock({});
    ExpectProbe(false, {AtaIdentify(path, AtaData(model, "R", "S"))}, Join({Logs::Driver(model), Logs::NoFirmware()}),
                4, [](const BusDevice& device) { EXPECT_EQ("R       ", device.revision); });
}

TEST_F(DiskProbe, AtaDiskFoundByTheAtaQuestionIsUpdatedToo)
{
    const std::string model = Padded("ATA DISK", 40);
    ExpectProbe(true,
                {Inquiry(path, {}, 5), AtaIdentify(path, AtaData(model, "R 1", "S")),
                 AtaIdentify(path, AtaData("NEW MODEL", "R 2", "S"))},
                Join({Logs::GenericFailed(false), Logs::Driver(model), update}), 4, [](const BusDevice& device) {
                    EXPECT_EQ("R2", device.revision);
                    EXPECT_EQ("NEW", device.productId);
                });
}

// The status of the INQUIRY counts, not only what the record holds.

TEST_F(ProbeTest, FailedInquiryIsFollowedByTheAtaQuestionEvenWhenTheRecordHoldsNames)
{
    std::string path = "/dev/sda";
    const std::vector<Step> steps = {Inquiry(path, {}, 5), AtaIdentify(path, {}, 3)};
    BusDevice named;
    named.vendorId = "old";
    named.productId = "old";
    BusDevice device = named;
    EXPECT_EQ(3U, Scripted<CDDVDProxy>(steps).GetDeviceInfo(device, path));
    device = named;
    EXPECT_EQ(3U, Scripted<TapeProxy>(steps).GetDeviceInfo(device, path));
    device = named;
    EXPECT_EQ(3U, Scripted<PhysicalDriveProxy>(steps).GetDeviceInfo(device, path, true));
    device = named;
    EXPECT_EQ(3U, Scripted<PhysicalDriveProxy>({AtaIdentify(path, {}, 3)}).GetDeviceInfo(device, path, false));
    device = named;
    EXPECT_EQ(5U, Scripted<SCSIProxy>({Inquiry(path, {}, 5)}).GetDeviceInfo(device, path));
}

// GetDeviceList

class DeviceListTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        ListSysBlock({});
    }

    template <class Proxy>
    static void ExpectNone(const Lines& log, bool sgLoaded = true)
    {
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            SCOPED_TRACE("log level " + std::to_string(level));
            Scripted<Proxy> proxy(std::vector<Step>{});
            proxy.SetSgLoaded(sgLoaded);
            Trace::Take();
            std::vector<SystemDevice> devices(1);
            devices[0].vendor = "before";
            Zendra::Log::SetMinLogLevel(level);
            EXPECT_EQ(6U, proxy.GetDeviceList(devices));
            Zendra::Log::SetMinLogLevel(0);
            EXPECT_EQ(AtLevel(level, Join({{L4("Entry DataProxy::GetDeviceList()")}, log})), Trace::Take());
            EXPECT_EQ((Lines{Record("before", "", "", "", "", "", "", "", "")}), Texts(devices));
        }
    }
};

TEST_F(DeviceListTest, ClassWithoutDeviceFilesAnswersNoneAndLeavesTheVector)
{
    ListDev({".", "..", "null", "tty0", "stdin", "stdout", "stderr"});
    ExpectNone<CDDVDProxy>(Logs::Scan());
    ExpectNone<TapeProxy>(Join({Logs::Scan(), Logs::Scan()}));
    ExpectNone<PhysicalDriveProxy>(Join({Logs::Scan(), Logs::Scan(), Logs::Scan()}));
    ExpectNone<SCSIProxy>(Logs::Scan());
    ExpectNone<SCSIProxy>(Logs::Scan(), false);
}

TEST_F(DeviceListTest, UnreadableDevAnswersNone)
{
    Calls().directories["/dev/"].openError = EACCES;
    const Lines scan = {L4("Entry  DataProxy::ScanDeviceFiles() ")};
    ExpectNone<CDDVDProxy>(scan);
    ExpectNone<TapeProxy>(Join({scan, scan}));
    ExpectNone<PhysicalDriveProxy>(Join({scan, scan, scan}));
    ExpectNone<SCSIProxy>(scan);
}

TEST_F(DeviceListTest, ListOfGenericDevicesLogsNoExitLine)
{
    ListDev({"sg0", "sda"});
    for (const bool sgLoaded : {true, false}) {
        Scripted<SCSIProxy> proxy({sgLoaded ? Inquiry("/dev/sg0", {}, 3) : AtaIdentify("/dev/sda", {}, 5)});
        proxy.SetSgLoaded(sgLoaded);
        const Lines asked = sgLoaded ? Logs::GenericFailed(true) : Logs::DriverFailed();
        const Lines sgStatus = {L4("GetGenericDeviceData() ret = 5")};
        const Lines ataStatus = {L4("GetDriverData() ret = 5")};
        Trace::Take();
        Zendra::Log::SetMinLogLevel(4);
        std::vector<SystemDevice> devices;
        EXPECT_EQ(0U, proxy.GetDeviceList(devices));
        Zendra::Log::SetMinLogLevel(0);
        EXPECT_EQ(Join({{L4("Entry DataProxy::GetDeviceList()")},
                        Logs::Scan({sgLoaded ? "sg0" : "sda"}),
                        {L4("Entry SCSIProxy::GetDeviceInfo()")},
                        asked,
                        sgLoaded ? sgStatus : Lines(),
                        Logs::NoFirmware(),
                        sgLoaded ? Lines() : ataStatus}),
                  Trace::Take());
    }
}

TEST_F(DeviceListTest, DevicesThatDoNotAnswerLeaveTheRecordsWhereTheyAre)
{
    ListDev({"sr0", "sr1"});
    Scripted<CDDVDProxy> proxy({Inquiry("/dev/sr0", {}, 3), AtaIdentify("/dev/sr0", {}, 3), Inquiry("/dev/sr1", {}, 3),
                                AtaIdentify("/dev/sr1", {}, 3)});
    std::vector<SystemDevice> devices(1);
    const SystemDevice* const before = devices.data();
    EXPECT_EQ(0U, proxy.GetDeviceList(devices));
    EXPECT_EQ(before, devices.data());
    EXPECT_EQ(1U, devices.capacity());
}

TEST_F(DeviceListTest, EachDeviceOfAListGetsTheRevisionOfItsOwnEntry)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sr0/device/rev", "zero\n");
    PrivateSysBlock::Write("sr1/device/firmware_rev", "one\n");
    ListSysBlock({".", "..", "sr1", "sr0"});
    ListDev({"sr0", "sr1", "sr2"});
    std::vector<Step> steps;
    for (const char* path : {"/dev/sr0", "/dev/sr1", "/dev/sr2"}) {
        for (const Step& step : {Inquiry(path, InquiryData(5, "V", "P", "inq")), IdLun(path, 0), BusNumber(path, 0)}) {
            steps.push_back(step);
        }
    }
    for (int call = 0; call < 2; ++call) {
        Scripted<CDDVDProxy> proxy(steps);
        std::vector<SystemDevice> devices;
        EXPECT_EQ(0U, proxy.GetDeviceList(devices));
        EXPECT_EQ((Lines{Record("V", "P", "CD-ROM Device", "", "zero", "0", "0", "0", "0"),
                         Record("V", "P", "CD-ROM Device", "", "one", "0", "0", "0", "0"),
                         Record("V", "P", "CD-ROM Device", "", "inq ", "0", "0", "0", "0")}),
                  Texts(devices));
    }
    // What /sys/block held is not remembered beyond a call.
    ListSysBlock({});
    Scripted<CDDVDProxy> proxy(steps);
    std::vector<SystemDevice> devices;
    EXPECT_EQ(0U, proxy.GetDeviceList(devices));
    ASSERT_EQ(3U, devices.size());
    EXPECT_EQ("inq ", devices[0].firmware_revision);
}

TEST_F(DeviceListTest, WithoutOperatorEveryDeviceIsDropped)
{
    ListDev({"sg0", "sr0", "sda", "nvme0n1", "st0"});
    std::vector<SystemDevice> devices;
    Scripted<SCSIProxy> generic;
    generic.Use(nullptr);
    EXPECT_EQ(0U, generic.GetDeviceList(devices));
    Scripted<CDDVDProxy> optical;
    optical.Use(nullptr);
    EXPECT_EQ(0U, optical.GetDeviceList(devices));
    Scripted<TapeProxy> tape;
    tape.Use(nullptr);
    EXPECT_EQ(0U, tape.GetDeviceList(devices));
    Scripted<PhysicalDriveProxy> disk;
    disk.Use(nullptr);
    EXPECT_EQ(0U, disk.GetDeviceList(devices));
    EXPECT_EQ(Lines(), Texts(devices));
}

}  // namespace
