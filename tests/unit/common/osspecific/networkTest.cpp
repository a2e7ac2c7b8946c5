#include "common/osspecific/osspecific_lin.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

const std::string loopback = "127.0.0.1";
const std::string othersLine = "3|Can not bind to port 5988, try others";

/** A socket that holds a port of 127.0.0.1; -1 when the port cannot be had. */
int TakePort(std::uint16_t port)
{
    const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (holder >= 0 && bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(holder);
        return -1;
    }
    return holder;
}

/**
 * Holds all ports of 127.0.0.1 from one up, in as many processes as the limit of open descriptors takes. They end
 * with the object, or with the process that made it.
 */
class TakenPorts {
public:
    explicit TakenPorts(int lowest)
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const int portsEach = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 32768)) - 50;
        int ready[2];
        int release[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC) | pipe2(release, O_CLOEXEC), 0);
        for (int first = lowest; first <= 65535; first += portsEach) {
            const pid_t holder = fork();
            if (holder == 0) {
                close(release[1]);
                Hold(first, std::min(first + portsEach, 65536), ready[1], release[0]);
            }
            EXPECT_GT(holder, 0);
            holders.push_back(holder);
        }
        close(ready[1]);
        close(release[0]);
        releaseEnd = release[1];
        char answer = '\0';
        std::size_t answers = 0;
        while (read(ready[0], &answer, 1) == 1) {
            EXPECT_EQ(answer, '+') << "a port could not be taken";
            ++answers;
        }
        close(ready[0]);
        EXPECT_EQ(answers, holders.size());
    }
    ~TakenPorts()
    {
        close(releaseEnd);
        for (const pid_t holder : holders) {
            waitpid(holder, nullptr, 0);
        }
    }
    TakenPorts(const TakenPorts&) = delete;
    TakenPorts& operator=(const TakenPorts&) = delete;

private:
    [[noreturn]] static void Hold(int first, int end, int ready, int release)
    {
        char answer = '+';
        for (int port = first; port < end; ++port) {
            if (TakePort(static_cast<std::uint16_t>(port)) < 0) {
                answer = '-';
            }
        }
        if (write(ready, &answer, 1) == 1) {
            close(ready);
            // Nobody writes: this lasts until the other end is closed.
            [[maybe_unused]] const ssize_t released = read(release, &answer, 1);
        }
        _exit(0);
    }

    std::vector<pid_t> holders;
    int releaseEnd = -1;
};

std::vector<std::string> NewDescriptors(const std::map<int, std::string>& before)
{
    std::vector<std::string> targets;
    for (const auto& [number, target] : OpenDescriptors()) {
        if (before.count(number) == 0) {
            targets.push_back(target);
        }
    }
    return targets;
}

void ExpectOneSocketLeftOpen(const std::map<int, std::string>& before)
{
    const auto left = NewDescriptors(before);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left.front().rfind("socket:", 0), 0U) << left.front();
}

}  // namespace

TEST(AvailablePort, Is5988WhenFree)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        const auto before = OpenDescriptors();
        for (const std::string& address : {loopback, std::string("0.0.0.0"), std::string("127.1.2.3")}) {
            ExpectLog([&] { EXPECT_EQ(OSSpecific::GetAvailablePort(address), 5988); }, {"3|Assign port to 5988"});
        }
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_GE(TakePort(5988), 0) << "it is free again";
    });
}

TEST(AvailablePort, Is65535When5988IsTaken)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        ASSERT_GE(TakePort(5988), 0);
        const auto before = OpenDescriptors();
        ExpectLog([] { EXPECT_EQ(OSSpecific::GetAvailablePort(loopback), 65535); },
                  {othersLine, "3|Assign port to 65535"});
        EXPECT_EQ(OpenDescriptors(), before);
    });
}

TEST(AvailablePort, IsTheHighestFreeOne)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        for (const int port : {5988, 65535, 65534, 65533, 65531}) {
            ASSERT_GE(TakePort(static_cast<std::uint16_t>(port)), 0);
        }
        ExpectLog([] { EXPECT_EQ(OSSpecific::GetAvailablePort(loopback), 65532); },
                  {othersLine, "3|Assign port to 65532"});
    });
}

TEST(AvailablePort, OfOneAddressDoesNotMindWhatAnotherHasTaken)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        ASSERT_GE(TakePort(5988), 0);
        EXPECT_EQ(OSSpecific::GetAvailablePort("127.0.0.2"), 5988);
        EXPECT_EQ(OSSpecific::GetAvailablePort("0.0.0.0"), 65535);
    });
}

TEST(AvailablePort, Is1024WhenNoHigherOneIsFree)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        const TakenPorts taken(1025);
        const auto before = OpenDescriptors();
        LogRecorder log;
        EXPECT_EQ(OSSpecific::GetAvailablePort(loopback), 1024);
        EXPECT_EQ(log.Own(), (LogLines{othersLine, "3|Assign port to 1024"}));
        EXPECT_EQ(NewDescriptors(before).size(), 1U) << "the recorder's only";
    });
}

TEST(AvailablePort, Is65535WithASocketLeftOpenWhenEveryPortFrom1024UpIsTaken)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        const TakenPorts taken(1024);
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            LogRecorder log(level);
            const auto before = OpenDescriptors();
            EXPECT_EQ(OSSpecific::GetAvailablePort(loopback), 65535);
            EXPECT_EQ(log.Own(), UpTo(level, {othersLine}));
            ExpectOneSocketLeftOpen(before);
        }
        EXPECT_GE(TakePort(1023), 0) << "below 1024 nothing is tried: 1023 was free all the time";
    });
}

TEST(AvailablePort, OfATextThatIsNoAddressIsThatOfTheAllOnesAddress)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        // Whether the all-ones address can be bound is the kernel's answer, not the library's.
        const std::uint16_t expected = OSSpecific::GetAvailablePort("255.255.255.255");
        for (const char* text : {"", "localhost", "256.0.0.1", "127.0.0.1.1"}) {
            EXPECT_EQ(OSSpecific::GetAvailablePort(text), expected) << text;
        }
    });
}

TEST(AvailablePort, OfAnAddressThatIsNotThisHostsIs65535WithASocketLeftOpen)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        for (const char* address : {"192.0.2.1", "198.51.100.7"}) {
            for (const unsigned level : {4U, 3U, 1U, 0U}) {
                LogRecorder log(level);
                const auto before = OpenDescriptors();
                EXPECT_EQ(OSSpecific::GetAvailablePort(address), 65535) << address;
                EXPECT_EQ(log.Own(), UpTo(level, {othersLine})) << address;
                ExpectOneSocketLeftOpen(before);
            }
        }
    });
}

TEST(AvailablePort, SearchThatFailedLeavesASocketThatNoProgramInherits)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNET);
    RunIsolated([] {
        EnterLoopbackNetwork();
        const auto inherited = InheritableDescriptors();
        EXPECT_EQ(OSSpecific::GetAvailablePort("192.0.2.1"), 65535);
        EXPECT_EQ(InheritableDescriptors(), inherited);
    });
}

TEST(HostnameAvailable, FollowsTheHostsFileWhateverTheSecondText)
{
    ZENDRA_NEEDS_NAMESPACES(CLONE_NEWNS | CLONE_NEWNET);
    const TemporaryDirectory directory;
    WriteFile(directory / "hosts", "127.0.0.1 localhost\n127.9.8.7 listed.test alias.test\n");
    WriteFile(directory / "nsswitch.conf", "hosts: files\n");
    RunIsolated([&] {
        EnterPrivateMounts();
        EnterLoopbackNetwork();
        for (const char* name : {"hosts", "nsswitch.conf"}) {
            ASSERT_EQ(
                mount((directory / name).c_str(), (std::string("/etc/") + name).c_str(), nullptr, MS_BIND, nullptr), 0);
        }
        for (const char* second : {"", "listed.test", "unlisted.test"}) {
            for (const char* name : {"listed.test", "alias.test", "localhost", "127.0.0.1"}) {
                ExpectLog([&] { EXPECT_EQ(OSSpecific::DetectHostnameAvailable(name, second), 0) << name; },
                          {"4|Network is ok."});
            }
            for (const char* name : {"unlisted.test", "", "listed"}) {
                ExpectLog([&] { EXPECT_EQ(OSSpecific::DetectHostnameAvailable(name, second), -1) << name; },
                          {"4|Network is unavailable."});
            }
        }
    });
}
