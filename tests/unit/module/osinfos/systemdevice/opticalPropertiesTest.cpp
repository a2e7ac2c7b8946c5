#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "module/osinfos/systemdevice/sysDevice.h"
#include "support/allocations.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/fakeHost.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

std::string Text(const OpticalProperty& property)
{
    std::string text;
    for (const std::string* field :
         {&property.drive_name_, &property.vendor_, &property.product_, &property.dvd_ram_write_,
          &property.cd_rw_write_, &property.cd_r_write_, &property.dvd_read_, &property.dvd_r_write_, &property.mrw_r_,
          &property.mrw_w_, &property.ram_w_}) {
        text += "{" + *field + "}";
    }
    return text;
}

Lines Texts(const std::vector<OpticalProperty>& properties)
{
    Lines texts;
    for (const OpticalProperty& property : properties) {
        texts.push_back(Text(property));
    }
    return texts;
}

const std::string noCapabilities = "{No}{No}{No}{No}{No}{No}{No}{No}";

/** A whole table of one drive, as the kernel writes it: 19 line ends, and so 20 lines with the empty last one. */
std::string Table(const std::string& drive)
{
    return "CD-ROM information, Id: cdrom.c 3.20 2003/12/17\n"
           "\n"
           "drive name:\t\t" +
           drive +
           "\n"
           "drive speed:\t\t24\n"
           "drive # of slots:\t1\n"
           "Can close tray:\t\t1\n"
           "Can open tray:\t\t1\n"
           "Can lock tray:\t\t1\n"
           "Can change speed:\t1\n"
           "Can select disk:\t0\n"
           "Can read multisession:\t1\n"
           "Can read MCN:\t\t1\n"
           "Can play audio:\t\t1\n"
           "Can write CD-R:\t\t1\n"
           "Can write CD-RW:\t0\n"
           "Can read DVD:\t\t1\n"
           "Can write DVD-R:\t0\n"
           "Can write DVD-RAM:\t1\n"
           "Can read MRW:\t\t0\n";
}

/** cat gets a file of this test in place of the kernel's table. */
class OpticalProperties : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        Trace::IgnoreMessagesOf("src/common/osspecific/osspecific_lin.cpp");
        char name[] = "/tmp/zendra-cdrom-XXXXXX";
        const int descriptor = mkstemp(name);
        ASSERT_GE(descriptor, 0);
        close(descriptor);
        tableFile = name;
        Calls().onExecute = [this](const std::string& program, const std::vector<std::string>& arguments) {
            if (program != "cat" || arguments != std::vector<std::string>{"cat", "/proc/sys/dev/cdrom/info"}) {
                _exit(96);
            }
            execl("/bin/cat", "cat", tableFile.c_str(), static_cast<char*>(nullptr));
        };
    }

    void TearDown() override
    {
        unlink(tableFile.c_str());
        DeviceTest::TearDown();
    }

    void WriteTable(const std::string& text) const
    {
        std::ofstream file(tableFile, std::ios::binary | std::ios::trunc);
        file << text;
    }

    /** One drive sr0, which answers its INQUIRY. */
    static void AddDrive(FakeHost& host, const std::string& name = "sr0", const std::string& vendor = "HL-DT-ST")
    {
        host.Add(name, ScsiDevice(5, vendor, "DVDRAM", "1.00", "", 1, 0, 0, 0));
        host.Install();
    }

    Lines Records(unsigned status = 0)
    {
        CDDVDProxy proxy;
        std::vector<OpticalProperty> properties;
        EXPECT_EQ(status, proxy.GetCDDVDOptList(properties));
        return Texts(properties);
    }

    std::string tableFile;
};

/** The messages of GetCDDVDOptList itself among all those that a call wrote. */
Lines TableMessages(const Lines& trace)
{
    const auto start = std::find_if(trace.begin(), trace.end(), [](const std::string& line) {
        return line.find("cat cdrom info result") != std::string::npos;
    });
    return Lines(start, trace.end());
}

TEST_F(OpticalProperties, InitOpticalPropertyStructResetsEveryField)
{
    CDDVDProxy proxy;
    OpticalProperty property;
    EXPECT_EQ("{}{}{}" + noCapabilities, Text(property));
    for (std::string* field : {&property.drive_name_, &property.vendor_, &property.product_, &property.dvd_ram_write_,
                               &property.cd_rw_write_, &property.cd_r_write_, &property.dvd_read_,
                               &property.dvd_r_write_, &property.mrw_r_, &property.mrw_w_, &property.ram_w_}) {
        *field = "left over";
    }
    proxy.InitOpticalPropertyStruct(property);
    EXPECT_EQ("{}{}{}" + noCapabilities, Text(property));
}

TEST_F(OpticalProperties, NoDeviceFileAnswersNoneEvenWhenTheTableExists)
{
    ListDev({"sda"});
    WriteTable(Table("sr0"));
    CDDVDProxy proxy;
    Trace::Take();
    ExpectTraceAtEveryLevel(Join({{L4("Entry CDDVDProxy::GetCDDVDOptList()")}, Logs::Scan()}), [&proxy] {
        std::vector<OpticalProperty> properties(1);
        EXPECT_EQ(6U, proxy.GetCDDVDOptList(properties));
        EXPECT_EQ(1U, properties.size());
    });
}

TEST_F(OpticalProperties, OneDriveIsDescribedWithItsVendorAndProduct)
{
    FakeHost host;
    AddDrive(host);
    const std::string table = Table("sr0");
    WriteTable(table);
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ((Lines{"{/dev/sr0}{HL-DT-ST}{DVDRAM}{Yes}{No}{Yes}{Yes}{No}{No}{No}{No}"}), Records());
    Zendra::Log::SetMinLogLevel(0);
    EXPECT_EQ((Lines{L4("cat cdrom info result =      " + table), L4("cat cdrom lines =      20"),
                     L4("cddvd   dvd_read_ = Yes  dvd_ram_write_ = Yescddvd   dvd_r_write_ = No  cd_rw_write_ = "
                        "Nocddvd   cd_r_write_ = Yesread MRW mrw_r_= Nowrite MRW mrw_w_=NoRAM write cddvd.ram_w_= No"),
                     L4("Exit CDDVDProxy::GetCDDVDOptList()"), L4("Entry CDDVDProxy::~CDDVDProxy()"),
                     L4("Entry destructure ~DataProxy() ")}),
              TableMessages(Trace::Take()));
}

TEST_F(OpticalProperties, NothingIsLoggedAtLowerLevels)
{
    FakeHost host;
    AddDrive(host);
    WriteTable(Table("sr0"));
    for (const unsigned level : {0U, 1U, 3U}) {
        Zendra::Log::SetMinLogLevel(level);
        Records();
        EXPECT_EQ(Lines(), Trace::Take());
    }
}

TEST_F(OpticalProperties, RecordIsAppended)
{
    FakeHost host;
    AddDrive(host);
    WriteTable(Table("sr0"));
    CDDVDProxy proxy;
    std::vector<OpticalProperty> properties(1);
    properties[0].vendor_ = "before";
    EXPECT_EQ(0U, proxy.GetCDDVDOptList(properties));
    ASSERT_EQ(2U, properties.size());
    EXPECT_EQ("before", properties[0].vendor_);
    EXPECT_EQ("/dev/sr0", properties[1].drive_name_);
}

TEST_F(OpticalProperties, EmptyTableAppendsNothingAndWritesNoClosingMessage)
{
    FakeHost host;
    AddDrive(host);
    WriteTable("");
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ(Lines(), Records());
    EXPECT_EQ((Lines{L4("cat cdrom info result =      "), L4("cat cdrom lines =      1"),
                     L4("reading cdrom information is incomplete."), L4("Entry CDDVDProxy::~CDDVDProxy()"),
                     L4("Entry destructure ~DataProxy() ")}),
              TableMessages(Trace::Take()));
}

// The worker and the facade

TEST_F(OpticalProperties, WorkerPassesOnWhatTheProxyOfItsClassAnswers)
{
    ListDev({});
    const struct {
        int type;
        unsigned status;
        Lines log;
    } cases[] = {
        {0, 0, Join({Logs::Made("TapeProxy"), Logs::Deleted("TapeProxy")})},
        {1, 4, Join({Logs::Made("SCSIProxy"), Logs::Deleted("SCSIProxy")})},
        {2, 0, Join({Logs::Made("PhysicalDriveProxy"), Logs::Deleted("PhysicalDriveProxy")})},
        {3, 6,
         Join({Logs::Made("CDDVDProxy"),
               {L4("Entry CDDVDProxy::GetCDDVDOptList()")},
               Logs::Scan(),
               Logs::Deleted("CDDVDProxy")})},
        {42, 4, Join({Logs::Made("SCSIProxy"), Logs::Deleted("SCSIProxy")})},
        {-1, 4, Join({Logs::Made("SCSIProxy"), Logs::Deleted("SCSIProxy")})},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.type);
        const std::string constructed = "Enter construct SysDevice device type is " + std::to_string(one.type);
        ExpectTraceAtEveryLevel(Join({{L4(constructed)}, one.log}), [&one] {
            std::vector<OpticalProperty> properties(1);
            EXPECT_EQ(one.status, SysDevice(static_cast<SysDeviceType>(one.type)).GetOpticalData(properties));
            EXPECT_EQ(1U, properties.size());
        });
    }
}

TEST_F(OpticalProperties, WorkerAnswersOkWhenItsProxyCannotBeMade)
{
    ExpectTraceAtEveryLevel({L4("Enter construct SysDevice device type is 3"),
                             L4("makeDataProxy error due to catch an exception bad_alloc")},
                            [] {
                                SysDevice worker(SYS_DEVICE_CDDVD);
                                std::vector<OpticalProperty> properties(1);
                                Allocations::FailNextOfSize(sizeof(CDDVDProxy));
                                EXPECT_EQ(0U, worker.GetOpticalData(properties));
                                EXPECT_TRUE(Allocations::StopFailing());
                                EXPECT_EQ(1U, properties.size());
                            });
}

TEST_F(OpticalProperties, ExceptionOfTheProxyPassesThroughTheWorkerAndItsProxyIsNotDeleted)
{
    ListDev({});
    Calls().onOpenDirectory = [](const std::string&) { throw std::runtime_error("from within the scan"); };
    SysDevice worker(SYS_DEVICE_CDDVD);
    std::vector<OpticalProperty> properties;
    Allocations::WatchNextOfSize(sizeof(CDDVDProxy));
    EXPECT_THROW(worker.GetOpticalData(properties), std::runtime_error);
    ASSERT_NE(nullptr, Allocations::Watched());
    delete static_cast<CDDVDProxy*>(Allocations::Watched());
}

TEST_F(OpticalProperties, FacadeWithoutDrivesAnswersNoneAndSaysSoBetweenItsEnterAndLeaveLines)
{
    ListDev({});
    ExpectTraceAtEveryLevel(
        Join({{L4("Enter construct DeviceCollector "), L4("Enter DeviceCollector::GetOpticalProperties()"),
               L4("Enter construct SysDevice device type is 3")},
              Logs::Made("CDDVDProxy"),
              {L4("Entry CDDVDProxy::GetCDDVDOptList()")},
              Logs::Scan(),
              Logs::Deleted("CDDVDProxy"),
              {L4("DeviceCollector::GetOpticalPropertys() has none cddvd devices"),
               L4("Leave DeviceCollector::GetOpticalProperties()")}}),
        [] {
            DeviceCollector collector;
            std::vector<OpticalProperty> properties;
            EXPECT_EQ(6U, collector.GetOpticalProperties(properties));
            EXPECT_EQ(0U, properties.size());
        });
}

TEST_F(OpticalProperties, FacadeAppendsTheRecordOfTheDrive)
{
    FakeHost host;
    AddDrive(host);
    WriteTable(Table("sr0"));
    Zendra::Log::SetMinLogLevel(4);
    DeviceCollector collector;
    std::vector<OpticalProperty> properties;
    EXPECT_EQ(0U, collector.GetOpticalProperties(properties));
    EXPECT_EQ((Lines{"{/dev/sr0}{HL-DT-ST}{DVDRAM}{Yes}{No}{Yes}{Yes}{No}{No}{No}{No}"}), Texts(properties));
    const Lines trace = Trace::Take();
    EXPECT_EQ(L4("Leave DeviceCollector::GetOpticalProperties()"), trace.back());
    EXPECT_EQ(
        0, std::count(trace.begin(), trace.end(), L4("DeviceCollector::GetOpticalPropertys() has none cddvd devices")));
}

}  // namespace
