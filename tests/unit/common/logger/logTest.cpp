#include "common/logger/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/logger/logLine.h"
#include "support/groupingLocale.h"

namespace {

using Zendra::Log;
using Lines = std::vector<std::string>;

// In this process

struct Message {
    unsigned level;
    std::string file;
    int line;
    std::string text;
};

thread_local std::vector<Message> received;

void Receive(unsigned level, const char* file, int line, const std::string& message)
{
    received.push_back({level, file, line, message});
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        received.clear();
        Log::SetSink(Receive);
    }
    void TearDown() override
    {
        Log::SetMinLogLevel(0);
        Log::SetSink(nullptr);
    }
};

TEST_F(LogTest, LevelIsZeroUntilItIsSet)
{
    EXPECT_EQ(0U, Log::GetMinLogLevel());
    for (const unsigned level : {4U, 1U, 3U, 4294967295U, 0U}) {
        Log::SetMinLogLevel(level);
        EXPECT_EQ(level, Log::GetMinLogLevel());
    }
}

TEST_F(LogTest, LevelIsOneForAllThreads)
{
    Log::SetMinLogLevel(3);
    unsigned seen = 0;
    std::thread([&seen] { seen = Log::GetMinLogLevel(); }).join();
    EXPECT_EQ(3U, seen);
}

TEST_F(LogTest, MessageReachesTheSinkWhenItIsDestroyed)
{
    {
        Log message(3, "src/some.cpp", 42);
        message.Stream() << "text " << 7;
        EXPECT_TRUE(received.empty());
        message.Stream() << " and more";
    }
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ(3U, received[0].level);
    EXPECT_EQ("src/some.cpp", received[0].file);
    EXPECT_EQ(42, received[0].line);
    EXPECT_EQ("text 7 and more", received[0].text);
}

TEST_F(LogTest, MessageThatWasMadeIsEmittedWhateverTheLevel)
{
    Log::SetMinLogLevel(0);
    Log(4, "f", 1).Stream() << "emitted";
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ("emitted", received[0].text);
}

TEST_F(LogTest, MessageWithoutTextIsEmittedEmpty)
{
    Log(1, "f", 1);
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ("", received[0].text);
}

TEST_F(LogTest, SinkSeesEveryByte)
{
    const std::string text("a\0b\nc\r\xff\x80", 8);
    Log(1, "f", 1).Stream() << text;
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ(text, received[0].text);
}

TEST_F(LogTest, LastSinkSetReceives)
{
    Log::SetSink([](unsigned level, const char* file, int line, const std::string& message) {
        Receive(level + 100, file, line, message);
    });
    Log(1, "f", 1).Stream() << "x";
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ(101U, received[0].level);
}

TEST_F(LogTest, WhatASinkThrowsIsSwallowed)
{
    Log::SetSink([](unsigned, const char*, int, const std::string&) { throw std::runtime_error("full"); });
    EXPECT_NO_THROW(Log(1, "f", 1).Stream() << "x");
    Log::SetSink([](unsigned, const char*, int, const std::string&) { throw 42; });
    EXPECT_NO_THROW(Log(1, "f", 1).Stream() << "x");
    Log::SetSink(Receive);
    Log(1, "f", 1).Stream() << "next";
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ("next", received[0].text);
}

TEST_F(LogTest, NumbersAreWrittenPlainInAThousandsGroupingLocale)
{
    const ZendraTest::GroupingLocale locale;
    Log(1, "f", 1).Stream() << 1234567 << ' ' << 65535U << ' ' << -1234567L << ' ' << 1234.5;
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ("1234567 65535 -1234567 1234.5", received[0].text);
}

TEST_F(LogTest, IsNotCopyable)
{
    EXPECT_FALSE(std::is_copy_constructible<Log>::value);
    EXPECT_FALSE(std::is_copy_assignable<Log>::value);
}

TEST_F(LogTest, MacroTestsTheLevelBeforeItComposesAnything)
{
    int composed = 0;
    const auto compose = [&composed] {
        ++composed;
        return "text";
    };
    const struct {
        unsigned minimum;
        unsigned level;
        bool written;
    } cases[] = {{0, 1, false}, {0, 4, false}, {1, 1, true}, {1, 3, false}, {1, 4, false},
                 {3, 3, true},  {3, 4, false}, {4, 1, true}, {4, 3, true},  {4, 4, true}};
    for (const auto& one : cases) {
        composed = 0;
        received.clear();
        Log::SetMinLogLevel(one.minimum);
        ZENDRA_LOG(one.level, "a " << compose());
        EXPECT_EQ(one.written ? 1 : 0, composed) << one.minimum << " " << one.level;
        ASSERT_EQ(one.written ? 1U : 0U, received.size());
        if (one.written) {
            EXPECT_EQ(one.level, received[0].level);
            EXPECT_EQ("a text", received[0].text);
            EXPECT_EQ("tests/unit/common/logger/logTest.cpp", received[0].file);
        }
    }
}

TEST_F(LogTest, MacroIsOneStatement)
{
    Log::SetMinLogLevel(4);
    bool otherwise = false;
    if (received.size() == 1) {
        ZENDRA_LOG(4, "not here");
    } else {
        otherwise = true;
    }
    for (int i = 0; i < 2; ++i)
        ZENDRA_LOG(4, i);
    EXPECT_TRUE(otherwise);
    ASSERT_EQ(2U, received.size());
    EXPECT_EQ("1", received[1].text);
}

// The default sink, watched from outside the process

/** An empty file, for the time of a test. */
struct TemporaryFile {
    TemporaryFile()
    {
        const int file = mkstemp(path);
        EXPECT_GE(file, 0);
        close(file);
    }
    ~TemporaryFile() { unlink(path); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string Contents() const
    {
        std::ifstream stream(path);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    char path[24] = "/tmp/zendra-log-XXXXXX";
};

/** Runs the child program with its standard error on a socket that keeps each write() apart. */
class DefaultSink : public ::testing::Test {
protected:
    struct Result {
        int status = -1;
        Lines writes;
        std::string output;
    };

    static std::string ReadAll(int descriptor)
    {
        std::string all;
        std::array<char, 65536> part{};
        ssize_t got = 0;
        while ((got = read(descriptor, part.data(), part.size())) > 0) {
            all.append(part.data(), static_cast<std::size_t>(got));
        }
        return all;
    }

    static Result Run(const std::string& deed, const std::string& argument = "")
    {
        int errors[2];
        int output[2];
        Result result;
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, errors) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            ADD_FAILURE() << std::strerror(errno);
            return result;
        }
        const pid_t child = Start(deed, argument, errors[1], output[1]);
        close(errors[1]);
        close(output[1]);
        std::vector<char> packet(1 << 20);
        ssize_t got = 0;
        while ((got = recv(errors[0], packet.data(), packet.size(), 0)) > 0) {
            result.writes.emplace_back(packet.data(), static_cast<std::size_t>(got));
        }
        result.output = ReadAll(output[0]);
        close(errors[0]);
        close(output[0]);
        result.status = Wait(child);
        return result;
    }

    /** Starts the child with these as descriptors 2 and 1; a negative one is closed. */
    static pid_t Start(const std::string& deed, const std::string& argument, int errors, int output)
    {
        const pid_t child = fork();
        if (child == 0) {
            if (output >= 0) {
                dup2(output, STDOUT_FILENO);
            }
            if (errors >= 0) {
                dup2(errors, STDERR_FILENO);
            } else {
                close(STDERR_FILENO);
            }
            // Whatever this process inherited from its own parent must not blur the picture.
            for (int inherited = 3; inherited < 256; ++inherited) {
                fcntl(inherited, F_SETFD, FD_CLOEXEC);
            }
            execl(LOG_CHILD, LOG_CHILD, deed.c_str(), argument.c_str(), static_cast<char*>(nullptr));
            _exit(98);
        }
        return child;
    }

    static int Wait(pid_t child)
    {
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
};

TEST_F(DefaultSink, WritesEachMessageWithOneWrite)
{
    const Result result = Run("plain");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ((Lines{"[4] src/child.cpp:7 first\n", "[4] src/child.cpp:7 second\n"}), result.writes);
    EXPECT_EQ("", result.output);
}

TEST_F(DefaultSink, WritesLevelFileAndLine)
{
    const Result result = Run("numbers");
    EXPECT_EQ(
        (Lines{"[1] src/one.cpp:1234567 one\n", "[3] src/three.cpp:3 three\n", "[4294967295] src/max.cpp:1 max\n"}),
        result.writes);
}

TEST_F(DefaultSink, OddTextsAreOneWriteEachWithEveryByteAndOneLineEnd)
{
    const Result result = Run("oddTexts");
    EXPECT_EQ(0, result.status);
    const std::string begin = "[4] src/child.cpp:7 ";
    EXPECT_EQ(
        (Lines{begin + "\n", begin + std::string("a\0b\n", 4), begin + "two\nlines\n", begin + "ends with a line end\n",
               begin + "\xff\x80\x1b[0m\n", begin + std::string(100000, 'x') + "\n"}),
        result.writes);
}

TEST_F(DefaultSink, FollowsTheProgramsRedirection)
{
    const TemporaryFile file;
    const Result result = Run("redirected", file.path);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(Lines{}, result.writes);
    EXPECT_EQ("[4] src/child.cpp:7 to the new standard error\n", file.Contents());
}

TEST_F(DefaultSink, KeepsNoDescriptorOfItsOwn)
{
    EXPECT_EQ("1", Run("countOwn").output);
}

TEST_F(DefaultSink, LeavesNothingOpenForAnExecutedProgram)
{
    const Result result = Run("execute", DESCRIPTOR_LISTER);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ((Lines{"[4] src/child.cpp:7 before exec\n"}), result.writes);
    EXPECT_EQ("0\n1\n2\n", result.output);
}

TEST_F(DefaultSink, ProcessStartedWithoutStandardErrorWritesIntoNoOtherFile)
{
    const TemporaryFile file;
    EXPECT_EQ(0, Wait(Start("closedAndReused", file.path, -1, -1)));
    EXPECT_EQ("", file.Contents());
}

TEST_F(DefaultSink, WritesIntoNoCloseOnExecFileThatTookTheNumberOfStandardError)
{
    const TemporaryFile file;
    const Result result = Run("closedLater", file.path);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(Lines{}, result.writes);
    EXPECT_EQ("", file.Contents());
}

TEST_F(DefaultSink, IsRestoredByANullSink)
{
    EXPECT_EQ((Lines{"[4] src/child.cpp:7 to standard error\n"}), Run("sinkAndBack").writes);
}

TEST_F(DefaultSink, LeavesErrnoAsItWas)
{
    EXPECT_EQ(0, Run("keepsErrno").status);
    EXPECT_EQ(0, Wait(Start("keepsErrno", "", -1, -1)));
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);  // every write to it fails
    ASSERT_GE(full, 0);
    EXPECT_EQ(0, Wait(Start("keepsErrno", "", full, -1)));
    close(full);
}

TEST_F(DefaultSink, WritesInProcessesThatAreEnding)
{
    const Result result = Run("lateMessage");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ((Lines{"[4] src/child.cpp:7 after main\n"}), result.writes);
}

TEST_F(DefaultSink, LosesTheMessageWhenNobodyReads)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    close(ends[0]);
    struct sigaction ignore {};
    struct sigaction before {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    const pid_t child = Start("brokenStandardError", "", ends[1], -1);
    sigaction(SIGPIPE, &before, nullptr);
    close(ends[1]);
    EXPECT_EQ(0, Wait(child));
}

TEST_F(DefaultSink, MessagesOfFourThreadsStayWholeLines)
{
    int errors[2];
    ASSERT_EQ(0, pipe2(errors, O_CLOEXEC));
    const pid_t child = Start("fourThreads", "", errors[1], -1);
    close(errors[1]);
    const std::string all = ReadAll(errors[0]);
    close(errors[0]);
    EXPECT_EQ(0, Wait(child));

    std::map<int, int> next;
    int lines = 0;
    std::size_t begin = 0;
    while (begin < all.size()) {
        const std::size_t end = all.find('\n', begin);
        ASSERT_NE(std::string::npos, end);
        const std::string line = all.substr(begin, end - begin);
        begin = end + 1;
        ++lines;
        int thread = -1;
        int fromText = -1;
        int message = -1;
        ASSERT_EQ(3, std::sscanf(line.c_str(), "[4] src/thread.cpp:%d begin %d %d ", &thread, &fromText, &message))
            << line;
        EXPECT_EQ(thread, fromText);
        EXPECT_EQ(next[thread]++, message) << "thread " << thread;
        const std::string expected = "[4] src/thread.cpp:" + std::to_string(thread) + " begin " +
                                     std::to_string(thread) + " " + std::to_string(message) + " " +
                                     std::string(static_cast<std::size_t>(150 + message % 50), 'x') + " end";
        EXPECT_EQ(expected, line);
    }
    EXPECT_EQ(2000, lines);
}

}  // namespace
