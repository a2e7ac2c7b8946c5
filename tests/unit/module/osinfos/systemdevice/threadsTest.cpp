// Operators are not shared, but the command blocks are: several threads may send the same block at once.

#include <gtest/gtest.h>
#include <scsi/sg.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/deviceTest.h"
#include "support/scriptedOperator.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

constexpr int threadCount = 4;
constexpr int commandsPerThread = 200;

class Threads : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        // Each path has a descriptor number of its own, far above any real one.
        Calls().onOpen = [](const std::string& path, int) { return 100000 + (path.back() - '0'); };
        Calls().onClose = [](int descriptor) { return descriptor >= 100000 ? 0 : ZendraTest::RealClose(descriptor); };
        Calls().onIoctl = [this](int descriptor, unsigned code, void* argument) {
            if (code == 0x2282) {
                *static_cast<int*>(argument) = 30536;
                return 0;
            }
            const auto* const header = static_cast<const sg_io_hdr*>(argument);
            if (code != 0x2285 || header->cmd_len != 6 || header->cmdp[0] != 0x12) {
                ++wrongRequests;
                return -1;
            }
            const Bytes answer = InquiryData(0, "V" + std::to_string(descriptor - 100000), "PRODUCT", "REV1");
            std::memcpy(header->dxferp, answer.data(), answer.size());
            return 0;
        };
    }

    std::atomic<int> wrongRequests{0};
};

TEST_F(Threads, FourOperatorsSendTheSameBlockAndEachGetsItsOwnAnswer)
{
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([number, &right] {
            DataOperator device;
            const std::string vendor = "V" + std::to_string(number);
            for (int i = 0; i < commandsPerThread; ++i) {
                std::array<unsigned char, 255> answer{};
                ReqPassThruParam request;
                request.driveName = "/dev/sg" + std::to_string(number);
                request.cdb = inquiry_cmd;
                request.cdbLength = 6;
                request.dataBuffer = answer.data();
                if (device.ExecPassThruCmd(request) == DEV_SUCCESS &&
                    std::memcmp(answer.data() + 8, vendor.data(), vendor.size()) == 0) {
                    ++right;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(threadCount * commandsPerThread, right);
    EXPECT_EQ(0, wrongRequests);
}

TEST_F(Threads, FourOperatorsLogAtOnceWithoutMixingMessages)
{
    Zendra::Log::SetMinLogLevel(4);
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([number] {
            DataOperator device;
            for (int i = 0; i < commandsPerThread; ++i) {
                std::array<unsigned char, 255> answer{};
                ReqPassThruParam request;
                request.driveName = "/dev/sg" + std::to_string(number);
                request.cdb = inquiry_cmd;
                request.cdbLength = 6;
                request.dataBuffer = answer.data();
                device.ExecPassThruCmd(request);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Zendra::Log::SetMinLogLevel(0);
    // A command opens its device file twice; each thread names its own.
    const Lines lines = Trace::Take();
    for (int number = 0; number < threadCount; ++number) {
        const std::string opening =
            L4("Enter DataOperator::OpenDriveFile() driveName = /dev/sg" + std::to_string(number));
        EXPECT_EQ(2 * commandsPerThread, std::count(lines.begin(), lines.end(), opening));
    }
    EXPECT_EQ(static_cast<std::size_t>(threadCount * commandsPerThread * 8), lines.size());
}

}  // namespace
