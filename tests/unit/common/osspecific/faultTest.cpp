#include "common/osspecific/osspecific_lin.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "interposed.h"
#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

using Texts = std::vector<std::string>;

constexpr int longTime = 360;

enum class Function { Basic, In };

constexpr Function bothFunctions[] = {Function::Basic, Function::In};

int Spawn(Function function, const Texts& params, std::string& output, int timeout = longTime)
{
    return function == Function::Basic
               ? OSSpecific::SpawnProcess(actProgram, params, &output, timeout)
               : OSSpecific::SpawnProcessIn(actProgram, "zero", params, {"A=1"}, timeout, 1, &output);
}

/** What a run of "act" without a failure before its end logs at level 4 in the parent, up to its chunks. */
LogLines Opening(Function function, const std::string& params)
{
    return function == Function::Basic ? LogLines{"3|SpawnProcess: process " + actProgram + "\n"}
                                       : LogLines{"4|tryflag == 1, OSSpecific::SpawnProcess calling " + actProgram +
                                                      "\nwith parameters: zero " + params + "\nwith environment vars: ",
                                                  "4|Enter else for pid == 0! "};
}

LogLines operator+(LogLines one, const LogLines& other)
{
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

class Faults : public testing::Test {
protected:
    HooksForOneTest hooksForOneTest;
};

using FileFaults = Faults;
using SpawnFaults = Faults;
using SpawnMemory = Faults;
using TerminateFaults = Faults;
using PortFaults = Faults;
using TimeFaults = Faults;

struct EnvironmentVariable {
    EnvironmentVariable(const char* variable, const char* value) : name(variable) { setenv(name, value, 1); }
    ~EnvironmentVariable() { unsetenv(name); }
    const char* name;
};

}  // namespace

// ---- Time.

TEST_F(TimeFaults, FiveSecondsPast0907On3February2025Is20250203090705)
{
    const EnvironmentVariable zone("TZ", "UTC0");
    hooks.time = [](time_t*) { return time_t{1738573625}; };
    EXPECT_EQ(zd_utils::FormatTime(), "20250203090705");
}

TEST_F(TimeFaults, FollowsAChangeOfTheTimeZone)
{
    hooks.time = [](time_t*) { return time_t{1738573625}; };
    {
        const EnvironmentVariable zone("TZ", "EAST-2");
        EXPECT_EQ(zd_utils::FormatTime(), "20250203110705");
    }
    {
        const EnvironmentVariable zone("TZ", "WEST10");
        EXPECT_EQ(zd_utils::FormatTime(), "20250202230705");
    }
}

TEST_F(TimeFaults, AYearOfFiveDigitsIsWholeAndOneBeyondLocalTimeIsEmpty)
{
    const EnvironmentVariable zone("TZ", "UTC0");
    hooks.time = [](time_t*) { return time_t{253402300800}; };
    EXPECT_EQ(zd_utils::FormatTime(), "100000101000000");
    hooks.time = [](time_t*) { return std::numeric_limits<time_t>::max(); };
    EXPECT_EQ(zd_utils::FormatTime(), "");
}

// ---- Files.

TEST_F(FileFaults, AFileThatVanishesBetweenTheTwoLooksHasSizeZero)
{
    int calls = 0;
    hooks.stat = [&](const char*, struct stat* status) {
        *status = {};
        status->st_mode = S_IFREG;
        status->st_size = 5;
        errno = ENOENT;
        return ++calls == 1 ? 0 : -1;
    };
    EXPECT_EQ(OSSpecific::GetFileSize("/any"), 0);
    EXPECT_EQ(calls, 2);
}

TEST_F(FileFaults, EachFailureOfMkdirHasItsMessage)
{
    const std::vector<std::pair<int, std::string>> cases{
        {EEXIST, "1|Dir already exists"},         {EACCES, "1|Dir status access denied"},
        {EROFS, "1|Dir status access denied"},    {ENOENT, "1|Dir file system error"},
        {EPERM, "1|Dir file system error"},       {ENOSPC, "1|Dir file system error"},
        {ENAMETOOLONG, "1|Dir file system error"}};
    for (const auto& [error, message] : cases) {
        const int code = error;
        hooks.mkdir = [code](const char* path, mode_t mode) {
            EXPECT_STREQ(path, "/any");
            EXPECT_EQ(mode, mode_t{0777});
            errno = code;
            return -1;
        };
        ExpectLog([] { OSSpecific::CreateDir("/any"); }, {message});
    }
}

TEST_F(FileFaults, AReadThatFailsAfterSomeChunksKeepsThemAndLogsTheFailureOnly)
{
    for (const int error : {EIO, EINTR}) {
        ExpectLog(
            [error] {
                int calls = 0;
                hooks.read = [&](int descriptor, void* buffer, size_t size) -> ssize_t {
                    if (descriptor != 77) {
                        return Real::Read(descriptor, buffer, size);
                    }
                    EXPECT_EQ(size, 4096U);
                    if (++calls == 3) {
                        errno = error;
                        return -1;
                    }
                    std::memset(buffer, '0' + calls, 2);
                    return 2;
                };
                EXPECT_EQ(OSSpecific::GetFileContents(77, "/path", true), "1122");
                hooks.read = nullptr;
                EXPECT_EQ(calls, 3);
            },
            {"1|GetFileContents failed to read file/path"});
    }
}

TEST_F(FileFaults, CapturingAFileThatFailsToReadClosesItAndHasItCloseOnExecMeanwhile)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "contents");
    const auto before = OpenDescriptors();
    hooks.read = [](int descriptor, void*, size_t) -> ssize_t {
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        errno = EIO;
        return -1;
    };
    const std::string contents = OSSpecific::CaptureFile(directory / "file");
    hooks.read = nullptr;
    EXPECT_EQ(contents, "");
    EXPECT_EQ(OpenDescriptors(), before);
}

// ---- Spawning.

TEST_F(SpawnFaults, EachWaitAsksForReadabilityAloneOf1024DescriptorsWithAFreshTime)
{
    for (const Function function : bothFunctions) {
        int calls = 0;
        hooks.select = [&](int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
            ++calls;
            EXPECT_EQ(count, 1024);
            EXPECT_EQ(writable, nullptr);
            EXPECT_EQ(exceptional, nullptr);
            EXPECT_NE(timeout, nullptr);
            EXPECT_EQ(timeout->tv_sec, 17);
            EXPECT_EQ(timeout->tv_usec, 0);
            int members = 0;
            for (int number = 0; number < 1024; ++number) {
                members += FD_ISSET(number, readable) ? 1 : 0;
            }
            EXPECT_EQ(members, 1);
            const int ready = Real::Select(count, readable, writable, exceptional, timeout);
            // What is left of the time must not be what the next wait gets.
            *timeout = {1, 2};
            return ready;
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {"out", "text"}, output, 17), 0);
        EXPECT_GE(calls, 2);
    }
}

TEST_F(SpawnFaults, ATimeThatIsEndlessPassesNoTimeToSelect)
{
    const std::vector<std::pair<Function, int>> endless{{Function::Basic, -1}, {Function::In, -1}, {Function::In, -5}};
    for (const auto& [function, timeout] : endless) {
        int calls = 0;
        hooks.select = [&](int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* time) {
            ++calls;
            EXPECT_EQ(time, nullptr);
            return Real::Select(count, readable, writable, exceptional, time);
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {"out", "text"}, output, timeout), 0);
        EXPECT_GE(calls, 2);
    }
}

TEST_F(SpawnFaults, CapFileGivesTheProgram360Seconds)
{
    const TemporaryDirectory directory;
    time_t seconds = 0;
    hooks.select = [&](int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* time) {
        seconds = time->tv_sec;
        return Real::Select(count, readable, writable, exceptional, time);
    };
    std::string output;
    OSSpecific::CapFileViaProc(actProgram, {}, directory / "missing", output, false);
    EXPECT_EQ(seconds, 360);
}

TEST_F(SpawnFaults, AnInterruptedOrOtherwiseFailedSelectIsNotRepeatedAndLeavesTheChild)
{
    for (const Function function : bothFunctions) {
        for (const int error : {EINTR, EBADF, ENOMEM}) {
            const auto before = OpenDescriptors();
            const LogLines failure = function == Function::Basic ? LogLines{"1|SpawnProcess - select call failed! \n"}
                                                                 : LogLines{"1|SpawnProcess - select call failed!",
                                                                            "3|SpawnProcess() zero Returned:before"};
            for (const unsigned level : {4U, 3U, 1U, 0U}) {
                int calls = 0;
                hooks.select = [&](int, fd_set*, fd_set*, fd_set*, timeval*) {
                    ++calls;
                    errno = error;
                    return -1;
                };
                std::string output = "before";
                {
                    LogRecorder log(level);
                    EXPECT_EQ(Spawn(function, {"exit", "6"}, output), -1);
                    EXPECT_EQ(log.Own(), UpTo(level, Opening(function, "exit 6 ") + failure));
                }
                hooks.select = nullptr;
                EXPECT_EQ(calls, 1);
                EXPECT_EQ(output, "before");
                int status = 0;
                EXPECT_GT(waitpid(-1, &status, 0), 0) << "the child is the caller's to reap";
                EXPECT_EQ(WEXITSTATUS(status), 6);
            }
            EXPECT_EQ(OpenDescriptors(), before);
        }
    }
}

TEST_F(SpawnFaults, AReadySetWithoutTheReadEndRepeatsTheWait)
{
    for (const Function function : bothFunctions) {
        int calls = 0;
        hooks.select = [&](int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
            if (++calls <= 3) {
                FD_ZERO(readable);
                return 1;
            }
            return Real::Select(count, readable, writable, exceptional, timeout);
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {"out", "text"}, output), 0);
        EXPECT_EQ(output, "text");
        EXPECT_GE(calls, 5);
    }
}

TEST_F(SpawnFaults, AReadThatFailsAppendsNothingAndDoesNotEndTheOutput)
{
    for (const Function function : bothFunctions) {
        LogRecorder log;
        int calls = 0;
        hooks.read = [&](int descriptor, void* buffer, size_t size) -> ssize_t {
            ++calls;
            if (calls == 1 || calls == 3) {
                errno = calls == 1 ? EINTR : EIO;
                return -1;
            }
            return Real::Read(descriptor, buffer, size);
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {"out", "text"}, output), 0);
        hooks.read = nullptr;
        EXPECT_EQ(output, "text");
        EXPECT_EQ(calls, 4);
        if (function == Function::In) {
            const LogLines rest{
                "4|*output_ptr == , appended buffer == ",         "4|*output_ptr == , appended buffer == text",
                "4|*output_ptr == text, appended buffer == ",     "4|*output_ptr == text, appended buffer == ",
                "3|SpawnProcess - Child process exited code = 0", "3|SpawnProcess() zero Returned:text"};
            EXPECT_EQ(log.Own(), Opening(function, "out text ") + rest);
        }
    }
}

TEST_F(SpawnFaults, EachReadAsksFor4095BytesIntoAZeroedBuffer)
{
    for (const Function function : bothFunctions) {
        std::vector<ssize_t> lengths;
        hooks.read = [&](int descriptor, void* buffer, size_t size) {
            EXPECT_EQ(size, 4095U);
            const char* const bytes = static_cast<const char*>(buffer);
            EXPECT_TRUE(std::all_of(bytes, bytes + 4096, [](char byte) { return byte == '\0'; }));
            lengths.push_back(Real::Read(descriptor, buffer, size));
            return lengths.back();
        };
        // The child must have written all of it before the first read.
        hooks.select = [&](int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
            siginfo_t info;
            if (lengths.empty()) {
                waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
            }
            return Real::Select(count, readable, writable, exceptional, timeout);
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {"fill", "10000"}, output), 0);
        EXPECT_EQ(lengths, (std::vector<ssize_t>{4095, 4095, 1810, 0}));
        EXPECT_EQ(output.size(), 10000U);
    }
}

TEST_F(SpawnFaults, AChunkIsCutAtItsNulByteAndTheNextOneIsNot)
{
    for (const Function function : bothFunctions) {
        int calls = 0;
        hooks.read = [&](int descriptor, void* buffer, size_t size) -> ssize_t {
            if (++calls == 1) {
                std::memcpy(buffer, "one\0lost", 8);
                return 8;
            }
            if (calls == 2) {
                std::memcpy(buffer, "\0lost", 5);
                return 5;
            }
            return Real::Read(descriptor, buffer, size);
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {"out", "two"}, output), 0);
        EXPECT_EQ(output, "onetwo");
    }
}

TEST_F(SpawnFaults, AWaitThatFailsOrFindsAnotherChildIsNotRepeated)
{
    for (const Function function : bothFunctions) {
        for (const bool fails : {true, false}) {
            const auto before = OpenDescriptors();
            const LogLines chunk{"4|*output_ptr == , appended buffer == "};
            const LogLines failure =
                function == Function::Basic
                    ? LogLines{"1|SpawnProcess - waitpid call failed! \n"}
                    : chunk + LogLines{"1|SpawnProcess - waitpid call failed!", "3|SpawnProcess() zero Returned:"};
            for (const unsigned level : {4U, 3U, 1U, 0U}) {
                int calls = 0;
                hooks.waitpid = [&](pid_t process, int* status, int options) {
                    ++calls;
                    EXPECT_EQ(options, 0);
                    EXPECT_EQ(Real::Waitpid(process, status, options), process);
                    errno = EINTR;
                    return fails ? -1 : process + 1;
                };
                LogRecorder log(level);
                std::string output;
                EXPECT_EQ(Spawn(function, {"exit", "0"}, output), -1);
                EXPECT_EQ(calls, 1);
                EXPECT_EQ(log.Own(), UpTo(level, Opening(function, "exit 0 ") + failure));
                hooks.waitpid = nullptr;
            }
            EXPECT_EQ(OpenDescriptors(), before);
        }
    }
}

TEST_F(SpawnFaults, ThePipeIsCloseOnExecFromTheStart)
{
    for (const Function function : bothFunctions) {
        int given = -1;
        hooks.pipe2 = [&](int*, int flags) {
            given = flags;
            errno = EMFILE;
            return -1;
        };
        std::string output;
        EXPECT_EQ(Spawn(function, {}, output), -1);
        EXPECT_EQ(given, O_CLOEXEC);
    }
}

TEST_F(SpawnFaults, WithoutAPipeNoProcessIsMadeAndNoFailureIsLogged)
{
    int forks = 0;
    hooks.pipe2 = [](int*, int) {
        errno = ENFILE;
        return -1;
    };
    hooks.fork = [&] {
        ++forks;
        errno = EAGAIN;
        return -1;
    };
    for (const Function function : bothFunctions) {
        const LogLines own = function == Function::Basic
                                 ? Opening(function, "")
                                 : LogLines{Opening(function, "a ").front(), "3|SpawnProcess() zero Returned:before"};
        ExpectLog(
            [function] {
                std::string output = "before";
                EXPECT_EQ(Spawn(function, {"a"}, output), -1);
                EXPECT_EQ(output, "before");
            },
            own);
    }
    EXPECT_EQ(forks, 0);
}

TEST_F(SpawnFaults, AfterAFailedForkSpawnProcessInWaitsForAnyChildAndTheBasicOverloadForNone)
{
    // In a process of its own, which ends without a search for leaks: the basic overload's argument copies stay.
    RunIsolated([] {
        hooks.fork = [] {
            errno = EAGAIN;
            return -1;
        };
        std::vector<pid_t> waitedFor;
        hooks.waitpid = [&](pid_t process, int*, int) {
            waitedFor.push_back(process);
            errno = ECHILD;
            return -1;
        };
        std::string output;
        EXPECT_EQ(Spawn(Function::Basic, {}, output), -1);
        EXPECT_EQ(waitedFor, std::vector<pid_t>());
        EXPECT_EQ(Spawn(Function::In, {}, output), -1);
        EXPECT_EQ(waitedFor, std::vector<pid_t>{-1});
    });
}

// ---- Memory of spawning. All of it with a logger that takes none: at level 0.

namespace {

long BlocksLostBy(const std::function<void()>& call)
{
    const long before = LiveBlocks();
    call();
    return LiveBlocks() - before;
}

}  // namespace

TEST_F(SpawnMemory, IsAllGivenBackOnEveryPath)
{
    for (const Function function : bothFunctions) {
        for (const Texts& acts : {Texts{"out", "text"}, Texts{"exit", "1"}, Texts{"signal", "9"}}) {
            EXPECT_EQ(BlocksLostBy([&] {
                          std::string output;
                          Spawn(function, acts, output);
                      }),
                      0);
        }
        EXPECT_EQ(BlocksLostBy([&] {
                      std::string output;
                      EXPECT_EQ(Spawn(function, {"pause", "50"}, output, 0), -1);
                  }),
                  0)
            << "after a time-out";
        EXPECT_GT(waitpid(-1, nullptr, 0), 0);

        hooks.waitpid = [](pid_t process, int* status, int options) {
            Real::Waitpid(process, status, options);
            return -1;
        };
        EXPECT_EQ(BlocksLostBy([&] {
                      std::string output;
                      EXPECT_EQ(Spawn(function, {}, output), -1);
                  }),
                  0)
            << "after a failed wait";
        hooks.waitpid = nullptr;

        hooks.select = [](int, fd_set*, fd_set*, fd_set*, timeval*) { return -1; };
        EXPECT_EQ(BlocksLostBy([&] {
                      std::string output;
                      EXPECT_EQ(Spawn(function, {}, output), -1);
                  }),
                  0)
            << "after a failed select";
        hooks.select = nullptr;
        EXPECT_GT(waitpid(-1, nullptr, 0), 0);

        hooks.pipe2 = [](int*, int) { return -1; };
        EXPECT_EQ(BlocksLostBy([&] {
                      std::string output;
                      EXPECT_EQ(Spawn(function, {"a", "b"}, output), -1);
                  }),
                  0)
            << "without a pipe";
        hooks.pipe2 = nullptr;
    }
    hooks.fork = [] { return -1; };
    hooks.waitpid = [](pid_t, int*, int) { return -1; };
    EXPECT_EQ(BlocksLostBy([] {
                  std::string output;
                  EXPECT_EQ(Spawn(Function::In, {"a", "b"}, output), -1);
              }),
              0)
        << "without a process";
}

TEST_F(SpawnMemory, OfTheArgumentCopiesStaysTakenWhenTheBasicOverloadCannotFork)
{
    // In a process of its own, which ends without a search for leaks.
    RunIsolated([] {
        hooks.fork = [] { return -1; };
        EXPECT_EQ(BlocksLostBy([] {
                      std::string output;
                      EXPECT_EQ(Spawn(Function::Basic, {"a", "b", "c"}, output), -1);
                  }),
                  4)
            << "the path and three parameters";
    });
}

TEST_F(SpawnMemory, IsNotTakenBetweenForkAndExecUnlessALogMessageNeedsIt)
{
    for (const Function function : bothFunctions) {
        std::string output;
        BlocksTakenInChildren();
        EXPECT_EQ(Spawn(function, {"out", "text"}, output), 0);
        EXPECT_EQ(BlocksTakenInChildren(), 0);
    }
    std::string output;
    EXPECT_EQ(OSSpecific::SpawnProcessIn(actProgram, "zero", {}, {"A=1"}, longTime, 2, &output), 0);
    EXPECT_EQ(BlocksTakenInChildren(), 0);
    EXPECT_EQ(OSSpecific::SpawnProcessIn(actProgram, "zero", {}, {"A=1"}, longTime, 3, &output), 0);
    EXPECT_EQ(BlocksTakenInChildren(), 0);

    LogRecorder log;
    EXPECT_EQ(OSSpecific::SpawnProcessIn(actProgram, "zero", {}, {}, longTime, 3, &output), 0);
    EXPECT_GT(BlocksTakenInChildren(), 0) << "the count counts nothing";
}

TEST_F(SpawnMemory, ThatRunsOutInTheParentLosesNoDescriptorAndNoOtherMemory)
{
    const std::string longText(100, 'x');
    for (const Function function : bothFunctions) {
        const auto before = OpenDescriptors();
        bool ranOut = true;
        int thrown = 0;
        for (long count = 0; ranOut; ++count) {
            const Texts acts{"out", longText};
            std::string output;
            const long live = LiveBlocks();
            int result = 0;
            bool threw = false;
            FailAllocationAfter(count);
            try {
                result = function == Function::Basic
                             ? OSSpecific::SpawnProcess(actProgram, acts, &output, longTime)
                             : OSSpecific::SpawnProcessIn(actProgram, longText, acts, acts, longTime, 1, &output);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            ranOut = StopFailingAllocations();
            thrown += threw ? 1 : 0;
            EXPECT_EQ(threw, ranOut) << count;
            EXPECT_EQ(result, 0) << count;
            std::string().swap(output);
            EXPECT_EQ(LiveBlocks(), live) << count;
            // At most the one that was running when the output could not be stored.
            waitpid(-1, nullptr, 0);
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        }
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_GE(thrown, 4) << "too few allocations were made to fail";
    }
}

TEST_F(SpawnMemory, ThatRunsOutInTheChildNeverLetsItReturnToTheCaller)
{
    for (const int tryflag : {1, 2}) {
        bool ranOut = true;
        int failures = 0;
        for (long count = 0; ranOut; ++count) {
            const pid_t caller = getpid();
            std::string output;
            LogRecorder log;
            FailAllocationInChildAfter(count);
            int result = -2;
            try {
                result =
                    OSSpecific::SpawnProcessIn(actProgram, "zero", {"exit", "0"}, {"A=1"}, longTime, tryflag, &output);
            } catch (...) {
            }
            if (getpid() != caller) {
                _exit(97);
            }
            ranOut = StopFailingAllocations();
            failures += ranOut ? 1 : 0;
            EXPECT_TRUE(result == 0 || result == 255) << result;
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        }
        EXPECT_GE(failures, 2);
    }
}

// ---- Killing.

TEST_F(TerminateFaults, LogsThenSignalsThenRunsTheShellWhateverComesOfIt)
{
    for (const int answer : {0, -1}) {
        std::vector<std::string> steps;
        hooks.kill = [&](pid_t process, int number) {
            steps.push_back("kill " + std::to_string(process) + " " + std::to_string(number));
            return answer;
        };
        hooks.system = [&](const char* command) {
            steps.push_back(command);
            return answer;
        };
        LogRecorder log;
        OSSpecific::TerminateProcess(2147483647);
        EXPECT_EQ(steps, (Texts{"kill 2147483647 9", "kill -9 2147483647 >/dev/null 2>&1"}));
        EXPECT_EQ(log.Own(), LogLines{"3|killing process.. ID = 2147483647"});
    }
}

TEST_F(TerminateFaults, TakesTheIdAsItStands)
{
    // No process or group has any of these, should the hooks ever not be called.
    constexpr int highest = std::numeric_limits<int>::max();
    for (const int id : {highest, highest - 1, -highest, -highest - 1}) {
        pid_t signalled = 1;
        std::string command;
        hooks.kill = [&](pid_t process, int) {
            signalled = process;
            return 0;
        };
        hooks.system = [&](const char* text) {
            command = text;
            return 0;
        };
        LogRecorder log;
        OSSpecific::TerminateProcess(id);
        EXPECT_EQ(signalled, id);
        EXPECT_EQ(command, "kill -9 " + std::to_string(id) + " >/dev/null 2>&1");
        EXPECT_EQ(log.Own(), LogLines{"3|killing process.. ID = " + std::to_string(id)});
    }
}

// ---- Ports.

namespace {

/** Records every bind and answers it. */
struct Binds {
    std::vector<int> ports;
    std::vector<int> closed;

    explicit Binds(int descriptor, const std::function<bool(int)>& succeeds)
    {
        hooks.socket = [descriptor](int domain, int type, int protocol) {
            EXPECT_EQ(domain, AF_INET);
            EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_STREAM);
            EXPECT_EQ(protocol, 0);
            return descriptor;
        };
        hooks.setsockopt = [](int, int, int, const void*, socklen_t) {
            ADD_FAILURE() << "a socket option was set";
            return -1;
        };
        hooks.close = [this](int number) {
            closed.push_back(number);
            return 0;
        };
        hooks.bind = [this, descriptor, succeeds](int socket, const sockaddr* address, socklen_t length) {
            sockaddr_in expected{};
            expected.sin_family = AF_INET;
            expected.sin_addr.s_addr = htonl(0x7F010203);
            EXPECT_EQ(socket, descriptor);
            EXPECT_EQ(length, sizeof expected);
            expected.sin_port = reinterpret_cast<const sockaddr_in*>(address)->sin_port;
            EXPECT_EQ(std::memcmp(address, &expected, sizeof expected), 0);
            ports.push_back(ntohs(expected.sin_port));
            errno = descriptor < 0 ? EBADF : EADDRINUSE;
            return succeeds(ports.back()) ? 0 : -1;
        };
    }
};

std::vector<int> WholeSearch()
{
    std::vector<int> ports{5988};
    for (int port = 65535; port >= 1024; --port) {
        ports.push_back(port);
    }
    return ports;
}

}  // namespace

TEST_F(PortFaults, TheSearchTries5988AndThenAllFrom65535DownTo1024OnOneSocketAndLeavesItOpen)
{
    const Binds binds(77, [](int) { return false; });
    EXPECT_EQ(OSSpecific::GetAvailablePort("127.1.2.3"), 65535);
    hooks = Hooks();
    EXPECT_EQ(binds.ports.size(), 64513U);
    EXPECT_EQ(binds.ports, WholeSearch());
    EXPECT_EQ(std::count(binds.ports.begin(), binds.ports.end(), 5988), 2);
    EXPECT_EQ(binds.closed, std::vector<int>());
}

TEST_F(PortFaults, ASocketThatCannotBeMadeIsNotNoticedAndNothingIsClosed)
{
    const Binds binds(-1, [](int) { return false; });
    EXPECT_EQ(OSSpecific::GetAvailablePort("127.1.2.3"), 65535);
    hooks = Hooks();
    EXPECT_EQ(binds.ports, WholeSearch());
    EXPECT_EQ(binds.closed, std::vector<int>());
}

TEST_F(PortFaults, TheFirstPortThatBindsEndsTheSearchAndTheSocketIsClosed)
{
    for (const int free : {5988, 65535, 40000, 1024}) {
        const Binds binds(77, [free](int port) { return port == free; });
        EXPECT_EQ(OSSpecific::GetAvailablePort("127.1.2.3"), free);
        hooks = Hooks();
        EXPECT_EQ(binds.ports.back(), free);
        EXPECT_EQ(binds.ports.size(), free == 5988 ? 1U : static_cast<std::size_t>(65535 - free + 2));
        EXPECT_EQ(binds.closed, std::vector<int>{77});
    }
}

TEST_F(PortFaults, APortThatIsFreeOnTheSecondLookIsTaken)
{
    int looks = 0;
    const Binds binds(77, [&looks](int port) { return port == 5988 && ++looks == 2; });
    LogRecorder log;
    EXPECT_EQ(OSSpecific::GetAvailablePort("127.1.2.3"), 5988);
    hooks = Hooks();
    EXPECT_EQ(log.Own(), (LogLines{"3|Can not bind to port 5988, try others", "3|Assign port to 5988"}));
}
