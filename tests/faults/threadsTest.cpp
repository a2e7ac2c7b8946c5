// Independent collectors in several threads at once. Under ThreadSanitizer this finds what they share unguarded.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "budgetHosts.h"
#include "common/logger/log.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "simhost.h"
#include "simhostTest.h"

namespace {

using namespace Zendra::ZDSystemDevice;

constexpr unsigned threadCount = 4;
constexpr unsigned rounds = 6;
constexpr unsigned devicesOfAKind = 3;

std::atomic<unsigned long> lines{0};

void CountLine(unsigned /*level*/, const char* /*file*/, int /*line*/, const std::string& message)
{
    lines.fetch_add(message.empty() ? 0 : 1, std::memory_order_relaxed);
}

std::string TagOf(unsigned thread)
{
    return std::string(1, static_cast<char>('P' + thread));
}

/** What one thread finds on hosts of its own; a text that is not of them is a complaint. */
class Inventory {
public:
    explicit Inventory(unsigned thread) : tag(TagOf(thread)) {}

    void Take()
    {
        const std::string reason = SimHost::EnterPrivateNamespace();
        if (!reason.empty()) {
            complaints.push_back(reason);
            return;
        }
        for (const std::string& kind : Faults::DeviceKinds()) {
            const SimHost::Host host = SimHost::ParseHost(Faults::HostText(kind, devicesOfAKind, 0, tag), kind);
            SimHost::MountedHost mounted(host);
            TakeHost(mounted);
            complaints.insert(complaints.end(), mounted.Complaints().begin(), mounted.Complaints().end());
        }
    }

    /** Serial number, product and revision of every record, in order. */
    const std::string& Text() const { return text; }
    const std::vector<std::string>& Complaints() const { return complaints; }

private:
    void TakeHost(SimHost::MountedHost& mounted)
    {
        DeviceCollector collector;
        for (const SysDeviceType type :
             {SYS_DEVICE_TAPE, SYS_DEVICE_SCSI, SYS_DEVICE_PHYSICAL_DRIVE, SYS_DEVICE_CDDVD}) {
            std::vector<SystemDevice> devices;
            mounted.BeginCall();
            collector.GetIndividualDevice(devices, type);
            Add(devices);
        }
        std::vector<SystemDevice> devices;
        mounted.BeginCall();
        collector.GetAllDevice(devices);
        Add(devices);
        std::vector<OpticalProperty> drives;
        mounted.BeginCall();
        collector.GetOpticalProperties(drives);
        for (const OpticalProperty& drive : drives) {
            text += drive.drive_name_ + " " + drive.product_ + "\n";
        }
        std::vector<Zendra::ZDOptions::SoftwareIdentity_> identities;
        mounted.BeginCall();
        collector.GetDiskDriverSoftwareIdentities(identities);
        for (const auto& identity : identities) {
            text += identity.SoftwareID + " " + identity.VersionString + "\n";
        }
    }

    void Add(const std::vector<SystemDevice>& devices)
    {
        for (const SystemDevice& device : devices) {
            if (device.product.find(tag) == std::string::npos) {
                complaints.push_back("a product of another thread's host: " + device.product);
            }
            text += device.product + " " + device.serial_number + " " + device.firmware_revision + "\n";
        }
    }

    std::string tag;
    std::string text;
    std::vector<std::string> complaints;
};

TEST(CollectorThreads, FourAtOnceFindWhatEachFindsAlone)
{
    SIMHOST_NEEDS_NAMESPACE();
    Zendra::Log::SetSink(CountLine);
    Zendra::Log::SetMinLogLevel(4);
    std::vector<Inventory> alone;
    for (unsigned number = 0; number < threadCount; ++number) {
        alone.emplace_back(number);
        // In a thread too, so that the mount namespace is gone with it.
        std::thread([&] { alone.back().Take(); }).join();
        ASSERT_TRUE(alone.back().Complaints().empty()) << alone.back().Complaints().front();
        ASSERT_NE(alone.back().Text().find("UNIT " + TagOf(number)), std::string::npos);
    }
    const unsigned long linesAlone = lines.exchange(0);

    for (unsigned round = 0; round < rounds; ++round) {
        std::vector<Inventory> together;
        for (unsigned number = 0; number < threadCount; ++number) {
            together.emplace_back(number);
        }
        std::atomic<unsigned> ready{0};
        std::vector<std::thread> threads;
        for (Inventory& inventory : together) {
            threads.emplace_back([&] {
                ready.fetch_add(1, std::memory_order_relaxed);
                while (ready.load(std::memory_order_relaxed) < threadCount) {
                    std::this_thread::yield();
                }
                inventory.Take();
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (unsigned number = 0; number < threadCount; ++number) {
            EXPECT_TRUE(together[number].Complaints().empty()) << together[number].Complaints().front();
            EXPECT_EQ(together[number].Text(), alone[number].Text());
        }
    }
    Zendra::Log::SetMinLogLevel(0);
    Zendra::Log::SetSink(nullptr);
    EXPECT_GT(linesAlone, 1000U);
    EXPECT_EQ(lines.load(), linesAlone * rounds);
}

}  // namespace
