#include <gtest/gtest.h>
#include <linux/nvme_ioctl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/busDevices.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/guardedBuffer.h"
#include "support/scriptedOperator.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

const std::string noAddress = "Port:0|Target:0|Bus:0|Lun:0";

class IdentityQueries : public DeviceTest {
protected:
    /** Runs the scenario at every level with a fresh proxy and fresh answers; construction is not traced. */
    template <class Proxy = PhysicalDriveProxy>
    static void ExpectTrace(const Lines& expected, const std::vector<Step>& steps,
                            const std::function<void(Scripted<Proxy>&)>& scenario)
    {
        for (const unsigned level : {4U, 3U, 2U, 1U, 0U}) {
            SCOPED_TRACE("log level " + std::to_string(level));
            Zendra::Log::SetMinLogLevel(0);
            Scripted<Proxy> proxy(steps);
            Trace::Take();
            Zendra::Log::SetMinLogLevel(level);
            scenario(proxy);
            Zendra::Log::SetMinLogLevel(0);
            EXPECT_EQ(AtLevel(level, expected), Trace::Take());
        }
    }

    std::string path = "/dev/sdb";
};

// ProcessInquiryData

TEST_F(IdentityQueries, InquiryDataIsReadSilentlyFrom36Bytes)
{
    GuardedBuffer data(36);
    const Bytes answer = InquiryData(0x01, "V", "P", "R");
    std::copy_n(answer.begin(), 36, data.Data());
    ExpectTrace<SCSIProxy>({}, {}, [&data](Scripted<SCSIProxy>& proxy) {
        BusDevice device = Used();
        EXPECT_EQ(0, proxy.ProcessInquiryData(data.Data(), &device));
        BusDevice expected = Used();
        expected.vendorId = "V";
        expected.productId = "P";
        expected.revision = "R   ";
        expected.deviceType = "Sequential Access Device";
        expected.inquiryString = "V       P               R   ";
        EXPECT_EQ(All(expected), All(device));
    });
}

// SendRcvPassthroughCMD

class PassthroughDispatcher : public IdentityQueries {
protected:
    /** Sends a request of this type for a Used() record, which must then be as expected. */
    static void Expect(const Step& step, int type, const BusDevice& expected, const Lines& log = {},
                       int status = DEV_SUCCESS)
    {
        ExpectTrace<SCSIProxy>(log, {step}, [&](Scripted<SCSIProxy>& proxy) {
            Bytes buffer(4096, 0);
            ReqPassThruParam request;
            request.driveName = "/dev/sg3";
            request.cdb = type == PT_SERIAL_INQUIRY ? serialinquiry_cmd : inquiry_cmd;
            request.cdbLength = 6;
            request.dataBuffer = buffer.data();
            BusDevice device = Used();
            EXPECT_EQ(status, proxy.SendRcvPassthroughCMD(request, device, static_cast<Passthrough_cmd_type>(type)));
            EXPECT_EQ(All(expected), All(device));
        });
    }

    static void ExpectSerial(const Bytes& page, const std::string& serial, const std::string& message)
    {
        BusDevice expected = Used();
        expected.serialNum = serial;
        Expect(SerialPage("/dev/sg3", page), PT_SERIAL_INQUIRY, expected, {L4(message)});
    }
};

TEST_F(PassthroughDispatcher, NoOperatorIsAFailureThatTouchesNothing)
{
    for (const Passthrough_cmd_type type : {PT_STD_INQUIRY, PT_SERIAL_INQUIRY}) {
        ExpectTrace<SCSIProxy>({}, {}, [type](Scripted<SCSIProxy>& proxy) {
            proxy.Use(nullptr);
            ReqPassThruParam request;
            BusDevice device = Used();
            EXPECT_EQ(DEV_FAILURE, proxy.SendRcvPassthroughCMD(request, device, type));
            EXPECT_EQ(All(Used()), All(device));
        });
    }
}

TEST_F(PassthroughDispatcher, FailureOfTheOperatorIsReturnedAsItIs)
{
    for (const int status : {3, 5, 0, 2, -1}) {
        Expect(Inquiry("/dev/sg3", {}, status), PT_STD_INQUIRY, Used(), {}, status);
        Expect(SerialPage("/dev/sg3", {}, status), PT_SERIAL_INQUIRY, Used(), {}, status);
    }
}

TEST_F(PassthroughDispatcher, StandardInquiryIsDecodedIntoTheRecord)
{
    BusDevice expected = Used();
    expected.vendorId = "HL-DT-ST";
    expected.productId = "DVDRAM";
    expected.revision = "1.00";
    expected.deviceType = "CD-ROM Device";
    expected.inquiryString = "HL-DT-STDVDRAM          1.00";
    Expect(Inquiry("/dev/sg3", InquiryData(0x05, "HL-DT-ST", "DVDRAM", "1.00")), PT_STD_INQUIRY, expected);
}

TEST_F(PassthroughDispatcher, AnyOtherTypeTouchesNothing)
{
    for (const int type : {1, 10, 12, -1, 128}) {
        Expect(Inquiry("/dev/sg3", InquiryData(0, "V", "P", "R")), type, Used());
    }
}

TEST_F(PassthroughDispatcher, SerialPageIsLoggedAsItWasTaken)
{
    ExpectSerial(SerialPageData("  WD-WCAYUJ123456   "), "  WD-WCAYUJ123456   ", "Serial Number:   WD-WCAYUJ123456   ");
    ExpectSerial(SerialPageData(std::string(32, 'S')), std::string(32, 'S'), "Serial Number: " + std::string(32, 'S'));
    ExpectSerial(SerialPageData(std::string(33, 'S')), "old serialNum", "Size pointer is too large.");
    ExpectSerial(SerialPageData("X"), "", "Size pointer is too small, size<=1");
    ExpectSerial(SerialPageData(std::string(4, '\0')), "", "Serial Number: ");
}

// SendRcvIOCTLCMD

class IoctlDispatcher : public IdentityQueries {
protected:
    static void Expect(const Step& step, unsigned code, Bytes argument, const BusDevice& expected,
                       const Lines& log = {}, int status = DEV_SUCCESS)
    {
        ExpectTrace<SCSIProxy>(log, {step}, [&](Scripted<SCSIProxy>& proxy) {
            Bytes buffer = argument;
            ReqIoCtlParam request;
            request.driveName = "/dev/sdb";
            request.ioctlCode = static_cast<int>(code);
            request.ioctlData = buffer.data();
            BusDevice device = Used();
            EXPECT_EQ(status, proxy.SendRcvIOCTLCMD(request, device));
            EXPECT_EQ(All(expected), All(device));
        });
    }

    static Bytes AtaArgument()
    {
        Bytes argument(516, 0);
        argument[0] = 0xEC;
        argument[3] = 1;
        return argument;
    }

    static void ExpectAta(const Bytes& answer, const BusDevice& expected, const std::string& modelLine)
    {
        Expect(AtaIdentify("/dev/sdb", answer), 0x031f, AtaArgument(), expected, {L4(modelLine)});
    }

    /** What IDENTIFY DEVICE makes of Used() with this model, without its two words. */
    static BusDevice AtaExpected(const std::string& model)
    {
        BusDevice expected = Used();
        expected.shortIdent = model.substr(0, 23);
        expected.revision = "REV     ";
        expected.serialNum = "SERIAL              ";
        expected.otherIdentInfo = "Port:11|Target:14|Bus:12|Lun:15";
        return expected;
    }

    static void ExpectNvme(Bytes answer, const BusDevice& expected)
    {
        ExpectTrace<PhysicalDriveProxy>({}, {NvmeIdentify("/dev/nvme0n1", answer)},
                                        [&](Scripted<PhysicalDriveProxy>& proxy) {
                                            Bytes data(4096, 0);
                                            nvme_admin_cmd command;
                                            std::memset(&command, 0, sizeof command);
                                            command.opcode = 0x06;
                                            command.addr = reinterpret_cast<std::uintptr_t>(data.data());
                                            command.data_len = 4096;
                                            command.cdw10 = 1;
                                            ReqIoCtlParam request;
                                            request.driveName = "/dev/nvme0n1";
                                            request.ioctlCode = static_cast<int>(0xc0484e41U);
                                            request.ioctlData = &command;
                                            BusDevice device = Used();
                                            EXPECT_EQ(DEV_SUCCESS, proxy.SendRcvIOCTLCMD(request, device));
                                            EXPECT_EQ(All(expected), All(device));
                                            // Callers see that the last byte of either text was overwritten.
                                            EXPECT_EQ(0, data[23]);
                                            EXPECT_EQ(0, data[63]);
                                        });
    }
};

TEST_F(IoctlDispatcher, NoOperatorIsAFailureThatTouchesNothing)
{
    ExpectTrace<SCSIProxy>({}, {}, [](Scripted<SCSIProxy>& proxy) {
        proxy.Use(nullptr);
        ReqIoCtlParam request;
        request.ioctlCode = 0x2276;
        BusDevice device = Used();
        EXPECT_EQ(DEV_FAILURE, proxy.SendRcvIOCTLCMD(request, device));
        EXPECT_EQ(All(Used()), All(device));
    });
}

TEST_F(IoctlDispatcher, FailureOfTheOperatorIsReturnedAsItIs)
{
    for (const int status : {3, 5, 0, 2, -1}) {
        Expect(ScsiId("/dev/sdb", 1, 2, 3, 4, status), 0x2276, Bytes(32, 0), Used(), {}, status);
        Expect(AtaIdentify("/dev/sdb", AtaData("M", "R", "S"), status), 0x031f, AtaArgument(), Used(), {}, status);
    }
}

TEST_F(IoctlDispatcher, SgScsiIdGivesTheFourAddressNumbers)
{
    BusDevice expected = Used();
    expected.hostAdapter = 1;
    expected.bus = 2;
    expected.targetId = 3;
    expected.lun = 4;
    Expect(ScsiId("/dev/sdb", 1, 2, 3, 4), 0x2276, Bytes(32, 0), expected);
}

TEST_F(IoctlDispatcher, IdLunBytesAreTargetLunAndBusAndLeaveTheHostAdapter)
{
    BusDevice expected = Used();
    expected.targetId = 3;
    expected.lun = 1;
    expected.bus = 2;
    Expect(IdLun("/dev/sdb", 0x00020103), 0x5382, Bytes(8, 0), expected);
}

TEST_F(IoctlDispatcher, BusNumberIsTheHostAdapterCutTo16Bits)
{
    for (const int host : {0, 10, 65535, 65538, -1}) {
        BusDevice expected = Used();
        expected.hostAdapter = static_cast<std::uint16_t>(host & 0xffff);
        Expect(BusNumber("/dev/sdb", host), 0x5386, Bytes(4, 0), expected);
    }
}

TEST_F(IoctlDispatcher, OtherIoctlsAreNotDecoded)
{
    for (const int code : {0x031e, 0x2203, 0x2282, 0x2285, 0x5331}) {
        Step step;
        step.name = "other ioctl";
        step.ioCtl = [code](const ReqIoCtlParam& request) {
            EXPECT_EQ(code, request.ioctlCode);
            std::memset(request.ioctlData, 'x', 516);
            return 4;
        };
        Expect(step, static_cast<unsigned>(code), Bytes(516, 0), Used());
    }
}

TEST_F(IoctlDispatcher, AtaModelOfTwoWordsGivesVendorAndProduct)
{
    const std::string model = Padded("WDC WD5000AAKX-001CA0", 40);
    BusDevice expected = AtaExpected(model);
    expected.vendorId = "WDC";
    expected.productId = "WD5000AAKX-001CA0";
    ExpectAta(AtaData(model, "REV", "SERIAL"), expected, model);
}

TEST_F(IoctlDispatcher, AtaModelEndsAtItsFirstZeroByte)
{
    const std::string model = std::string("ST1 AS") + '\0' + "behind";
    BusDevice expected = AtaExpected("ST1 AS");
    expected.vendorId = "ST1";
    expected.productId = "AS";
    ExpectAta(AtaData(model, "REV", "SERIAL"), expected, "ST1 AS");
}

TEST_F(IoctlDispatcher, NvmeAnswerOf4096BytesIsDecoded)
{
    BusDevice expected = Used();
    expected.vendorId = "NVMe";
    expected.productId = std::string(39, 'x');
    expected.revision = std::string(4096 - 64, 'x');
    expected.serialNum = std::string(19, 'x');
    expected.deviceType = "Direct Access Device";
    ExpectNvme(Bytes(4096, 'x'), expected);
}

// GetGenericDeviceData

class GenericQuery : public IdentityQueries {
protected:
    /** Runs the query on `path` from an empty record. */
    void Expect(bool isSg, const std::vector<Step>& steps, const Lines& log, int status, const BusDevice& expected)
    {
        Expect(isSg, steps, log, status, BusDevice(), expected);
    }

    void Expect(bool isSg, const std::vector<Step>& steps, const Lines& log, int status, const BusDevice& start,
                const BusDevice& expected)
    {
        ExpectTrace<SCSIProxy>(log, steps, [&](Scripted<SCSIProxy>& proxy) {
            BusDevice device = start;
            EXPECT_EQ(status, proxy.GetGenericDeviceData(path, device, isSg));
            EXPECT_EQ(All(expected), All(device));
        });
    }

    static BusDevice Identified(BusDevice device = BusDevice())
    {
        device.vendorId = "SEAGATE";
        device.productId = "ST3300657SS";
        device.revision = "0008";
        device.deviceType = "Direct Access Device";
        device.inquiryString = "SEAGATE ST3300657SS     0008";
        return device;
    }

    static BusDevice Addressed(BusDevice device, std::uint16_t host, std::uint16_t target, std::uint16_t bus,
                               std::uint16_t lun)
    {
        device.hostAdapter = host;
        device.targetId = target;
        device.bus = bus;
        device.lun = lun;
        device.otherIdentInfo = "Port:" + std::to_string(host) + "|Target:" + std::to_string(target) +
                                "|Bus:" + std::to_string(bus) + "|Lun:" + std::to_string(lun);
        return device;
    }

    const Bytes disk = InquiryData(0x00, "SEAGATE", "ST3300657SS", "0008");
};

TEST_F(GenericQuery, DiskThroughTheScsiIoctlsIsFullyIdentified)
{
    BusDevice expected = Addressed(Identified(), 2, 3, 1, 4);
    expected.serialNum = "3SJ0ABCD";
    Expect(false,
           {Inquiry(path, disk), IdLun(path, 0x02010403), BusNumber(path, 2),
            SerialPage(path, SerialPageData("3SJ0ABCD"))},
           Join({Logs::GenericEntry(false), Logs::AddressFromIoctls("Port:2|Target:3|Bus:1|Lun:4"),
                 Logs::Serial("3SJ0ABCD"), Logs::GenericExit()}),
           DEV_SUCCESS, expected);
}

TEST_F(GenericQuery, DiskThroughTheSgNodeIsFullyIdentified)
{
    BusDevice expected = Addressed(Identified(), 2, 3, 1, 4);
    expected.serialNum = "3SJ0ABCD";
    Expect(true, {Inquiry(path, disk), ScsiId(path, 2, 1, 3, 4), SerialPage(path, SerialPageData("3SJ0ABCD"))},
           Join({Logs::GenericEntry(true), Logs::AddressFromSg("Port:2|Target:3|Bus:1|Lun:4"), Logs::Serial("3SJ0ABCD"),
                 Logs::GenericExit()}),
           DEV_SUCCESS, expected);
}

TEST_F(GenericQuery, FailedInquiryIsReportedAtLevelOneAndAnswersFailureWhateverItsStatus)
{
    for (const bool isSg : {false, true}) {
        for (const int status : {3, 5, 0, 2}) {
            Expect(isSg, {Inquiry(path, {}, status)}, Logs::GenericFailed(isSg), DEV_FAILURE, Used(), Used());
        }
    }
}

TEST_F(GenericQuery, WithoutOperatorTheInquiryFails)
{
    ExpectTrace<SCSIProxy>(Logs::GenericFailed(true), {}, [this](Scripted<SCSIProxy>& proxy) {
        proxy.Use(nullptr);
        BusDevice device = Used();
        EXPECT_EQ(DEV_FAILURE, proxy.GetGenericDeviceData(path, device, true));
        EXPECT_EQ(All(Used()), All(device));
    });
}

TEST_F(GenericQuery, EmptyVendorOrProductEndsTheSequenceWithSuccess)
{
    BusDevice nothing;
    nothing.deviceType = "Direct Access Device";
    // An sg driver older than 3.0 leaves the buffer as it was: zeros.
    Expect(false, {Inquiry(path, {})}, Logs::GenericEmpty(false), DEV_SUCCESS, nothing);
    Expect(true, {Inquiry(path, {})}, Logs::GenericEmpty(true), DEV_SUCCESS, nothing);

    Bytes productOnly = disk;
    std::fill(productOnly.begin() + 8, productOnly.begin() + 16, static_cast<unsigned char>(0));
    BusDevice expected = Identified();
    expected.vendorId = "";
    expected.inquiryString = "";
    Expect(false, {Inquiry(path, productOnly)}, Logs::GenericEmpty(false), DEV_SUCCESS, expected);
}

TEST_F(GenericQuery, BlankVendorAndProductCountAsPresent)
{
    BusDevice expected = Addressed(BusDevice(), 0, 0, 0, 0);
    expected.vendorId = std::string(8, ' ');
    expected.productId = std::string(16, ' ');
    expected.revision = std::string(4, ' ');
    expected.inquiryString = std::string(28, ' ');
    expected.deviceType = "CD-ROM Device";
    Expect(false, {Inquiry(path, InquiryData(0x05, "", "", "")), IdLun(path, 0), BusNumber(path, 0)},
           Join({Logs::GenericEntry(false), Logs::AddressFromIoctls(noAddress), Logs::GenericExit()}), DEV_SUCCESS,
           expected);
}

TEST_F(GenericQuery, FailedSgScsiIdEmptiesTheAddressTextAndGoesOn)
{
    for (const int status : {3, 5}) {
        BusDevice expected = Identified(Used());
        expected.otherIdentInfo = "";
        expected.serialNum = "SERIAL";
        Expect(true,
               {Inquiry(path, disk), ScsiId(path, 9, 9, 9, 9, status), SerialPage(path, SerialPageData("SERIAL"))},
               Join({Logs::GenericEntry(true), Logs::AddressFromSgFailed(std::to_string(status)),
                     Logs::Serial("SERIAL"), Logs::GenericExit()}),
               DEV_SUCCESS, Used(), expected);
    }
}

TEST_F(GenericQuery, FailedAddressIoctlsAreIgnoredAndTheAddressTextIsBuiltFromTheRecord)
{
    const Lines serial = Join({Logs::Serial("SERIAL"), Logs::GenericExit()});
    BusDevice expected = Addressed(Identified(), 0, 0, 0, 0);
    expected.serialNum = "SERIAL";
    Expect(false,
           {Inquiry(path, disk), IdLun(path, 0x02010403, 5), BusNumber(path, 2, 3),
            SerialPage(path, SerialPageData("SERIAL"))},
           Join({Logs::GenericEntry(false), Logs::AddressFromIoctls(noAddress), serial}), DEV_SUCCESS, expected);

    expected = Addressed(Identified(), 2, 0, 0, 0);
    expected.serialNum = "SERIAL";
    Expect(false,
           {Inquiry(path, disk), IdLun(path, 0x02010403, 5), BusNumber(path, 2),
            SerialPage(path, SerialPageData("SERIAL"))},
           Join({Logs::GenericEntry(false), Logs::AddressFromIoctls("Port:2|Target:0|Bus:0|Lun:0"), serial}),
           DEV_SUCCESS, expected);

    expected = Addressed(Identified(), 0, 3, 1, 4);
    expected.serialNum = "SERIAL";
    Expect(false,
           {Inquiry(path, disk), IdLun(path, 0x02010403), BusNumber(path, 2, 5),
            SerialPage(path, SerialPageData("SERIAL"))},
           Join({Logs::GenericEntry(false), Logs::AddressFromIoctls("Port:0|Target:3|Bus:1|Lun:4"), serial}),
           DEV_SUCCESS, expected);
}

TEST_F(GenericQuery, OnlyByteZeroOfZeroOrOneIsAskedForItsSerial)
{
    for (unsigned type = 0; type < 256; ++type) {
        SCOPED_TRACE(type);
        const Bytes answer = InquiryData(static_cast<unsigned char>(type), "SEAGATE", "ST3300657SS", "0008");
        std::vector<Step> steps = {Inquiry(path, answer), ScsiId(path, 0, 0, 0, 0)};
        if (type <= 1) {
            steps.push_back(SerialPage(path, SerialPageData("SERIAL")));
        }
        Scripted<SCSIProxy> proxy(steps);
        BusDevice device = Used();
        EXPECT_EQ(DEV_SUCCESS, proxy.GetGenericDeviceData(path, device, true));
        EXPECT_EQ(type <= 1 ? "SERIAL" : "old serialNum", device.serialNum);
    }
}

TEST_F(GenericQuery, NoDeviceConnectedGivesTheTypeTextOf15AndSkipsTheSerial)
{
    BusDevice expected = Addressed(Identified(), 0, 0, 0, 1);
    expected.deviceType = "Optical Card Reader Device";
    Expect(true, {Inquiry(path, InquiryData(0x7f, "SEAGATE", "ST3300657SS", "0008")), ScsiId(path, 0, 0, 0, 1)},
           Join({Logs::GenericEntry(true), Logs::AddressFromSg("Port:0|Target:0|Bus:0|Lun:1"), Logs::GenericExit()}),
           DEV_SUCCESS, expected);
}

TEST_F(GenericQuery, FailedSerialStepIsIgnored)
{
    for (const int status : {3, 5}) {
        BusDevice expected = Addressed(Identified(Used()), 0, 0, 0, 1);
        expected.serialNum = "old serialNum";
        Expect(
            true, {Inquiry(path, disk), ScsiId(path, 0, 0, 0, 1), SerialPage(path, {}, status)},
            Join({Logs::GenericEntry(true), Logs::AddressFromSg("Port:0|Target:0|Bus:0|Lun:1"), Logs::GenericExit()}),
            DEV_SUCCESS, Used(), expected);
    }
}

TEST_F(GenericQuery, SerialPageTooLargeOrTooSmallIsLoggedBeforeTheExitLine)
{
    const Lines begin = Join({Logs::GenericEntry(true), Logs::AddressFromSg("Port:0|Target:0|Bus:0|Lun:1")});
    BusDevice expected = Addressed(Identified(Used()), 0, 0, 0, 1);
    expected.serialNum = "old serialNum";
    Expect(true,
           {Inquiry(path, disk), ScsiId(path, 0, 0, 0, 1), SerialPage(path, SerialPageData(std::string(33, 'S')))},
           Join({begin, {L4("Size pointer is too large.")}, Logs::GenericExit()}), DEV_SUCCESS, Used(), expected);
    expected.serialNum = "";
    Expect(true, {Inquiry(path, disk), ScsiId(path, 0, 0, 0, 1), SerialPage(path, SerialPageData("S"))},
           Join({begin, {L4("Size pointer is too small, size<=1")}, Logs::GenericExit()}), DEV_SUCCESS, Used(),
           expected);
}

// GetDriverData

class DriverQuery : public IdentityQueries {};

TEST_F(DriverQuery, AtaDiskIsIdentified)
{
    const std::string model = Padded("WDC WD5000AAKX-001CA0", 40);
    ExpectTrace<PhysicalDriveProxy>(Logs::Driver(model),
                                    {AtaIdentify(path, AtaData(model, "15.01H15", "WD-WCAYUJ123456"))},
                                    [this, &model](Scripted<PhysicalDriveProxy>& proxy) {
                                        BusDevice device;
                                        EXPECT_EQ(DEV_SUCCESS, proxy.GetDriverData(path, device));
                                        BusDevice expected;
                                        expected.vendorId = "WDC";
                                        expected.productId = "WD5000AAKX-001CA0";
                                        expected.revision = "15.01H15";
                                        expected.serialNum = Padded("WD-WCAYUJ123456", 20);
                                        expected.shortIdent = model.substr(0, 23);
                                        expected.otherIdentInfo = noAddress;
                                        EXPECT_EQ(All(expected), All(device));
                                    });
}

TEST_F(DriverQuery, FailureIsLoggedLikeSuccessAndTouchesNothing)
{
    for (const int status : {3, 5}) {
        ExpectTrace<PhysicalDriveProxy>(Logs::DriverFailed("old otherIdentInfo"), {AtaIdentify(path, {}, status)},
                                        [this, status](Scripted<PhysicalDriveProxy>& proxy) {
                                            BusDevice device = Used();
                                            EXPECT_EQ(status, proxy.GetDriverData(path, device));
                                            EXPECT_EQ(All(Used()), All(device));
                                        });
    }
}

TEST_F(DriverQuery, WithoutOperatorOnlyTheEntryIsLogged)
{
    ExpectTrace<PhysicalDriveProxy>({L4("Entry  GetDriverData() ")}, {}, [this](Scripted<PhysicalDriveProxy>& proxy) {
        proxy.Use(nullptr);
        BusDevice device = Used();
        EXPECT_EQ(DEV_FAILURE, proxy.GetDriverData(path, device));
        EXPECT_EQ(All(Used()), All(device));
    });
}

// GetNVMEInfo

class NvmeQuery : public IdentityQueries {
protected:
    std::string node = "/dev/nvme0n1";
};

TEST_F(NvmeQuery, ExitLineIsLoggedBeforeTheCommandIsSent)
{
    Step step = NvmeIdentify(node, NvmeData("deadbeef", "QEMU NVMe Ctrl", "8.2.2"));
    const auto answer = step.ioCtl;
    step.ioCtl = [answer](const ReqIoCtlParam& request) {
        Trace::Note("sent");
        return answer(request);
    };
    ExpectTrace<PhysicalDriveProxy>(
        {L4("Entry PhysicalDriveProxy::GetNVMEInfo()"), L4("Exit PhysicalDriveProxy::GetNVMEInfo()"), "sent"}, {step},
        [this](Scripted<PhysicalDriveProxy>& proxy) {
            BusDevice device;
            EXPECT_EQ(DEV_SUCCESS, proxy.GetNVMEInfo(device, node));
            BusDevice expected;
            expected.vendorId = "NVMe";
            expected.productId = Padded("QEMU NVMe Ctrl", 39);
            expected.revision = "8.2.2   ";
            expected.serialNum = Padded("deadbeef", 19);
            expected.deviceType = "Direct Access Device";
            EXPECT_EQ(All(expected), All(device));
        });
}

TEST_F(NvmeQuery, FailureIsReturnedAsItIs)
{
    for (const int status : {3, 5}) {
        ExpectTrace<PhysicalDriveProxy>(
            {L4("Entry PhysicalDriveProxy::GetNVMEInfo()"), L4("Exit PhysicalDriveProxy::GetNVMEInfo()")},
            {NvmeIdentify(node, {}, status)}, [this, status](Scripted<PhysicalDriveProxy>& proxy) {
                BusDevice device = Used();
                EXPECT_EQ(status, proxy.GetNVMEInfo(device, node));
                EXPECT_EQ(All(Used()), All(device));
            });
    }
}

TEST_F(NvmeQuery, WithoutOperatorItFails)
{
    ExpectTrace<PhysicalDriveProxy>(
        {L4("Entry PhysicalDriveProxy::GetNVMEInfo()"), L4("Exit PhysicalDriveProxy::GetNVMEInfo()")}, {},
        [this](Scripted<PhysicalDriveProxy>& proxy) {
            proxy.Use(nullptr);
            BusDevice device = Used();
            EXPECT_EQ(DEV_FAILURE, proxy.GetNVMEInfo(device, node));
            EXPECT_EQ(All(Used()), All(device));
        });
}

}  // namespace
