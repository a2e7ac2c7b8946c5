#include "module/osinfos/systemdevice/sysDevice.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>
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

constexpr int lowest = std::numeric_limits<int>::min();
constexpr int highest = std::numeric_limits<int>::max();
const char* const outOfMemory = "makeDataProxy error due to catch an exception bad_alloc";

class SysDeviceTest : public DeviceTest {
protected:
    static Lines Constructed(int type)
    {
        return {L4("Enter construct SysDevice device type is " + std::to_string(type))};
    }
    static Lines GetDataEntry(int type)
    {
        return {L4("Enter SysDevice::GetData()  device_type = " + std::to_string(type))};
    }
    static SysDevice Worker(int type) { return SysDevice(static_cast<SysDeviceType>(type)); }

    template <class Proxy>
    static void ExpectProxy(int type, const std::string& name)
    {
        SCOPED_TRACE(type);
        ExpectTraceAtEveryLevel(Join({Constructed(type), Logs::Made(name), Logs::Deleted(name)}), [type] {
            const std::unique_ptr<DataProxy> proxy(Worker(type).makeDataProxy());
            ASSERT_NE(nullptr, proxy);
            EXPECT_NE(nullptr, dynamic_cast<Proxy*>(proxy.get()));
        });
    }
};

TEST_F(SysDeviceTest, ConstructorOnlyLogsItsTypeAsANumber)
{
    for (const int type : {0, 1, 2, 3, 42, -1, lowest, highest}) {
        ExpectTraceAtEveryLevel(Constructed(type), [type] { Worker(type); });
    }
}

TEST_F(SysDeviceTest, EachKnownTypeHasItsProxy)
{
    ExpectProxy<TapeProxy>(0, "TapeProxy");
    ExpectProxy<SCSIProxy>(1, "SCSIProxy");
    ExpectProxy<PhysicalDriveProxy>(2, "PhysicalDriveProxy");
    ExpectProxy<CDDVDProxy>(3, "CDDVDProxy");
}

TEST_F(SysDeviceTest, EveryOtherTypeHasTheGenericProxy)
{
    for (const int type : {4, 7, 42, 256, 0x10000, 0x10002, -1, -2, lowest, highest}) {
        ExpectProxy<SCSIProxy>(type, "SCSIProxy");
    }
}

TEST_F(SysDeviceTest, EachCallMakesANewProxy)
{
    SysDevice worker = Worker(0);
    const std::unique_ptr<DataProxy> first(worker.makeDataProxy());
    const std::unique_ptr<DataProxy> second(worker.makeDataProxy());
    EXPECT_NE(first, second);
}

TEST_F(SysDeviceTest, AllocationFailureOfTheProxyIsLoggedAtLevelFourAndGivesNull)
{
    const struct {
        int type;
        std::size_t size;
    } cases[] = {{0, sizeof(TapeProxy)},
                 {1, sizeof(SCSIProxy)},
                 {2, sizeof(PhysicalDriveProxy)},
                 {3, sizeof(CDDVDProxy)},
                 {42, sizeof(SCSIProxy)}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.type);
        ExpectTraceAtEveryLevel(Join({Constructed(one.type), {L4(outOfMemory)}}), [&one] {
            SysDevice worker = Worker(one.type);
            Allocations::FailNextOfSize(one.size);
            DataProxy* const proxy = worker.makeDataProxy();
            EXPECT_TRUE(Allocations::StopFailing());
            EXPECT_EQ(nullptr, proxy);
            delete proxy;
        });
    }
}

TEST_F(SysDeviceTest, BadAllocFromInsideTheProxysConstructorGivesNullAndReleasesTheProxy)
{
    Calls().onSystem = [](const std::string&) -> int { throw std::bad_alloc(); };
    for (const int type : {0, 1, 2, 3}) {
        ExpectTraceAtEveryLevel(Join({Constructed(type), {L4(outOfMemory)}}), [type] {
            SysDevice worker = Worker(type);
            DataProxy* const proxy = worker.makeDataProxy();
            EXPECT_EQ(nullptr, proxy);
            delete proxy;
        });
        SysDevice worker = Worker(type);
        const long before = Allocations::Live();
        EXPECT_EQ(nullptr, worker.makeDataProxy());
        EXPECT_EQ(before, Allocations::Live());
    }
}

TEST_F(SysDeviceTest, OtherExceptionsFromTheProxysConstructorPassUnchanged)
{
    Calls().onSystem = [](const std::string&) -> int { throw std::runtime_error("no shell"); };
    ExpectTraceAtEveryLevel(Constructed(2), [] {
        SysDevice worker = Worker(2);
        try {
            delete worker.makeDataProxy();
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ("no shell", error.what());
        }
    });
}

TEST_F(SysDeviceTest, GetDataRunsTheListOfItsClassAndDeletesTheProxy)
{
    const struct {
        int type;
        const char* name;
        Lines scans;
    } cases[] = {{0, "TapeProxy", Join({Logs::Scan(), Logs::Scan()})},
                 {1, "SCSIProxy", Logs::Scan()},
                 {2, "PhysicalDriveProxy", Join({Logs::Scan(), Logs::Scan(), Logs::Scan()})},
                 {3, "CDDVDProxy", Logs::Scan()},
                 {42, "SCSIProxy", Logs::Scan()},
                 {-7, "SCSIProxy", Logs::Scan()}};
    ListDev({});
    for (const auto& one : cases) {
        SCOPED_TRACE(one.type);
        ExpectTraceAtEveryLevel(Join({Constructed(one.type),
                                      GetDataEntry(one.type),
                                      Logs::Made(one.name),
                                      {L4("Entry DataProxy::GetDeviceList()")},
                                      one.scans,
                                      Logs::Deleted(one.name)}),
                                [&one] {
                                    std::vector<SystemDevice> devices(1);
                                    EXPECT_EQ(6U, Worker(one.type).GetData(devices));
                                    EXPECT_EQ(1U, devices.size());
                                });
    }
}

TEST_F(SysDeviceTest, GetDataAppendsTheRecordsAndAnswersTheCodeOfTheList)
{
    FakeHost host;
    host.Add("sr0", ScsiDevice(5, "HL-DT-ST", "DVDRAM", "1.00", "", 1, 0, 0, 0));
    host.Install();
    std::vector<SystemDevice> devices(1);
    EXPECT_EQ(0U, Worker(3).GetData(devices));
    EXPECT_EQ((Lines{Record("", "", "", "", "", "", "", "", ""),
                     Record("HL-DT-ST", "DVDRAM", "CD-ROM Device", "", "1.00", "1", "0", "0", "0")}),
              Texts(devices));
    EXPECT_EQ(0U, host.OpenFiles());
}

TEST_F(SysDeviceTest, UnknownTypeFindsWhatTheGenericClassFinds)
{
    FakeHost host;
    host.Add("sg0", ScsiDevice(0, "SEAGATE", "ST3300657SS", "0008", "3SJ0", 0, 0, 1, 0));
    host.Install();
    std::vector<SystemDevice> generic;
    EXPECT_EQ(0U, Worker(1).GetData(generic));
    std::vector<SystemDevice> unknown;
    EXPECT_EQ(0U, Worker(7).GetData(unknown));
    EXPECT_EQ(1U, generic.size());
    EXPECT_EQ(Texts(generic), Texts(unknown));
}

TEST_F(SysDeviceTest, GetDataAnswersOkAndLeavesTheVectorWhenTheProxyCannotBeMade)
{
    ExpectTraceAtEveryLevel(Join({Constructed(0), GetDataEntry(0), {L4(outOfMemory)}}), [] {
        SysDevice worker = Worker(0);
        std::vector<SystemDevice> devices(2);
        Allocations::FailNextOfSize(sizeof(TapeProxy));
        EXPECT_EQ(0U, worker.GetData(devices));
        EXPECT_TRUE(Allocations::StopFailing());
        EXPECT_EQ(2U, devices.size());
    });
}

TEST_F(SysDeviceTest, GetDataFreesAllItsMemory)
{
    ListDev({"tty0"});
    std::vector<SystemDevice> devices;
    for (const int type : {0, 1, 2, 3}) {
        SysDevice worker = Worker(type);
        const long before = Allocations::Live();
        worker.GetData(devices);
        EXPECT_EQ(before, Allocations::Live());
    }
}

TEST_F(SysDeviceTest, ExceptionOfTheListPassesAndItsProxyIsNotDeleted)
{
    ListDev({});
    Calls().onOpenDirectory = [](const std::string&) { throw std::runtime_error("from within the scan"); };
    ExpectTraceAtEveryLevel(
        Join({Constructed(0),
              GetDataEntry(0),
              Logs::Made("TapeProxy"),
              {L4("Entry DataProxy::GetDeviceList()"), L4("Entry  DataProxy::ScanDeviceFiles() "), "exception passed"},
              Logs::Deleted("TapeProxy")}),
        [] {
            SysDevice worker = Worker(0);
            std::vector<SystemDevice> devices(1);
            Allocations::WatchNextOfSize(sizeof(TapeProxy));
            try {
                worker.GetData(devices);
                ADD_FAILURE() << "no exception";
            } catch (const std::runtime_error& error) {
                EXPECT_STREQ("from within the scan", error.what());
            }
            EXPECT_EQ(1U, devices.size());
            Trace::Note("exception passed");
            // The proxy is alive: it can be deleted, here, and logs its end.
            ASSERT_NE(nullptr, Allocations::Watched());
            delete static_cast<TapeProxy*>(Allocations::Watched());
        });
}

TEST_F(SysDeviceTest, MemoryExhaustionAtAnyPointOfMakingAProxyEndsInAProxyOrInNull)
{
    for (const int type : {0, 1, 2, 3}) {
        bool completed = false;
        bool sawNull = false;
        bool sawProxyWithoutOperator = false;
        for (std::size_t after = 0; !completed && after < 100; ++after) {
            SysDevice worker = Worker(type);
            const long before = Allocations::Live();
            Allocations::FailAfter(after);
            DataProxy* const proxy = worker.makeDataProxy();
            completed = !Allocations::StopFailing();
            sawNull = sawNull || proxy == nullptr;
            sawProxyWithoutOperator = sawProxyWithoutOperator || (proxy != nullptr && !completed);
            delete proxy;
            EXPECT_EQ(before, Allocations::Live());
        }
        EXPECT_TRUE(completed);
        EXPECT_TRUE(sawNull);
        EXPECT_TRUE(sawProxyWithoutOperator);
    }
}

TEST_F(SysDeviceTest, TypeNumbersIgnoreAThousandsGroupingLocale)
{
    const GroupingLocale locale;
    ListDev({});
    ExpectTraceAtEveryLevel(Join({Constructed(1234567),
                                  GetDataEntry(1234567),
                                  Logs::Made("SCSIProxy"),
                                  {L4("Entry DataProxy::GetDeviceList()")},
                                  Logs::Scan(),
                                  Logs::Deleted("SCSIProxy")}),
                            [] {
                                std::vector<SystemDevice> devices;
                                EXPECT_EQ(6U, Worker(1234567).GetData(devices));
                            });
}

}  // namespace
