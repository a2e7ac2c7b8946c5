#include "common/osspecific/osspecific_lin.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "common/logger/log.h"
#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

constexpr int longTime = 360;

enum class Function { Basic, In };

constexpr Function bothFunctions[] = {Function::Basic, Function::In};

int Spawn(Function function, const std::string& program, const std::vector<std::string>& params, std::string& output)
{
    return function == Function::Basic ? OSSpecific::SpawnProcess(program, params, &output, longTime)
                                       : OSSpecific::SpawnProcessIn(program, program, params, {}, longTime, 1, &output);
}

/** What describe printed about descriptors. */
std::map<int, std::string> DescriptorsIn(const std::string& output)
{
    std::map<int, std::string> descriptors;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("fd ", 0) == 0) {
            std::istringstream fields(line.substr(3));
            int number = -1;
            std::string target;
            fields >> number >> std::ws;
            std::getline(fields, target);
            descriptors[number] = target;
        }
    }
    return descriptors;
}

/** What a child must see: what it inherits, with one pipe on descriptors 1 and 2. */
void ExpectChildsView(const std::map<int, std::string>& seen, std::map<int, std::string> inherited,
                      const std::string& trace)
{
    ASSERT_EQ(seen.count(STDOUT_FILENO), 1U) << trace;
    const std::string& pipe = seen.at(STDOUT_FILENO);
    EXPECT_EQ(pipe.rfind("pipe:", 0), 0U) << pipe << trace;
    inherited[STDOUT_FILENO] = pipe;
    inherited[STDERR_FILENO] = pipe;
    EXPECT_EQ(seen, inherited) << trace;
}

bool MayLimitDescriptorsTo(rlim_t soft)
{
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_max >= soft;
}

bool LimitDescriptorsTo(rlim_t soft)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = soft;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

/** Opens descriptors until the next one would have that number. */
void FillDescriptorsBelow(int number)
{
    int last;
    do {
        last = open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(last, 0);
    } while (last < number - 1);
    ASSERT_EQ(last, number - 1);
}

}  // namespace

TEST(SpawnDescriptors, OfTheChildAreWhatItInheritsAndThePipe)
{
    for (const Function function : bothFunctions) {
        std::string output;
        EXPECT_EQ(Spawn(function, describeProgram, {}, output), 0);
        ExpectChildsView(DescriptorsIn(output), InheritableDescriptors(), "");
    }
}

namespace {

std::string viewBeforeExec;

/** Where a child is about to execute its program, writes down which descriptors it has. */
void WriteViewBeforeExec(unsigned, const char*, int, const std::string& message)
{
    if (message.rfind("execvp calling", 0) == 0) {
        std::ostringstream view;
        for (const auto& [number, target] : OpenDescriptors()) {
            view << "fd " << number << ' ' << target << '\n';
        }
        WriteFile(viewBeforeExec, view.str());
    }
}

}  // namespace

TEST(SpawnDescriptors, OfThePipeItselfAreClosedInTheChildBeforeItsExec)
{
    const TemporaryDirectory directory;
    viewBeforeExec = directory / "view";
    auto before = OpenDescriptors();
    Log::SetSink(WriteViewBeforeExec);
    Log::SetMinLogLevel(4);
    std::string output;
    EXPECT_EQ(Spawn(Function::In, actProgram, {}, output), 0);
    Log::SetMinLogLevel(0);
    Log::SetSink(nullptr);

    auto seen = DescriptorsIn(ReadFile(viewBeforeExec));
    EXPECT_EQ(seen[STDOUT_FILENO].rfind("pipe:", 0), 0U) << seen[STDOUT_FILENO];
    seen[STDOUT_FILENO] = before[STDOUT_FILENO];
    // One more, for what the child logs after a failed exec: a copy of its caller's standard error.
    ASSERT_EQ(seen.size(), before.size() + 1);
    for (const auto& [number, target] : seen) {
        EXPECT_EQ(target, before.count(number) != 0 ? before[number] : before[STDERR_FILENO]) << number;
    }
}

namespace {

/** The texts of what the default sink wrote, each with its level in front, and without those of the parent. */
LogLines ChildsTexts(const std::string& written)
{
    LogLines texts;
    std::istringstream lines(written);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t place = line.find(' ', line.find("] ") + 2);
        const std::string text = place != std::string::npos ? line.substr(place + 1) : "";
        if (line.rfind("[4] src/common/osspecific/osspecific_lin.cpp:", 0) == 0 &&
            (text.rfind("Enter pid", 0) == 0 || text.rfind("exec", 0) == 0)) {
            texts.push_back(text);
        }
    }
    return texts;
}

}  // namespace

TEST(SpawnedChild, LogsToItsCallersStandardErrorAndNotIntoTheOutput)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        const std::string file = directory / "messages";
        const int messages = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ASSERT_EQ(dup2(messages, STDERR_FILENO), STDERR_FILENO);
        Log::SetMinLogLevel(4);
        std::string output;
        EXPECT_EQ(Spawn(Function::In, "/nonexistent", {}, output), 255);
        EXPECT_EQ(output, "execve error!: No such file or directory\n");
        output.clear();
        EXPECT_EQ(Spawn(Function::In, actProgram, {"out", "one", "err", "two"}, output), 0);
        EXPECT_EQ(output, "onetwo");
        Log::SetMinLogLevel(0);
        EXPECT_EQ(ChildsTexts(ReadFile(file)),
                  (LogLines{"Enter pid == 0! ", "execvp calling, exe_path == /nonexistent",
                            "execvp called, exe_path == /nonexistent, returned value == -1",
                            "exec invocation failed, err msg == No such file or directory", "Enter pid == 0! ",
                            "execvp calling, exe_path == " + actProgram}));
    });
}

TEST(SpawnedChild, LogsIntoNoOutputAndNoOtherFileWhicheverOfTheThreeStandardOnesTheCallerHasClosed)
{
    const TemporaryDirectory directory;
    for (int closed = 0; closed < 8; ++closed) {
        for (const bool otherFileTakesANumber : {false, true}) {
            RunIsolated([&] {
                const std::string trace = " with these of 0, 1 and 2 closed (bits): " + std::to_string(closed);
                const std::string path = directory / "other";
                const int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
                WriteFile(path, "");
                dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
                for (int number = 0; number < 3; ++number) {
                    if ((closed >> number & 1) != 0) {
                        close(number);
                    }
                }
                if (otherFileTakesANumber) {
                    open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
                }
                Log::SetMinLogLevel(4);
                std::string failed;
                const int failedResult = Spawn(Function::In, "/nonexistent", {}, failed);
                std::string text;
                const int textResult = Spawn(Function::In, actProgram, {"out", "one", "err", "two"}, text);
                Log::SetMinLogLevel(0);
                dup2(saved, STDOUT_FILENO);

                EXPECT_EQ(failedResult, 255) << trace;
                EXPECT_EQ(failed, "execve error!: No such file or directory\n") << trace;
                EXPECT_EQ(textResult, 0) << trace;
                EXPECT_EQ(text, "onetwo") << trace;
                EXPECT_EQ(ReadFile(path), "") << trace;
            });
        }
    }
}

TEST(SpawnedChild, OfACallerWhoseStandardErrorIsFullOrHasNoReaderRunsAllTheSame)
{
    for (const bool isFull : {true, false}) {
        RunIsolated([&] {
            int ends[2];
            ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
            close(ends[0]);
            const int target = isFull ? open("/dev/full", O_WRONLY | O_CLOEXEC) : ends[1];
            ASSERT_EQ(dup2(target, STDERR_FILENO), STDERR_FILENO);
            ASSERT_NE(std::signal(SIGPIPE, SIG_IGN), SIG_ERR);
            Log::SetMinLogLevel(4);
            std::string output;
            EXPECT_EQ(Spawn(Function::In, "/nonexistent", {}, output), 255);
            EXPECT_EQ(output, "execve error!: No such file or directory\n");
            output.clear();
            EXPECT_EQ(Spawn(Function::In, actProgram, {"out", "one", "err", "two"}, output), 0);
            EXPECT_EQ(output, "onetwo");
            Log::SetMinLogLevel(0);
        });
    }
}

TEST(Daemon, ThatClosesOrRedirectsItsStandardDescriptorsLetsItsStarterGo)
{
    for (const std::string way : {"close", "redirect"}) {
        std::string said;
        EXPECT_EQ(OSSpecific::SpawnProcess(
                      "/bin/sh", {"-c", "x=$(\"$0\" \"$1\" 2>&1); echo \"$x\"", daemonProgram, way}, &said, longTime),
                  0);
        // Behind the messages that it logged.
        ASSERT_NE(said.find("execvp calling, exe_path == true\n"), std::string::npos) << said;
        const std::size_t lastLine = said.rfind('\n', said.size() - 2) + 1;
        const pid_t daemon = std::stoi(said.substr(lastLine));
        // Had the starter waited for the daemon's end, it would not run any more. Its /proc/PID/exe is no proof: where
        // an emulator runs it, that is the emulator.
        std::ifstream file("/proc/" + std::to_string(daemon) + "/cmdline");
        const std::string arguments((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (arguments.find(daemonProgram) != std::string::npos) {
            kill(daemon, SIGKILL);
        } else {
            ADD_FAILURE() << "the starter waited for the end of a daemon that did " << way;
        }
    }
}

TEST(SpawnDescriptors, ThatAreNotCloseOnExecReachTheChild)
{
    RunIsolated([] {
        const int handedOn = open("/dev/zero", O_RDONLY);
        for (const Function function : bothFunctions) {
            std::string output;
            EXPECT_EQ(Spawn(function, describeProgram, {}, output), 0);
            EXPECT_EQ(DescriptorsIn(output)[handedOn], "/dev/zero");
        }
    });
}

TEST(SpawnDescriptors, AreRightWhicheverOfTheThreeStandardOnesTheCallerHasClosed)
{
    for (const Function function : bothFunctions) {
        for (int closed = 0; closed < 8; ++closed) {
            RunIsolated([&] {
                const std::string trace = " with these of 0, 1 and 2 closed (bits): " + std::to_string(closed);
                std::vector<int> saved;
                saved.reserve(3);
                for (int number = 0; number < 3; ++number) {
                    saved.push_back(fcntl(number, F_DUPFD_CLOEXEC, 10));
                }
                for (int number = 0; number < 3; ++number) {
                    if ((closed >> number & 1) != 0) {
                        close(number);
                    }
                }
                const auto inherited = InheritableDescriptors();
                const auto before = OpenDescriptors();
                std::string view;
                const int viewResult = Spawn(function, describeProgram, {}, view);
                std::string text = "text:";
                const int textResult = Spawn(function, actProgram, {"out", "one", "err", "two"}, text);
                const auto after = OpenDescriptors();
                for (int number = 0; number < 3; ++number) {
                    dup2(saved[static_cast<std::size_t>(number)], number);
                }

                EXPECT_EQ(viewResult, 0) << trace;
                ExpectChildsView(DescriptorsIn(view), inherited, trace);
                EXPECT_EQ(textResult, 0) << trace;
                EXPECT_EQ(text, "text:onetwo") << trace;
                EXPECT_EQ(after, before) << trace;
            });
        }
    }
}

TEST(SpawnDescriptors, OfAFailedExecAreRightWithAllThreeStandardOnesClosed)
{
    RunIsolated([] {
        const int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
        for (const int number : {0, 1, 2}) {
            close(number);
        }
        std::string output;
        const int result = Spawn(Function::In, "/nonexistent", {}, output);
        dup2(saved, STDOUT_FILENO);
        EXPECT_EQ(result, 255);
        EXPECT_EQ(output, "execve error!: No such file or directory\n");
    });
}

TEST(SpawnDescriptors, AreAllThereAfter200Spawns)
{
    const auto before = OpenDescriptors();
    for (int i = 0; i < 100; ++i) {
        for (const Function function : bothFunctions) {
            std::string output;
            ASSERT_EQ(Spawn(function, actProgram, {"out", std::to_string(i)}, output), 0);
            ASSERT_EQ(output, std::to_string(i));
        }
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
    EXPECT_EQ(errno, ECHILD);
}

TEST(SpawnDescriptors, OfOneThreadsPipeAreNotInheritedByTheChildrenOfAnother)
{
    constexpr int threadCount = 4;
    constexpr int spawnsEach = 50;
    const auto before = OpenDescriptors();
    const auto inherited = InheritableDescriptors();
    std::vector<std::string> outputs[threadCount];
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&outputs, t] {
            for (int i = 0; i < spawnsEach; ++i) {
                std::string output;
                const int result = Spawn(bothFunctions[t % 2], describeProgram, {std::to_string(t)}, output);
                outputs[t].push_back(result == 0 ? output : "result " + std::to_string(result));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < threadCount; ++t) {
        ASSERT_EQ(outputs[t].size(), std::size_t{spawnsEach});
        const std::string argument = "arg <" + std::to_string(t) + ">";
        for (const std::string& output : outputs[t]) {
            EXPECT_NE(output.find(argument), std::string::npos) << output;
            ExpectChildsView(DescriptorsIn(output), inherited, "");
        }
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(SpawnDescriptors, With1100OpenBeforehandSelectFailsAndNothingIsLostButTheChild)
{
    ZENDRA_NEEDS(MayLimitDescriptorsTo(1300), "the hard limit of open descriptors is below 1300");
    RunIsolated([] {
        ASSERT_TRUE(LimitDescriptorsTo(1300));
        FillDescriptorsBelow(1100);
        const auto before = OpenDescriptors();
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            std::string output = "before";
            {
                LogRecorder log(level);
                EXPECT_EQ(Spawn(Function::Basic, actProgram, {"exit", "3"}, output), -1);
                EXPECT_EQ(log.Own(), UpTo(level, {"3|SpawnProcess: process " + actProgram + "\n",
                                                  "1|SpawnProcess - select call failed! \n"}));
            }
            {
                LogRecorder log(level);
                EXPECT_EQ(Spawn(Function::In, actProgram, {"exit", "4"}, output), -1);
                EXPECT_EQ(log.Own(),
                          UpTo(level, {"4|tryflag == 1, OSSpecific::SpawnProcess calling " + actProgram +
                                           "\nwith parameters: " + actProgram + " exit 4 \nwith environment vars: ",
                                       "4|Enter else for pid == 0! ", "1|SpawnProcess - select call failed!",
                                       "3|SpawnProcess() " + actProgram + " Returned:before"}));
            }
            EXPECT_EQ(output, "before");
            // The children run on, unreaped, as after a time-out.
            int codes = 0;
            for (int status = 0; waitpid(-1, &status, 0) > 0;) {
                codes = codes * 10 + WEXITSTATUS(status);
            }
            EXPECT_TRUE(codes == 34 || codes == 43) << codes;
        }
        EXPECT_EQ(OpenDescriptors(), before);
    });
}

TEST(SpawnDescriptors, OfWhichTheReadEndIs1023Work)
{
    ZENDRA_NEEDS(MayLimitDescriptorsTo(1300), "the hard limit of open descriptors is below 1300");
    RunIsolated([] {
        ASSERT_TRUE(LimitDescriptorsTo(1300));
        FillDescriptorsBelow(1023);
        for (const Function function : bothFunctions) {
            std::string output;
            EXPECT_EQ(Spawn(function, actProgram, {"out", "text"}, output), 0);
            EXPECT_EQ(output, "text");
        }
    });
}

TEST(SpawnDescriptors, OfWhichTheReadEndIs1024FailInSelect)
{
    ZENDRA_NEEDS(MayLimitDescriptorsTo(1300), "the hard limit of open descriptors is below 1300");
    RunIsolated([] {
        ASSERT_TRUE(LimitDescriptorsTo(1300));
        FillDescriptorsBelow(1024);
        for (const Function function : bothFunctions) {
            std::string output;
            EXPECT_EQ(Spawn(function, actProgram, {}, output), -1);
            EXPECT_GT(waitpid(-1, nullptr, 0), 0);
        }
    });
}

TEST(SpawnDescriptors, OfWhichTheWriteEndAloneIsAbove1023Work)
{
    ZENDRA_NEEDS(MayLimitDescriptorsTo(1300), "the hard limit of open descriptors is below 1300");
    RunIsolated([] {
        ASSERT_TRUE(LimitDescriptorsTo(1300));
        FillDescriptorsBelow(1100);
        close(500);
        for (const Function function : bothFunctions) {
            std::string output;
            EXPECT_EQ(Spawn(function, actProgram, {"out", "text"}, output), 0);
            EXPECT_EQ(output, "text");
        }
    });
}

TEST(SpawnDescriptors, ThatDoNotSufficeForAPipeMakeTheCallFailAndLoseNothing)
{
    RunIsolated([] {
        for (const int left : {0, 1}) {
            for (const Function function : bothFunctions) {
                const auto before = OpenDescriptors();
                const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
                close(next);
                ASSERT_TRUE(LimitDescriptorsTo(static_cast<rlim_t>(next + left)));
                std::string output = "before";
                const int result = Spawn(function, actProgram, {"out", "text"}, output);
                ASSERT_TRUE(LimitDescriptorsTo(1024));
                EXPECT_EQ(result, -1);
                EXPECT_EQ(output, "before");
                EXPECT_EQ(OpenDescriptors(), before);
            }
        }
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    });
}

namespace {

/** Only in an isolated body. */
void ForbidProcesses()
{
    const rlimit none{0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
    if (IsRoot()) {
        BecomeUnknownUser();
    }
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    ASSERT_EQ(child, -1) << "processes can still be made";
}

}  // namespace

TEST(SpawnProcesses, ThatMustNotBeMadeLeaveThePipeOfTheBasicOverloadOpen)
{
    RunIsolated([] {
        ForbidProcesses();
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            LogRecorder log(level);
            const auto before = OpenDescriptors();
            std::string output = "before";
            EXPECT_EQ(Spawn(Function::Basic, actProgram, {"out", "text"}, output), -1);
            EXPECT_EQ(output, "before");
            EXPECT_EQ(log.Own(), UpTo(level, {"3|SpawnProcess: process " + actProgram + "\n", "1|Fork failed \n"}));
            std::vector<std::string> left;
            for (const auto& [number, target] : OpenDescriptors()) {
                if (before.count(number) == 0) {
                    left.push_back(target);
                }
            }
            ASSERT_EQ(left.size(), 2U);
            EXPECT_EQ(left[0].rfind("pipe:", 0), 0U);
            EXPECT_EQ(left[0], left[1]) << "both ends of one pipe";
        }
    });
}

TEST(SpawnProcesses, ThatMustNotBeMadeMakeSpawnProcessInFailAndLoseNothing)
{
    RunIsolated([] {
        ForbidProcesses();
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            const std::string opening = "4|tryflag == 1, OSSpecific::SpawnProcess calling program\n"
                                        "with parameters: program a \nwith environment vars: ";
            LogRecorder log(level);
            const auto before = OpenDescriptors();
            std::string output = "before";
            EXPECT_EQ(Spawn(Function::In, "program", {"a"}, output), -1);
            EXPECT_EQ(output, "before");
            EXPECT_EQ(log.Own(), UpTo(level, {opening, "4|Enter else for pid == 0! ",
                                              "4|*output_ptr == before, appended buffer == ",
                                              "1|SpawnProcess - Child process exited abnormally!",
                                              "3|SpawnProcess() program Returned:before"}));
            EXPECT_EQ(OpenDescriptors(), before);
        }
    });
}

TEST(SpawnProcesses, ThatMustNotBeMadeMakeSpawnProcessInReapAnotherChildOfTheCaller)
{
    RunIsolated([] {
        const pid_t other = fork();
        if (other == 0) {
            _exit(0);
        }
        ASSERT_GT(other, 0);
        ForbidProcesses();
        const LogRecorder log(1);
        std::string output;
        EXPECT_EQ(Spawn(Function::In, "program", {}, output), -1);
        EXPECT_EQ(log.Own(), LogLines{"1|SpawnProcess - waitpid call failed!"});
        EXPECT_EQ(waitpid(other, nullptr, 0), -1) << "it is to be reaped already";
    });
}
