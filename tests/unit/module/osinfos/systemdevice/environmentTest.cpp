// What a program around the library does to its one shell command, "modprobe sg". The shell and the waits are the real
// ones; modprobe is a script.

#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "common/osspecific/osspecific_lin.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

struct Proxy : ZDSystemDevice::SCSIProxy {
    bool UsesSgDriver() const { return sg_ko_loaded; }
};

bool UsesSgDriver()
{
    return Proxy().UsesSgDriver();
}

/** Each test is a process of its own, with a modprobe that succeeds and leaves a file behind as the only one in PATH.
 */
class Environment : public ::testing::Test {
protected:
    void SetUp() override
    {
        WriteFile(directory / "modprobe", "#!/bin/sh\necho \"$@\" >" + (directory / "ran") + "\n");
        ASSERT_EQ(chmod((directory / "modprobe").c_str(), S_IRWXU), 0);
    }

    std::string Ran() const
    {
        return std::filesystem::exists(directory / "ran") ? ReadFile(directory / "ran") : "not at all";
    }

    const TemporaryDirectory directory;
};

}  // namespace

TEST_F(Environment, WithModprobeInPathTheSgDriverIsUsed)
{
    RunIsolated([this] {
        setenv("PATH", (directory / "").c_str(), 1);
        EXPECT_TRUE(UsesSgDriver());
        EXPECT_EQ(Ran(), "sg\n");
    });
}

TEST_F(Environment, WithoutModprobeInPathTheSgDriverIsNotUsed)
{
    RunIsolated([this] {
        setenv("PATH", "/nonexistent", 1);
        EXPECT_FALSE(UsesSgDriver());
        EXPECT_EQ(Ran(), "not at all");
    });
}

TEST_F(Environment, WithSigchldIgnoredModprobeRunsAndTheSgDriverIsNotUsed)
{
    RunIsolated([this] {
        setenv("PATH", (directory / "").c_str(), 1);
        ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
        EXPECT_FALSE(UsesSgDriver());
        EXPECT_EQ(Ran(), "sg\n");
    });
}

TEST_F(Environment, WithASigchldHandlerThatWaitsForAnyChildAndOneThreadTheSgDriverIsUsed)
{
    RunIsolated([this] {
        setenv("PATH", (directory / "").c_str(), 1);
        struct sigaction action {};
        action.sa_handler = [](int) {
            while (waitpid(-1, nullptr, WNOHANG) > 0) {
            }
        };
        ASSERT_EQ(sigaction(SIGCHLD, &action, nullptr), 0);
        for (int tries = 0; tries < 20; ++tries) {
            EXPECT_TRUE(UsesSgDriver());
        }
    });
}

TEST_F(Environment, WhereAnotherThreadWaitsForAnyChildAndGetsModprobesEndTheSgDriverIsNotUsed)
{
    RunIsolated([this] {
        setenv("PATH", (directory / "").c_str(), 1);
        std::atomic<bool> ended{false};
        int taken = 0;
        std::thread other([&] {
            while (!ended) {
                taken += waitpid(-1, nullptr, 0) > 0 ? 1 : 0;
            }
        });
        // Which of the two waits gets it is chance.
        int tries = 0;
        while (UsesSgDriver() && ++tries < 1000) {
        }
        ended = true;
        other.join();
        EXPECT_LT(tries, 1000);
        EXPECT_EQ(taken, 1);
        EXPECT_EQ(Ran(), "sg\n");
    });
}

TEST_F(Environment, WithSigchldIgnoredAProgramsOutputIsThereAndItsEndIsNot)
{
    RunIsolated([] {
        ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
        std::string output;
        EXPECT_EQ(OSSpecific::SpawnProcess("cat", {"/proc/self/comm"}, &output, 360), -1);
        EXPECT_EQ(output, "cat\n");
    });
}
