#include "common/osspecific/osspecific_lin.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

using Texts = std::vector<std::string>;

constexpr int longTime = 360;

const std::string openingOne = "4|tryflag == 1, OSSpecific::SpawnProcess calling ";
const std::string openingTwo = "4|tryflag == 2, OSSpecific::SpawnProcess calling ";
const std::string enterParent = "4|Enter else for pid == 0! ";
const std::string enterChild = "4|Enter pid == 0! ";

std::string ProcessLine()
{
    return "3|SpawnProcess: process " + actProgram + "\n";
}

std::string Chunk(const std::string& soFar, const std::string& chunk)
{
    return "4|*output_ptr == " + soFar + ", appended buffer == " + chunk;
}

/** SpawnProcessIn with what most tests have in common; argv[0] is "zero". */
int SpawnIn(const std::string& exePath, const Texts& params, std::string& output, int tryflag = 1,
            const Texts& envVars = {}, int timeout = longTime)
{
    return OSSpecific::SpawnProcessIn(exePath, "zero", params, envVars, timeout, tryflag, &output);
}

int Act(const Texts& acts, std::string& output, int timeout = longTime)
{
    return OSSpecific::SpawnProcess(actProgram, acts, &output, timeout);
}

/** The lines of describe's output with one of its words in front. */
Texts Described(const std::string& output, const std::string& word)
{
    Texts lines;
    std::size_t start = 0;
    std::size_t end;
    while ((end = output.find('\n', start)) != std::string::npos) {
        const std::string line = output.substr(start, end - start);
        if (line.rfind(word + " ", 0) == 0) {
            lines.push_back(line.substr(word.size() + 1));
        }
        start = end + 1;
    }
    return lines;
}

Texts Arguments(const std::string& output)
{
    return Described(output, "arg");
}

bool Contains(const Texts& texts, const std::string& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

/** Waits for any child of this process: its status word, or -1 when there is none. */
int ReapOne()
{
    int status = 0;
    return waitpid(-1, &status, 0) > 0 ? status : -1;
}

/** A child that is silent until told otherwise, and then writes again. */
class SilentChild {
public:
    SilentChild() { EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0); }

    Texts Acts() const { return {"out", "early", "await", fifo, "out", "late", "exit", "0"}; }

    /** Lets it go on and tells how it ends. The named pipe opens once the child has opened it too. */
    int EndStatus() const
    {
        close(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));
        return ReapOne();
    }

    const std::string& Fifo() const { return fifo; }

private:
    TemporaryDirectory directory;
    std::string fifo = directory / "fifo";
};

void ExpectDeathBySigpipe(int status)
{
    ASSERT_NE(status, -1) << "the child had been reaped";
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGPIPE);
}

}  // namespace

// ---- The basic overload.

TEST(BasicSpawn, CapturesBothStandardOutputAndStandardErrorAsWritten)
{
    std::string output;
    EXPECT_EQ(Act({"out", "one", "err", "two", "out", "three"}, output), 0);
    EXPECT_EQ(output, "onetwothree");
}

TEST(BasicSpawn, AppendsToWhatTheStringHolds)
{
    std::string output = "before:";
    EXPECT_EQ(Act({"out", "after"}, output), 0);
    EXPECT_EQ(output, "before:after");
}

TEST(BasicSpawn, PassesItsPathAsArgv0AndTheParametersInOrder)
{
    std::string output;
    EXPECT_EQ(OSSpecific::SpawnProcess(describeProgram, {"a", "", "b c", "*\n$HOME\""}, &output, longTime), 0);
    EXPECT_NE(output.find("arg <" + describeProgram + ">\narg <a>\narg <>\narg <b c>\narg <*\n$HOME\">\nenv "),
              std::string::npos)
        << output;
}

TEST(BasicSpawn, SearchesPathAndInheritsTheEnvironment)
{
    RunIsolated([] {
        setenv("PATH", ("/nowhere:" + childDirectory).c_str(), 1);
        setenv("OSSPECIFIC_MARK", "inherited", 1);
        std::string output;
        EXPECT_EQ(OSSpecific::SpawnProcess("describe", {}, &output, longTime), 0);
        EXPECT_EQ(Arguments(output), Texts{"<describe>"});
        EXPECT_TRUE(Contains(Described(output, "env"), "<OSSPECIFIC_MARK=inherited>"));
    });
}

TEST(BasicSpawn, LogsItsOpeningMessageOnlyAndNothingInTheChild)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(Act({"out", "text"}, output), 0);
        },
        {ProcessLine()});
}

TEST(BasicSpawn, OfANonZeroExitCodeIsMinusOneWithoutAMessage)
{
    for (const char* code : {"1", "2", "127", "255"}) {
        ExpectLog(
            [&] {
                std::string output;
                EXPECT_EQ(Act({"out", "text", "exit", code}, output), -1);
                EXPECT_EQ(output, "text");
            },
            {ProcessLine()});
    }
}

TEST(BasicSpawn, OfADeathBySignalIsMinusOneAndKeepsTheOutput)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(Act({"out", "text", "signal", "9"}, output), -1);
            EXPECT_EQ(output, "text");
        },
        {ProcessLine(), "1|SpawnProcess - Child process exited abnormally!\n"});
}

TEST(BasicSpawn, OfAProgramThatCannotBeExecutedIsMinusOneWithoutAnyOutput)
{
    for (const std::string& program : Texts{"/nonexistent/program", "no-such-program", "", "/", "/etc/passwd"}) {
        ExpectLog(
            [&] {
                std::string output;
                EXPECT_EQ(OSSpecific::SpawnProcess(program, {"x"}, &output, longTime), -1);
                EXPECT_EQ(output, "");
            },
            {"3|SpawnProcess: process " + program + "\n"});
    }
}

TEST(BasicSpawn, LosesTheRestOfAChunkBehindANulByte)
{
    std::string output;
    EXPECT_EQ(Act({"outz", "kept@lost@lost"}, output), 0);
    EXPECT_EQ(output, "kept");
}

TEST(BasicSpawn, OfASilentProgramTimesOutAfterItsTimeAndNeitherKillsNorReapsIt)
{
    RunIsolated([] {
        const auto descriptors = OpenDescriptors();
        for (const unsigned level : {4U, 1U, 0U}) {
            const SilentChild child;
            LogRecorder log(level);
            std::string output;
            EXPECT_EQ(Act(child.Acts(), output, 1), -1);
            EXPECT_EQ(output, "early");
            EXPECT_EQ(log.Own(), UpTo(level, {ProcessLine(), "1|SpawnProcess - " + actProgram + " TimeOut! \n"}));
            EXPECT_EQ(log.OfChildren(), LogLines());
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "it is to be alive";
            ExpectDeathBySigpipe(child.EndStatus());
        }
        EXPECT_EQ(OpenDescriptors(), descriptors);
    });
}

TEST(BasicSpawn, WithATimeoutOfZeroTimesOutAtOnceOnASilentProgram)
{
    RunIsolated([] {
        const SilentChild child;
        std::string output;
        EXPECT_EQ(OSSpecific::SpawnProcess(actProgram, {"await", child.Fifo()}, &output, 0), -1);
        const int status = child.EndStatus();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    });
}

TEST(BasicSpawn, BoundsEachWaitAndNotTheWholeRun)
{
    std::string output;
    EXPECT_EQ(Act({"out", "1", "pause", "1000", "out", "2", "pause", "1000", "out", "3", "pause", "1000", "out", "4",
                   "pause", "1000", "out", "5"},
                  output, 3),
              0);
    EXPECT_EQ(output, "12345");
}

TEST(BasicSpawn, WithATimeoutOfMinusOneWaitsWithoutLimit)
{
    std::string output;
    EXPECT_EQ(Act({"pause", "300", "out", "text"}, output, -1), 0);
    EXPECT_EQ(output, "text");
}

TEST(BasicSpawn, WithAnotherNegativeTimeoutFailsInSelectAndLeavesTheChild)
{
    RunIsolated([] {
        const auto descriptors = OpenDescriptors();
        for (const unsigned level : {4U, 1U, 0U}) {
            LogRecorder log(level);
            std::string output;
            EXPECT_EQ(Act({"pause", "50"}, output, -2), -1);
            EXPECT_EQ(output, "");
            EXPECT_EQ(log.Own(), UpTo(level, {ProcessLine(), "1|SpawnProcess - select call failed! \n"}));
            EXPECT_EQ(ReapOne(), 0) << "the child runs to its end and is the caller's to reap";
        }
        EXPECT_EQ(OpenDescriptors(), descriptors);
    });
}

TEST(BasicSpawn, UnderAnIgnoredSigchldFailsInTheWait)
{
    RunIsolated([] {
        ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
        ExpectLog(
            [] {
                std::string output;
                EXPECT_EQ(Act({"out", "text"}, output), -1);
                EXPECT_EQ(output, "text");
            },
            {ProcessLine(), "1|SpawnProcess - waitpid call failed! \n"});
    });
}

TEST(BasicSpawn, WaitsForAProgramThatHasClosedItsOutputEarly)
{
    const TemporaryDirectory directory;
    std::string output;
    EXPECT_EQ(Act({"out", "text", "closeout", "pause", "300", "save", directory / "file", "done"}, output, 1), 0);
    EXPECT_EQ(output, "text");
    EXPECT_EQ(ReadFile(directory / "file"), "done");
}

TEST(BasicSpawn, HasNoLimitForAProgramThatHasClosedItsOutput)
{
    std::string output;
    EXPECT_EQ(Act({"closeout", "pause", "1500"}, output, 1), 0);
}

TEST(BasicSpawn, Captures64MebibytesWhole)
{
    constexpr std::size_t size = std::size_t{64} << 20;
    std::string output;
    ASSERT_EQ(Act({"fill", std::to_string(size)}, output), 0);
    ASSERT_EQ(output.size(), size);
    // The letters start afresh with every piece of the child, which is a whole number of alphabets.
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < size; ++i) {
        wrong += output[i] != static_cast<char>('a' + i % 26);
    }
    EXPECT_EQ(wrong, 0U);
}

// ---- The one-string overload.

TEST(CommandLine, OfAProgramOneBlankAndOnePathRunsItWithThatArgument)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "contents");
    std::string output;
    EXPECT_EQ(OSSpecific::SpawnProcess("cat " + (directory / "file"), &output, longTime), 0);
    EXPECT_EQ(output, "contents");
}

TEST(CommandLine, IsSplitAtEverySingleBlankAndNowhereElse)
{
    const std::vector<std::pair<std::string, Texts>> cases{
        {"", {}},
        {" a", {"<a>"}},
        {"  -x", {"<>", "<-x>"}},
        {" ", {"<>"}},
        {" a ", {"<a>", "<>"}},
        {"   ", {"<>", "<>", "<>"}},
        {" a b  c", {"<a>", "<b>", "<>", "<c>"}},
        {" \ta 'b c' \"d\" \\ e", {"<\ta>", "<'b>", "<c'>", "<\"d\">", "<\\>", "<e>"}},
    };
    for (const auto& [rest, params] : cases) {
        std::string output;
        EXPECT_EQ(OSSpecific::SpawnProcess(describeProgram + rest, &output, longTime), 0);
        Texts expected{"<" + describeProgram + ">"};
        expected.insert(expected.end(), params.begin(), params.end());
        EXPECT_EQ(Arguments(output), expected) << "for \"" << rest << "\"";
    }
}

TEST(CommandLine, ThatStartsWithABlankHasAnEmptyProgramName)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(OSSpecific::SpawnProcess(" cat", &output, longTime), -1);
            EXPECT_EQ(OSSpecific::SpawnProcess("", &output, longTime), -1);
        },
        {"3|SpawnProcess: process \n", "3|SpawnProcess: process \n"});
}

TEST(CommandLine, HandsOnResultOutputAndTimeout)
{
    std::string output = "before:";
    EXPECT_EQ(OSSpecific::SpawnProcess(actProgram + " out text exit 3", &output, longTime), -1);
    EXPECT_EQ(output, "before:text");
    RunIsolated([] {
        std::string silent;
        EXPECT_EQ(OSSpecific::SpawnProcess(actProgram + " pause 50", &silent, -2), -1);
        EXPECT_EQ(ReapOne(), 0);
    });
}

// ---- SpawnProcessIn.

TEST(SpawnIn, LogsEveryStepOfATryWithExecvp)
{
    ExpectLog(
        [] {
            std::string output = "before:";
            EXPECT_EQ(SpawnIn(actProgram, {"out", "text"}, output), 0);
            EXPECT_EQ(output, "before:text");
        },
        {openingOne + actProgram + "\nwith parameters: zero out text \nwith environment vars: ", enterParent,
         Chunk("before:", "text"), Chunk("before:text", ""), "3|SpawnProcess - Child process exited code = 0",
         "3|SpawnProcess() zero Returned:before:text"},
        {enterChild, "4|execvp calling, exe_path == " + actProgram});
}

TEST(SpawnIn, LogsEveryStepOfATryWithExecveAndTheEnvironmentInTheChildOnly)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(SpawnIn(actProgram, {"out", "text"}, output, 2, {"A=1", "", "B=two words"}), 0);
        },
        {openingTwo + actProgram + "\nwith parameters: zero out text \nwith environment vars: ", enterParent,
         Chunk("", "text"), Chunk("text", ""), "3|SpawnProcess - Child process exited code = 0",
         "3|SpawnProcess() zero Returned:text"},
        {enterChild, "4|envc=4", "4|envp[0]=A=1", "4|envp[1]=", "4|envp[2]=B=two words",
         "4|execve calling, exe_path == " + actProgram});
}

TEST(SpawnIn, WithAnEmptyEnvironmentCountsTheTerminatingNull)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(SpawnIn(actProgram, {}, output, 2), 0);
        },
        {openingTwo + actProgram + "\nwith parameters: zero \nwith environment vars: ", enterParent, Chunk("", ""),
         "3|SpawnProcess - Child process exited code = 0", "3|SpawnProcess() zero Returned:"},
        {enterChild, "4|envc=1", "4|execve calling, exe_path == " + actProgram});
}

TEST(SpawnIn, WithAnyOtherTryflagRunsNothingAndReturnsZero)
{
    const TemporaryDirectory directory;
    for (const int tryflag : {3, 0, -1, 100}) {
        ExpectLog(
            [&] {
                std::string output;
                EXPECT_EQ(SpawnIn(actProgram, {"mark", directory / "ran"}, output, tryflag, {"A=1"}), 0);
            },
            {"4|OSSpecific::SpawnProcess calling " + actProgram + "\nwith parameters: zero mark " +
                 (directory / "ran") + " \nwith environment vars: ",
             enterParent, Chunk("", ""), "3|SpawnProcess - Child process exited code = 0",
             "3|SpawnProcess() zero Returned:"},
            {enterChild, "4|tryflag == unexpected: " + std::to_string(tryflag)});
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "ran"));
}

TEST(SpawnIn, PassesArg0InPlaceOfThePath)
{
    for (const int tryflag : {1, 2}) {
        std::string output;
        EXPECT_EQ(SpawnIn(describeProgram, {"a", "", "b c"}, output, tryflag), 0);
        EXPECT_EQ(Arguments(output), (Texts{"<zero>", "<a>", "<>", "<b c>"}));
    }
}

TEST(SpawnIn, PassesExactlyTheGivenEnvironmentInTheSecondTryOnly)
{
    RunIsolated([] {
        setenv("OSSPECIFIC_MARK", "inherited", 1);
        const Texts environment{"Z=last letter first", "A=", "no equals sign", "A=twice"};
        std::string output;
        EXPECT_EQ(SpawnIn(describeProgram, {}, output, 2, environment), 0);
        EXPECT_EQ(Described(output, "env"), (Texts{"<Z=last letter first>", "<A=>", "<no equals sign>", "<A=twice>"}));
        output.clear();
        EXPECT_EQ(SpawnIn(describeProgram, {}, output, 1, environment), 0);
        EXPECT_TRUE(Contains(Described(output, "env"), "<OSSPECIFIC_MARK=inherited>"));
        EXPECT_FALSE(Contains(Described(output, "env"), "<A=>"));
    });
}

TEST(SpawnIn, SearchesPathInTheFirstTryOnly)
{
    RunIsolated([] {
        setenv("PATH", childDirectory.c_str(), 1);
        std::string output;
        EXPECT_EQ(SpawnIn("act", {"out", "text"}, output, 1), 0);
        EXPECT_EQ(output, "text");
        output.clear();
        EXPECT_EQ(SpawnIn("act", {"out", "text"}, output, 2, {"PATH=" + childDirectory}), 255);
        EXPECT_EQ(output, "execve error!: No such file or directory\n");
    });
}

TEST(SpawnIn, OfAFailedExecvpIs255WithTheReasonInOutputAndLog)
{
    const std::string reason = "execve error!: No such file or directory\n";
    ExpectLog(
        [&] {
            std::string output;
            EXPECT_EQ(SpawnIn("/nonexistent/program", {"a"}, output), 255);
            EXPECT_EQ(output, reason);
        },
        {openingOne + "/nonexistent/program\nwith parameters: zero a \nwith environment vars: ", enterParent,
         Chunk("", reason), Chunk(reason, ""), "3|SpawnProcess - Child process exited code = 255",
         "3|SpawnProcess() zero Returned:" + reason},
        {enterChild, "4|execvp calling, exe_path == /nonexistent/program",
         "4|execvp called, exe_path == /nonexistent/program, returned value == -1",
         "4|exec invocation failed, err msg == No such file or directory"});
}

TEST(SpawnIn, OfAFailedExecveIs255WithTheReasonInOutputAndLog)
{
    const std::string reason = "execve error!: Permission denied\n";
    ExpectLog(
        [&] {
            std::string output;
            EXPECT_EQ(SpawnIn("/etc/passwd", {}, output, 2, {"A=1"}), 255);
            EXPECT_EQ(output, reason);
        },
        {openingTwo + "/etc/passwd\nwith parameters: zero \nwith environment vars: ", enterParent, Chunk("", reason),
         Chunk(reason, ""), "3|SpawnProcess - Child process exited code = 255",
         "3|SpawnProcess() zero Returned:" + reason},
        {enterChild, "4|envc=2", "4|envp[0]=A=1", "4|execve calling, exe_path == /etc/passwd",
         "4|execve called, exe_path == /etc/passwd, returned value == -1",
         "4|exec invocation failed, err msg == Permission denied"});
}

TEST(SpawnIn, ReturnsTheExitCodeItself)
{
    for (const int code : {0, 1, 2, 127, 128, 254, 255}) {
        ExpectLog(
            [&] {
                std::string output;
                EXPECT_EQ(SpawnIn(actProgram, {"exit", std::to_string(code)}, output), code);
            },
            {openingOne + actProgram + "\nwith parameters: zero exit " + std::to_string(code) +
                 " \nwith environment vars: ",
             enterParent, Chunk("", ""), "3|SpawnProcess - Child process exited code = " + std::to_string(code),
             "3|SpawnProcess() zero Returned:"},
            {enterChild, "4|execvp calling, exe_path == " + actProgram});
    }
}

TEST(SpawnIn, OfADeathBySignalIsMinusOneAndKeepsTheOutput)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(SpawnIn(actProgram, {"err", "text", "signal", "15"}, output), -1);
            EXPECT_EQ(output, "text");
        },
        {openingOne + actProgram + "\nwith parameters: zero err text signal 15 \nwith environment vars: ", enterParent,
         Chunk("", "text"), Chunk("text", ""), "1|SpawnProcess - Child process exited abnormally!",
         "3|SpawnProcess() zero Returned:text"},
        {enterChild, "4|execvp calling, exe_path == " + actProgram});
}

TEST(SpawnIn, LosesTheRestOfAChunkBehindANulByteInLogAndOutput)
{
    ExpectLog(
        [] {
            std::string output;
            EXPECT_EQ(SpawnIn(actProgram, {"outz", "kept@lost"}, output), 0);
            EXPECT_EQ(output, "kept");
        },
        {openingOne + actProgram + "\nwith parameters: zero outz kept@lost \nwith environment vars: ", enterParent,
         Chunk("", "kept"), Chunk("kept", ""), "3|SpawnProcess - Child process exited code = 0",
         "3|SpawnProcess() zero Returned:kept"},
        {enterChild, "4|execvp calling, exe_path == " + actProgram});
}

TEST(SpawnIn, OfASilentProgramTimesOutUnderItsArg0AndNeitherKillsNorReapsIt)
{
    RunIsolated([] {
        const auto descriptors = OpenDescriptors();
        for (const unsigned level : {4U, 1U, 0U}) {
            const SilentChild child;
            LogRecorder log(level);
            std::string output;
            EXPECT_EQ(SpawnIn(actProgram, child.Acts(), output, 1, {}, 1), -1);
            EXPECT_EQ(output, "early");
            EXPECT_EQ(log.Own(), UpTo(level, {openingOne + actProgram + "\nwith parameters: zero out early await " +
                                                  child.Fifo() + " out late exit 0 \nwith environment vars: ",
                                              enterParent, Chunk("", "early"), "1|SpawnProcess -zero TimeOut!",
                                              "3|SpawnProcess() zero Returned:early"}));
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "it is to be alive";
            ExpectDeathBySigpipe(child.EndStatus());
        }
        EXPECT_EQ(OpenDescriptors(), descriptors);
    });
}

TEST(SpawnIn, WithATimeoutOfZeroTimesOutAtOnceOnASilentProgram)
{
    RunIsolated([] {
        const SilentChild child;
        std::string output;
        EXPECT_EQ(SpawnIn(actProgram, {"await", child.Fifo()}, output, 1, {}, 0), -1);
        EXPECT_EQ(child.EndStatus(), 0);
    });
}

TEST(SpawnIn, WithAnyNegativeTimeoutWaitsWithoutLimit)
{
    for (const int timeout : {-1, -2, -2147483647 - 1}) {
        std::string output;
        EXPECT_EQ(SpawnIn(actProgram, {"pause", "300", "out", "text"}, output, 1, {}, timeout), 0);
        EXPECT_EQ(output, "text");
    }
}

TEST(SpawnIn, BoundsEachWaitAndNotTheWholeRun)
{
    std::string output;
    EXPECT_EQ(SpawnIn(actProgram, {"out",   "1",    "pause", "1000", "out",   "2",    "pause", "1000", "out",  "3",
                                   "pause", "1000", "out",   "4",    "pause", "1000", "out",   "5",    "exit", "7"},
                      output, 1, {}, 3),
              7);
    EXPECT_EQ(output, "12345");
}

TEST(SpawnIn, UnderAnIgnoredSigchldFailsInTheWait)
{
    RunIsolated([] {
        ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
        ExpectLog(
            [] {
                std::string output;
                EXPECT_EQ(SpawnIn(actProgram, {"out", "text"}, output), -1);
                EXPECT_EQ(output, "text");
            },
            {openingOne + actProgram + "\nwith parameters: zero out text \nwith environment vars: ", enterParent,
             Chunk("", "text"), Chunk("text", ""), "1|SpawnProcess - waitpid call failed!",
             "3|SpawnProcess() zero Returned:text"},
            {enterChild, "4|execvp calling, exe_path == " + actProgram});
    });
}

TEST(SpawnIn, WaitsForAProgramThatHasClosedItsOutputEarly)
{
    const TemporaryDirectory directory;
    std::string output;
    EXPECT_EQ(SpawnIn(actProgram,
                      {"out", "text", "closeout", "pause", "300", "save", directory / "file", "done", "exit", "4"},
                      output, 1, {}, 1),
              4);
    EXPECT_EQ(output, "text");
    EXPECT_EQ(ReadFile(directory / "file"), "done");
}

TEST(SpawnIn, Captures64MebibytesWhole)
{
    constexpr std::size_t size = std::size_t{64} << 20;
    std::string output;
    ASSERT_EQ(SpawnIn(actProgram, {"fill", std::to_string(size)}, output), 0);
    ASSERT_EQ(output.size(), size);
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < size; ++i) {
        wrong += output[i] != static_cast<char>('a' + i % 26);
    }
    EXPECT_EQ(wrong, 0U);
}

// ---- Two tries.

TEST(TwoTries, EndWithTheFirstWhenItSucceeds)
{
    const TemporaryDirectory directory;
    std::string output = "before:";
    EXPECT_EQ(OSSpecific::SpawnProcess(actProgram, "zero", {"mark", directory / "runs", "out", "text"}, {"A=1"},
                                       longTime, &output),
              0);
    EXPECT_EQ(output, "before:text");
    EXPECT_EQ(ReadFile(directory / "runs"), "x");
}

TEST(TwoTries, EndWithTheFirstWhenThereIsNoEnvironment)
{
    const TemporaryDirectory directory;
    std::string output = "before:";
    EXPECT_EQ(OSSpecific::SpawnProcess(actProgram, "zero", {"mark", directory / "runs", "out", "text", "exit", "1"}, {},
                                       longTime, &output),
              1);
    EXPECT_EQ(output, "before:text");
    EXPECT_EQ(ReadFile(directory / "runs"), "x");
}

TEST(TwoTries, RunAProgramThatFailedOnceMoreAndKeepTheSecondOutputOnly)
{
    const TemporaryDirectory directory;
    std::string output = "before:";
    EXPECT_EQ(OSSpecific::SpawnProcess(actProgram, "zero", {"mark", directory / "runs", "out", "text", "exit", "1"},
                                       {"A=1"}, longTime, &output),
              1);
    EXPECT_EQ(output, "text");
    EXPECT_EQ(ReadFile(directory / "runs"), "xx");
}

TEST(TwoTries, GiveTheEnvironmentToTheSecondOnly)
{
    RunIsolated([] {
        setenv("PATH", "/nowhere", 1);
        std::string output;
        // The first try sees the caller's PATH and finds no "sh"; the second takes the path as it stands.
        EXPECT_EQ(chdir("/bin"), 0);
        EXPECT_EQ(OSSpecific::SpawnProcess("sh", "zero", {"-c", "echo $MARK"}, {"MARK=second"}, longTime, &output), 0);
        EXPECT_EQ(output, "second\n");
    });
}

TEST(TwoTries, LogTheRetry)
{
    const std::string called = "/nonexistent\nwith parameters: zero a \nwith environment vars: ";
    const std::string reason = "execve error!: No such file or directory\n";
    const LogLines run{enterParent, Chunk("", reason), Chunk(reason, ""),
                       "3|SpawnProcess - Child process exited code = 255", "3|SpawnProcess() zero Returned:" + reason};
    LogLines own{openingOne + called};
    own.insert(own.end(), run.begin(), run.end());
    own.push_back("4|running first time failed using execvp(), try second time using execve()");
    own.push_back(openingTwo + called);
    own.insert(own.end(), run.begin(), run.end());
    ExpectLog(
        [&] {
            std::string output;
            EXPECT_EQ(OSSpecific::SpawnProcess("/nonexistent", "zero", {"a"}, {"A=1"}, longTime, &output), 255);
            EXPECT_EQ(output, reason);
        },
        own,
        {enterChild, "4|execvp calling, exe_path == /nonexistent",
         "4|execvp called, exe_path == /nonexistent, returned value == -1",
         "4|exec invocation failed, err msg == No such file or directory", enterChild, "4|envc=2", "4|envp[0]=A=1",
         "4|execve calling, exe_path == /nonexistent",
         "4|execve called, exe_path == /nonexistent, returned value == -1",
         "4|exec invocation failed, err msg == No such file or directory"});
}

TEST(TwoTries, RetryAfterADeathBySignalAndReturnTheSecondResult)
{
    const TemporaryDirectory directory;
    std::string output;
    EXPECT_EQ(OSSpecific::SpawnProcess("/bin/sh", "sh", {"-c", "[ \"$MARK\" ] && exit 5; kill -9 $$"}, {"MARK=x"},
                                       longTime, &output),
              5);
}

// ---- CapFileViaProc.

TEST(CapFile, ThatExistsIsReadWithoutRunningAnything)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "contents");
    ExpectLog(
        [&] {
            std::string output = "before";
            OSSpecific::CapFileViaProc(actProgram, {"mark", directory / "ran"}, directory / "file", output, false);
            EXPECT_EQ(output, "contents");
        },
        {"4|GetFileContents() Returned: \ncontents"});
    EXPECT_FALSE(std::filesystem::exists(directory / "ran"));
}

TEST(CapFile, ThatIsMissingIsWrittenByTheProgramAndReplacesTheOutput)
{
    const TemporaryDirectory directory;
    int count = 0;
    ExpectLog(
        [&] {
            const std::string file = directory / std::to_string(count++);
            std::string output = "before";
            // The program's own result does not matter.
            OSSpecific::CapFileViaProc(actProgram, {"out", "said", "save", file, "contents", "exit", "3"}, file, output,
                                       false);
            EXPECT_EQ(output, "contents");
        },
        {ProcessLine(), "4|GetFileContents() Returned: \ncontents"});
}

TEST(CapFile, UnderForceIsRemovedAndWrittenAnew)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "old and much longer");
    std::string output = "before";
    OSSpecific::CapFileViaProc(actProgram, {"save", directory / "file", "new"}, directory / "file", output, true);
    EXPECT_EQ(output, "new");
    EXPECT_EQ(ReadFile(directory / "file"), "new");
}

TEST(CapFile, UnderForceIsGoneWhenTheProgramDoesNotWriteIt)
{
    const TemporaryDirectory directory;
    ExpectLog(
        [&] {
            WriteFile(directory / "file", "old");
            std::string output = "before:";
            OSSpecific::CapFileViaProc(actProgram, {"out", "said"}, directory / "file", output, true);
            EXPECT_EQ(output, "before:said");
            EXPECT_FALSE(std::filesystem::exists(directory / "file"));
        },
        {ProcessLine(), "1|CaptureFile failed to open:"});
}

TEST(CapFile, UnderForceRunsTheProgramForAMissingFileToo)
{
    const TemporaryDirectory directory;
    std::string output;
    OSSpecific::CapFileViaProc(actProgram, {"save", directory / "file", "new"}, directory / "file", output, true);
    EXPECT_EQ(output, "new");
}

TEST(CapFile, ThatNobodyWritesLeavesTheEntryValueAndTheProgramsOutput)
{
    const TemporaryDirectory directory;
    ExpectLog(
        [&] {
            std::string output = "before:";
            OSSpecific::CapFileViaProc(actProgram, {"out", "said"}, directory / "file", output, false);
            EXPECT_EQ(output, "before:said");
        },
        {ProcessLine(), "1|CaptureFile failed to open:"});
}

TEST(CapFile, ThatHoldsTheWordErrorCountsAsUnreadable)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "Error");
    std::string output = "before";
    OSSpecific::CapFileViaProc(actProgram, {"out", "said"}, directory / "file", output, false);
    EXPECT_EQ(output, "before");
    WriteFile(directory / "file", "Error\n");
    OSSpecific::CapFileViaProc(actProgram, {"out", "said"}, directory / "file", output, false);
    EXPECT_EQ(output, "Error\n");
}

TEST(CapFile, ThatIsEmptyEmptiesTheOutput)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "");
    std::string output = "before";
    OSSpecific::CapFileViaProc(actProgram, {}, directory / "file", output, false);
    EXPECT_EQ(output, "");
}

TEST(CapFile, ThatIsADirectoryIsNoFileAndIsNotRemoved)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory / "inner");
    std::string output = "before";
    OSSpecific::CapFileViaProc(actProgram, {"mark", directory / "ran"}, directory / "inner", output, true);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(std::filesystem::is_directory(directory / "inner"));
    EXPECT_EQ(ReadFile(directory / "ran"), "x");
}

// ---- TerminateProcess.

namespace {

/** A process outside of the library's hands that would wait for ever. */
pid_t StartWaiting(const std::string& fifo)
{
    const pid_t child = fork();
    if (child == 0) {
        execl(actProgram.c_str(), "act", "await", fifo.c_str(), nullptr);
        _exit(98);
    }
    return child;
}

}  // namespace

TEST(TerminateProcess, KillsTheProcessAndLogsItsId)
{
    RunIsolated([] {
        const TemporaryDirectory directory;
        ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            const pid_t child = StartWaiting(directory / "fifo");
            LogRecorder log(level);
            OSSpecific::TerminateProcess(child);
            EXPECT_EQ(log.Own(), UpTo(level, {"3|killing process.. ID = " + std::to_string(child)}));
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        }
    });
}

TEST(TerminateProcess, OfAProcessThatIsGoneIsSilent)
{
    RunIsolated([] {
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        const TemporaryDirectory directory;
        const int said = open((directory / "said").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const int out = dup(STDOUT_FILENO);
        const int err = dup(STDERR_FILENO);
        dup2(said, STDOUT_FILENO);
        dup2(said, STDERR_FILENO);
        ExpectLog([&] { OSSpecific::TerminateProcess(child); }, {"3|killing process.. ID = " + std::to_string(child)});
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        EXPECT_EQ(ReadFile(directory / "said"), "");
        EXPECT_EQ(waitpid(-1, nullptr, 0), -1) << "the shell is reaped too";
    });
}
