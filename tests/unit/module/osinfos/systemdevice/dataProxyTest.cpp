#include "module/osinfos/systemdevice/dataProxy_linux.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/logger/log.h"
#include "support/allocations.h"
#include "support/busDevices.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/groupingLocale.h"
#include "support/scriptedOperator.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

class DataProxyTest : public DeviceTest {};

// Construction and destruction

template <class Proxy>
void ExpectConstructionAndDestruction(const std::string& name)
{
    SCOPED_TRACE(name);
    ExpectTraceAtEveryLevel(Join({{"modprobe"}, Logs::Made(name), {"made"}, Logs::Deleted(name)}), [] {
        Calls().onSystem = [](const std::string& command) {
            EXPECT_EQ(modprobeCommand, command);
            Trace::Note("modprobe");
            return 0;
        };
        const Scripted<Proxy> proxy;
        EXPECT_TRUE(proxy.SgLoaded());
        EXPECT_NE(nullptr, dynamic_cast<DataOperator*>(proxy.Operator()));
        Trace::Note("made");
    });
}

TEST_F(DataProxyTest, EveryProxyLoadsTheSgModuleMakesAnOperatorAndLogsItsLife)
{
    ExpectConstructionAndDestruction<CDDVDProxy>("CDDVDProxy");
    ExpectConstructionAndDestruction<TapeProxy>("TapeProxy");
    ExpectConstructionAndDestruction<PhysicalDriveProxy>("PhysicalDriveProxy");
    ExpectConstructionAndDestruction<SCSIProxy>("SCSIProxy");
}

TEST_F(DataProxyTest, BaseProxyLogsItsOwnLifeOnly)
{
    ExpectTraceAtEveryLevel(
        {L4("Entry constructure DataProxy() sg_ko_loaded = 1"), "made", L4("Entry destructure ~DataProxy() ")}, [] {
            Scripted<DataProxy> proxy;
            EXPECT_NE(nullptr, dynamic_cast<DataOperator*>(proxy.Operator()));
            proxy.Use(nullptr);
            Trace::Note("made");
        });
}

TEST_F(DataProxyTest, ModprobeMustReturnExactlyZeroForTheModuleToCountAsLoaded)
{
    for (const int result : {1, -1, 256, 127 << 8, 2147483647, -2147483647 - 1}) {
        SCOPED_TRACE(result);
        AnswerModprobe(result);
        ExpectTraceAtEveryLevel(Join({Logs::Made("SCSIProxy", false), Logs::Deleted("SCSIProxy")}), [] {
            const Scripted<SCSIProxy> proxy;
            EXPECT_FALSE(proxy.SgLoaded());
        });
    }
}

TEST_F(DataProxyTest, OperatorThatCannotBeAllocatedIsLoggedAndLeftNull)
{
    ExpectTraceAtEveryLevel(Join({{L4("DataProxy::DataProxy()  error due to catch an exception bad_alloc")},
                                  Logs::Made("TapeProxy"),
                                  Logs::Deleted("TapeProxy")}),
                            [] {
                                Allocations::FailNextOfSize(sizeof(DataOperator));
                                const Scripted<TapeProxy> proxy;
                                EXPECT_TRUE(Allocations::StopFailing());
                                EXPECT_EQ(nullptr, proxy.Operator());
                                EXPECT_TRUE(proxy.SgLoaded());
                            });
}

TEST_F(DataProxyTest, OtherExceptionsDuringConstructionPropagate)
{
    Calls().onSystem = [](const std::string&) -> int { throw std::runtime_error("no shell"); };
    EXPECT_THROW(CDDVDProxy(), std::runtime_error);
    EXPECT_EQ(Lines(), Trace::Take());
}

template <class Proxy>
void ExpectOperatorDeletedOnce()
{
    int deletions = 0;
    {
        const std::unique_ptr<DataProxy> proxy = [&deletions] {
            auto made = std::make_unique<Scripted<Proxy>>();
            made->Use(new ScriptedOperator({}, &deletions));
            return made;
        }();
        EXPECT_EQ(0, deletions);
    }
    EXPECT_EQ(1, deletions);
}

TEST_F(DataProxyTest, EverySubclassDeletesItsOperatorThroughTheInterface)
{
    ExpectOperatorDeletedOnce<CDDVDProxy>();
    ExpectOperatorDeletedOnce<TapeProxy>();
    ExpectOperatorDeletedOnce<PhysicalDriveProxy>();
    ExpectOperatorDeletedOnce<SCSIProxy>();
}

TEST_F(DataProxyTest, OperatorIsDeletedAfterTheSubclassAndBeforeTheBaseLogsItsEnd)
{
    class NotingOperator : public ScriptedOperator {
    public:
        ~NotingOperator() override { Trace::Note("operator deleted"); }
    };
    ExpectTraceAtEveryLevel(
        Join({Logs::Made("SCSIProxy"),
              {L4("Entry SCSIProxy::~SCSIProxy()"), "operator deleted", L4("Entry destructure ~DataProxy() ")}}),
        [] {
            Scripted<SCSIProxy> proxy;
            proxy.Use(new NotingOperator);
        });
}

TEST_F(DataProxyTest, BaseProxyDoesNotDeleteItsOperator)
{
    int deletions = 0;
    ScriptedOperator survivor({}, &deletions);
    {
        Scripted<DataProxy> proxy;
        proxy.Use(&survivor);
    }
    EXPECT_EQ(0, deletions);
}

TEST_F(DataProxyTest, ProxiesFreeAllTheirMemory)
{
    const long before = Allocations::Live();
    {
        const CDDVDProxy optical;
        const TapeProxy tape;
        const PhysicalDriveProxy disk;
        const SCSIProxy generic;
        EXPECT_LT(before, Allocations::Live());
    }
    EXPECT_EQ(before, Allocations::Live());
}

// Operations of the base

TEST_F(DataProxyTest, BaseListOperationsOnlyLogAndAnswerOk)
{
    Scripted<DataProxy> proxy;
    proxy.Use(nullptr);
    Trace::Take();
    ExpectTraceAtEveryLevel({L4("Entry DataProxy::GetDeviceList()"), L4("Entry DataProxy::GetCDDVDOptList()")},
                            [&proxy] {
                                std::vector<SystemDevice> devices(1);
                                std::vector<OpticalProperty> options(1);
                                EXPECT_EQ(0U, proxy.GetDeviceList(devices));
                                EXPECT_EQ(0U, proxy.GetCDDVDOptList(options));
                                EXPECT_EQ(1U, devices.size());
                                EXPECT_EQ(1U, options.size());
                            });
}

template <class Proxy>
void ExpectNoOpticalRecords(unsigned status)
{
    Scripted<Proxy> proxy;
    Trace::Take();
    ExpectTraceAtEveryLevel({}, [&proxy, status] {
        std::vector<OpticalProperty> options(2);
        options[1].drive_name_ = "/dev/sr9";
        EXPECT_EQ(status, proxy.GetCDDVDOptList(options));
        ASSERT_EQ(2U, options.size());
        EXPECT_EQ("/dev/sr9", options[1].drive_name_);
    });
}

TEST_F(DataProxyTest, OtherClassesThanOpticalAnswerTheOpticalQuestionSilentlyAndLeaveTheVector)
{
    ExpectNoOpticalRecords<TapeProxy>(0);
    ExpectNoOpticalRecords<PhysicalDriveProxy>(0);
    ExpectNoOpticalRecords<SCSIProxy>(4);
}

TEST_F(DataProxyTest, InitBusDevLeavesNothingOfThePreviousDevice)
{
    Scripted<TapeProxy> proxy;
    BusDevice device = Used();
    Trace::Take();
    Zendra::Log::SetMinLogLevel(4);
    proxy.InitBusDev(device);
    Zendra::Log::SetMinLogLevel(0);
    EXPECT_EQ(Lines(), Trace::Take());
    EXPECT_EQ("0/0/0/0/0{}{}{}{}{}{}{}{}{}{}", All(device));
}

TEST_F(DataProxyTest, DeviceTypeIsGivenInWords)
{
    Scripted<SCSIProxy> proxy;
    EXPECT_EQ("Optical Based Storage Device", proxy.GetDeviceTypeString(17));
    EXPECT_EQ("", proxy.GetDeviceTypeString(31));
}

// StoreBusDev

class StoreBusDevTest : public DeviceTest {
protected:
    static BusDevice FilledDevice()
    {
        BusDevice device;
        device.hostAdapter = 2;
        device.bus = 3;
        device.spareNumber = 99;
        device.targetId = 4;
        device.lun = 5;
        device.devId = "DEVID";
        device.spareText = "SPARE";
        device.productId = "PRODUCT";
        device.vendorId = "VENDOR";
        device.revision = "1.02";
        device.serialNum = "SERIAL";
        device.otherIdentInfo = "IDENT";
        device.shortIdent = "SHORT";
        device.deviceType = "TYPE";
        device.inquiryString = "INQUIRY";
        return device;
    }

    static std::string Firmware(const std::string& revision)
    {
        Scripted<TapeProxy> proxy;
        BusDevice device;
        device.revision = revision;
        std::vector<SystemDevice> devices;
        proxy.StoreBusDev(device, devices);
        return devices.size() == 1 ? devices[0].firmware_revision : "no record";
    }
};

TEST_F(StoreBusDevTest, AppendsOneRecordAndLogsTheTraceTextWithItsLineEnd)
{
    Scripted<TapeProxy> proxy;
    ExpectTraceAtEveryLevel(
        {L4("DataProxy::StoreBusDev   vendor id: VENDOR productId: PRODUCT deviceType: TYPE serialNum: SERIAL "
            "rev: 1.02 host adapter: 2 target ID: 4 bus 3 lun 5 devId: DEVID  otherIdentInfo: IDENT\n")},
        [&proxy] {
            std::vector<SystemDevice> devices(1);
            devices[0].vendor = "before";
            BusDevice device = FilledDevice();
            proxy.StoreBusDev(device, devices);
            EXPECT_EQ((Lines{Record("before", "", "", "", "", "", "", "", ""),
                             Record("VENDOR", "PRODUCT", "TYPE", "SERIAL", "1.02", "2", "4", "3", "5")}),
                      Texts(devices));
        });
}

TEST_F(StoreBusDevTest, EmptyRecordGivesZerosAndEmptyTexts)
{
    Scripted<TapeProxy> proxy;
    ExpectTraceAtEveryLevel(
        {L4("DataProxy::StoreBusDev   vendor id:  productId:  deviceType:  serialNum:  rev:  host adapter: 0 "
            "target ID: 0 bus 0 lun 0 devId:   otherIdentInfo: \n")},
        [&proxy] {
            std::vector<SystemDevice> devices;
            BusDevice device;
            proxy.StoreBusDev(device, devices);
            EXPECT_EQ((Lines{Record("", "", "", "", "", "0", "0", "0", "0")}), Texts(devices));
        });
}

TEST_F(StoreBusDevTest, OneLineFeedAtTheEndOfTheRevisionIsDropped)
{
    EXPECT_EQ("1.02", Firmware("1.02\n"));
    EXPECT_EQ("1.02", Firmware("1.02"));
    EXPECT_EQ("1.02\n", Firmware("1.02\n\n"));
    EXPECT_EQ("", Firmware(""));
    EXPECT_EQ("", Firmware("\n"));
    EXPECT_EQ("1.02\r", Firmware("1.02\r\n"));
    EXPECT_EQ("1\n02", Firmware("1\n02"));
    EXPECT_EQ("\n1.02 ", Firmware("\n1.02 "));
}

TEST_F(StoreBusDevTest, TraceTextKeepsTheLineFeedOfTheRevision)
{
    Scripted<TapeProxy> proxy;
    Trace::Take();
    Zendra::Log::SetMinLogLevel(4);
    std::vector<SystemDevice> devices;
    BusDevice device;
    device.revision = "1.02\n";
    proxy.StoreBusDev(device, devices);
    EXPECT_EQ((Lines{L4("DataProxy::StoreBusDev   vendor id:  productId:  deviceType:  serialNum:  rev: 1.02\n "
                        "host adapter: 0 target ID: 0 bus 0 lun 0 devId:   otherIdentInfo: \n")}),
              Trace::Take());
    EXPECT_EQ("1.02\n", device.revision);
}

TEST_F(StoreBusDevTest, AddressNumbersAreDecimalWithoutLeadingZerosUpToFiveDigits)
{
    Scripted<TapeProxy> proxy;
    for (const unsigned number : {0U, 7U, 10U, 12U, 100U, 999U, 1000U, 32768U, 65535U}) {
        std::vector<SystemDevice> devices;
        BusDevice device;
        device.hostAdapter = static_cast<std::uint16_t>(number);
        device.targetId = static_cast<std::uint16_t>(number / 2);
        device.bus = static_cast<std::uint16_t>(number / 3);
        device.lun = static_cast<std::uint16_t>(number / 5);
        proxy.StoreBusDev(device, devices);
        EXPECT_EQ((Lines{Record("", "", "", "", "", std::to_string(number), std::to_string(number / 2),
                                std::to_string(number / 3), std::to_string(number / 5))}),
                  Texts(devices));
    }
}

TEST_F(StoreBusDevTest, SameRecordTwiceIsAppendedTwice)
{
    Scripted<TapeProxy> proxy;
    std::vector<SystemDevice> devices;
    BusDevice device = FilledDevice();
    proxy.StoreBusDev(device, devices);
    proxy.StoreBusDev(device, devices);
    const std::string record = Record("VENDOR", "PRODUCT", "TYPE", "SERIAL", "1.02", "2", "4", "3", "5");
    EXPECT_EQ((Lines{record, record}), Texts(devices));
}

TEST_F(StoreBusDevTest, OnlyReadsItsRecord)
{
    Scripted<TapeProxy> proxy;
    std::vector<SystemDevice> devices;
    BusDevice device = FilledDevice();
    proxy.StoreBusDev(device, devices);
    EXPECT_EQ(All(FilledDevice()), All(device));
}

TEST_F(StoreBusDevTest, RecordAndTraceIgnoreAThousandsGroupingLocale)
{
    const GroupingLocale locale;
    Scripted<TapeProxy> proxy;
    ExpectTraceAtEveryLevel(
        {L4("DataProxy::StoreBusDev   vendor id:  productId:  deviceType:  serialNum:  rev:  host adapter: 65535 "
            "target ID: 12345 bus 1000 lun 54321 devId:   otherIdentInfo: \n")},
        [&proxy] {
            std::vector<SystemDevice> devices;
            BusDevice device;
            device.hostAdapter = 65535;
            device.targetId = 12345;
            device.bus = 1000;
            device.lun = 54321;
            proxy.StoreBusDev(device, devices);
            EXPECT_EQ((Lines{Record("", "", "", "", "", "65535", "12345", "1000", "54321")}), Texts(devices));
        });
}

TEST_F(StoreBusDevTest, TraceTextIsComposedWhateverTheLogLevel)
{
    Scripted<TapeProxy> proxy;
    BusDevice device;
    device.devId = std::string(1000000, 'd');  // reaches the trace text and nothing else
    std::vector<SystemDevice> devices;
    devices.reserve(4);
    Zendra::Log::SetMinLogLevel(0);
    const std::size_t before = Allocations::SoFar().bytes;
    proxy.StoreBusDev(device, devices);
    EXPECT_GE(Allocations::SoFar().bytes - before, device.devId.size());
    EXPECT_EQ(Lines(), Trace::Take());
}

TEST_F(StoreBusDevTest, TraceIsLoggedBeforeMemoryRunsOutForTheRecord)
{
    Scripted<TapeProxy> proxy;
    for (const std::size_t lacking : {sizeof(SystemDevice), std::size_t{101}}) {
        BusDevice device = FilledDevice();
        // The trace is longer than a record, so that no part of it asks for the memory that is lacking.
        device.vendorId = std::string(100, 'v');
        device.devId = std::string(1000, 'd');
        std::vector<SystemDevice> devices;
        Trace::Take();
        Zendra::Log::SetMinLogLevel(4);
        Allocations::FailNextOfSize(lacking);
        EXPECT_THROW(proxy.StoreBusDev(device, devices), std::bad_alloc);
        EXPECT_TRUE(Allocations::StopFailing());
        Zendra::Log::SetMinLogLevel(0);
        EXPECT_EQ(1U, Trace::Take().size());
        EXPECT_EQ(0U, devices.size());
    }
}

TEST_F(StoreBusDevTest, MemoryExhaustionReachesTheCallerWithTheVectorUnchangedOrExtended)
{
    Scripted<TapeProxy> proxy;
    BusDevice device = FilledDevice();
    device.vendorId = std::string(100, 'v');
    bool completed = false;
    std::size_t failures = 0;
    for (std::size_t after = 0; !completed && after < 200; ++after) {
        std::vector<SystemDevice> devices;
        Allocations::FailAfter(after);
        try {
            proxy.StoreBusDev(device, devices);
            completed = !Allocations::StopFailing();
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(Allocations::StopFailing());
            ++failures;
        }
        EXPECT_LE(devices.size(), 1U);
        for (const SystemDevice& stored : devices) {
            EXPECT_EQ(Record(device.vendorId, "PRODUCT", "TYPE", "SERIAL", "1.02", "2", "4", "3", "5"), Text(stored));
        }
    }
    EXPECT_TRUE(completed);
    EXPECT_GT(failures, 0U);
}

}  // namespace
