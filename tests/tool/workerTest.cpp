#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "toolTests.h"
#include "tools/zddevices/scan/frame.h"
#include "tools/zddevices/scan/progress.h"
#include "tools/zddevices/scan/worker.h"

namespace {

/** Whom kill() was called for. */
std::vector<pid_t> killed;

/** As if each process were in a system call that never ends. */
bool nobodyCanBeKilled = false;

}  // namespace

/** In place of the C library's: what is more than a child and its group is a failure, and stays alive. */
extern "C" int kill(pid_t process, int signal) noexcept
{
    killed.push_back(process);
    if (nobodyCanBeKilled) {
        return 0;
    }
    if (process >= -1 && process <= 1) {
        ADD_FAILURE() << "kill(" << process << ") ends more than a child";
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_kill, process, signal));
}

namespace Zendra::ZDDevices {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/** For children that never answer. */
constexpr milliseconds shortLimit(200);

/** For runs that must not come near it. */
constexpr seconds longLimit(600);

using Texts = std::vector<std::string>;

[[noreturn]] void Hang()
{
    for (;;) {
        pause();
    }
}

/** A task that asks no device file and answers with one text. */
Task Doing(const std::function<std::string()>& work)
{
    return [work](const Tell& /*tell*/) { return Texts{work()}; };
}

Outcome RunOne(const std::function<std::string()>& work, std::optional<Duration> limit = longLimit)
{
    return RunWorkers({Doing(work)}, {limit}).at(0);
}

/** The text that the task of Doing() has answered with. */
std::string AnswerOf(const Outcome& outcome)
{
    return outcome.answer && outcome.answer->size() == 1 ? outcome.answer->front() : "no answer";
}

/**
 * Runs tasks some of which never answer, with more time while the others, or what is to be seen of them, are not there
 * yet: how fast the machine is must not matter.
 */
template <typename IsReady>
std::deque<Outcome> RunLate(const std::vector<Task>& tasks, IsReady isReady, Observer* observer = nullptr)
{
    std::deque<Outcome> outcomes;
    for (const Duration limit : {Duration(milliseconds(300)), Duration(seconds(5)), Duration(seconds(90))}) {
        outcomes = RunWorkers(tasks, {limit, observer});
        if (isReady(outcomes)) {
            return outcomes;
        }
    }
    ADD_FAILURE() << "the tasks did not come to it";
    return outcomes;
}

std::size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

bool HasChildren()
{
    return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

/** "device inode" of an open file. */
std::string Identity(int descriptor)
{
    struct stat file {};
    if (fstat(descriptor, &file) != 0) {
        return "none";
    }
    return std::to_string(file.st_dev) + " " + std::to_string(file.st_ino);
}

/** What leads out of the process: one Identity() a line. */
std::string OpenFiles()
{
    constexpr int descriptors = 1024;
    std::string text;
    for (int descriptor = 0; descriptor < descriptors; ++descriptor) {
        text += Identity(descriptor) + "\n";
    }
    return text;
}

TEST(Workers, AnswersAreAllBytesInTheOrderOfTheTasks)
{
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    std::string large(3000000, 'x');
    const std::deque<Outcome> outcomes = RunWorkers({Doing([] {
                                                         usleep(50000);
                                                         return std::string("slow");
                                                     }),
                                                     Doing([&] { return everyByte; }),
                                                     Doing([] { return std::string(); }), Doing([&] { return large; })},
                                                    {longLimit});
    ASSERT_EQ(outcomes.size(), 4U);
    EXPECT_EQ(AnswerOf(outcomes[0]), "slow");
    EXPECT_EQ(AnswerOf(outcomes[1]), everyByte);
    EXPECT_EQ(AnswerOf(outcomes[2]), "");
    EXPECT_TRUE(AnswerOf(outcomes[3]) == large);
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.failure, "");
    }
    EXPECT_GE(outcomes[0].elapsed, milliseconds(50));
}

TEST(Workers, WithoutALimitIsWaitedFor)
{
    EXPECT_EQ(AnswerOf(RunOne([] { return std::string("answer"); }, std::nullopt)), "answer");
    EXPECT_TRUE(RunWorkers({}, {}).empty());
}

TEST(Workers, NothingIsLeftBehindWhenAllAreThroughOrCouldBeEnded)
{
    const std::size_t before = OpenDescriptors();
    RunWorkers({Doing([] { return std::string("a"); }), Doing([]() -> std::string {
                    static_cast<void>(raise(SIGKILL));
                    return {};
                }),
                Doing([]() -> std::string { Hang(); })},
               {shortLimit});
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(HasChildren());
}

TEST(Workers, LateChildrenDoNotKeepTheOthersAnswersBack)
{
    const std::deque<Outcome> outcomes =
        RunLate({Doing([]() -> std::string { Hang(); }), Doing([] { return std::string("a"); })},
                [](const std::deque<Outcome>& all) { return all[1].answer.has_value(); });
    EXPECT_EQ(outcomes[0].answer, std::nullopt);
    EXPECT_EQ(outcomes[0].failure.rfind("no answer within ", 0), 0U) << outcomes[0].failure;
    EXPECT_GE(outcomes[0].elapsed, milliseconds(300));
    EXPECT_EQ(AnswerOf(outcomes[1]), "a");
    EXPECT_EQ(outcomes[1].failure, "");
    EXPECT_LT(outcomes[1].elapsed, outcomes[0].elapsed);
}

TEST(Workers, TheLimitDoesNotBeginAnewWithEachOutput)
{
    const auto talkFor2Seconds = [](const std::function<void(int)>& say) {
        for (int i = 0; i < 20; ++i) {
            usleep(100000);
            say(i);
        }
        return Texts{"late"};
    };
    const Task sendsFrames = [&](const Tell& tell) {
        return talkFor2Seconds([&](int i) { tell.deviceFile("/dev/sd" + std::to_string(i)); });
    };
    const Task sendsMessages = [&](const Tell& /*tell*/) {
        return talkFor2Seconds([](int i) { std::cerr << i << std::endl; });
    };
    for (const Task& task : {sendsFrames, sendsMessages}) {
        testing::internal::CaptureStderr();
        const Outcome outcome = RunWorkers({task}, {milliseconds(500)}).at(0);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(outcome.answer, std::nullopt);
        EXPECT_EQ(outcome.failure, "no answer within 0.5 s");
    }
}

TEST(Workers, TheLimitIsNamed)
{
    EXPECT_EQ(RunOne([]() -> std::string { Hang(); }, shortLimit).failure, "no answer within 0.2 s");
    EXPECT_EQ(RunOne([]() -> std::string { Hang(); }, seconds(1)).failure, "no answer within 1 s");
}

/** The kernel's letter for the state of a process; "-" when there is none. */
std::string ProcessState(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/stat");
    std::string number;
    std::string name;
    std::string state;
    return status >> number >> name >> state ? state : "-";
}

TEST(Workers, WhatALateChildHasStartedEndsWithIt)
{
    const std::string file = testing::TempDir() + "workerTest." + std::to_string(getpid());
    pid_t grandchild = 0;
    RunLate({Doing([&]() -> std::string {
                if (fork() == 0) {
                    std::ofstream(file) << getpid() << std::endl;
                    Hang();
                }
                Hang();
            })},
            [&](const std::deque<Outcome>&) {
                std::ifstream content(file);
                std::string line;
                // Without its end the line may not be whole.
                if (!std::getline(content, line) || content.eof()) {
                    return false;
                }
                grandchild = std::stoi(line);
                return true;
            });
    std::filesystem::remove(file);
    ASSERT_GT(grandchild, 1);
    // Nobody of ours waits for it: it may be a zombie until init has. Killing takes effect a little later.
    constexpr int attempts = 1000;
    std::string state = ProcessState(grandchild);
    for (int i = 0; i < attempts && state != "-" && state != "Z" && state != "X"; ++i) {
        usleep(10000);
        state = ProcessState(grandchild);
    }
    EXPECT_TRUE(state == "-" || state == "Z" || state == "X") << state;
    if (state != "-" && state != "Z") {
        kill(grandchild, SIGKILL);
    }
}

TEST(Workers, OneThatCannotBeKilledIsLeftAfterAMoment)
{
    const auto begun = std::chrono::steady_clock::now();
    killed.clear();
    nobodyCanBeKilled = true;
    const Outcome outcome = RunOne([]() -> std::string { Hang(); }, milliseconds(500));
    nobodyCanBeKilled = false;
    const auto elapsed = std::chrono::steady_clock::now() - begun;
    EXPECT_EQ(outcome.failure, "no answer within 0.5 s");
    EXPECT_TRUE(outcome.late);
    // A killed process needs some time to end; nobody waits long for one that does not.
    EXPECT_GE(elapsed, milliseconds(600));
    EXPECT_LT(elapsed, milliseconds(1500));
    // Its group, in which is what it has started, and itself.
    ASSERT_EQ(killed.size(), 2U);
    ASSERT_GT(killed[1], 1);
    EXPECT_EQ(killed[0], -killed[1]);
    kill(killed[1], SIGKILL);
    EXPECT_EQ(waitpid(killed[1], nullptr, 0), killed[1]);
}

TEST(Workers, WhatIsThrownIsTheFailure)
{
    EXPECT_EQ(RunOne([]() -> std::string { throw std::runtime_error("bang"); }).failure, "bang");
    EXPECT_EQ(RunOne([]() -> std::string { throw std::bad_alloc(); }).failure, "out of memory");
    EXPECT_EQ(RunOne([]() -> std::string { throw 42; }).failure, "unknown failure");
    EXPECT_TRUE(RunOne([]() -> std::string { throw 42; }).threw);
    EXPECT_FALSE(RunOne([]() -> std::string { _exit(0); }).threw);
}

TEST(Workers, DeathIsAFailure)
{
    EXPECT_EQ(RunOne([]() -> std::string {
                  static_cast<void>(raise(SIGKILL));
                  return "a";
              }).failure,
              "its process was ended by signal 9 (Killed)");
    EXPECT_EQ(RunOne([]() -> std::string { _exit(0); }).failure, improperAnswer);
    EXPECT_EQ(RunOne([]() -> std::string { _exit(1); }).failure, improperAnswer);
}

/** Writes to every pipe of the process but standard error, so to that for the answer. */
void WriteToPipes(const std::string& bytes)
{
    constexpr int descriptors = 64;
    for (int descriptor = STDERR_FILENO + 1; descriptor < descriptors; ++descriptor) {
        struct stat file {};
        if (fstat(descriptor, &file) == 0 && S_ISFIFO(file.st_mode) &&
            Identity(descriptor) != Identity(STDERR_FILENO)) {
            EXPECT_EQ(write(descriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        }
    }
}

/** Why there is no answer from a worker that writes these bytes and ends well; empty when there is one. */
std::string FailureOf(const std::string& bytes)
{
    return RunOne([&]() -> std::string {
               WriteToPipes(bytes);
               _exit(0);
           })
        .failure;
}

TEST(Workers, WhatIsNoWholeFrameIsNoAnswer)
{
    const std::string answer = FrameBytes({Frame::Kind::Answer, {"a"}});
    EXPECT_EQ(FailureOf(answer), "");
    EXPECT_EQ(FailureOf(""), improperAnswer);
    EXPECT_EQ(FailureOf(answer.substr(0, answer.size() - 1)), improperAnswer);
    EXPECT_EQ(FailureOf(answer.substr(0, 1)), improperAnswer);
    EXPECT_EQ(FailureOf(answer + "x"), improperAnswer);
    EXPECT_EQ(FailureOf(answer + answer), improperAnswer);
    EXPECT_EQ(FailureOf(FrameBytes({Frame::Kind::DeviceFile, {"/dev/sda"}})), improperAnswer);
    EXPECT_EQ(FailureOf(FrameBytes({static_cast<Frame::Kind>('x'), {"a"}})), improperAnswer);
    EXPECT_EQ(FailureOf("rubbish that is longer than what stands before an answer"), improperAnswer);
    // Bytes in front of a good frame.
    EXPECT_EQ(RunOne([] {
                  WriteToPipes("x");
                  return std::string("answer");
              }).failure,
              improperAnswer);
}

TEST(Workers, WhoFailsAfterAnAnswerHasNotAnswered)
{
    const auto answersAnd = [](const std::function<void()>& end) {
        return RunOne([&]() -> std::string {
                   WriteToPipes(FrameBytes({Frame::Kind::Answer, {"a"}}));
                   end();
                   return {};
               })
            .failure;
    };
    EXPECT_EQ(answersAnd([] { _exit(1); }), improperAnswer);
    EXPECT_EQ(answersAnd([] { static_cast<void>(raise(SIGKILL)); }), "its process was ended by signal 9 (Killed)");
}

TEST(Workers, AnswersWithoutEndAreCutOff)
{
    const std::string chunk(1000000, 'x');
    for (const std::string& bytes : {chunk, FrameBytes({Frame::Kind::Answer, {chunk}})}) {
        const Outcome outcome = RunOne([&]() -> std::string {
            for (;;) {
                WriteToPipes(bytes);
            }
        });
        EXPECT_EQ(outcome.answer, std::nullopt);
        EXPECT_EQ(outcome.failure, improperAnswer);
        EXPECT_FALSE(HasChildren());
    }
}

TEST(Workers, ChildrenHoldNothingThatOthersMayWaitFor)
{
    std::array<int, 2> pipeEnds{};
    ASSERT_EQ(pipe(pipeEnds.data()), 0);
    const int outputCopy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int errorCopy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const std::string held = AnswerOf(RunOne(OpenFiles));
    EXPECT_NE(held, "");
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, pipeEnds[0], pipeEnds[1]}) {
        const std::string other = Identity(descriptor);
        // Where the test itself runs with "/" for a standard descriptor, that is as good as none.
        if (std::filesystem::exists("/proc/self/fd/" + std::to_string(descriptor)) &&
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)) != "/") {
            EXPECT_EQ(held.find(other + "\n"), std::string::npos) << "descriptor " << descriptor;
        }
    }
    for (const int descriptor : {pipeEnds[0], pipeEnds[1], outputCopy, errorCopy}) {
        close(descriptor);
    }
}

TEST(Workers, NumbersOfDescriptorsStayTaken)
{
    std::array<int, 2> pipeEnds{};
    ASSERT_EQ(pipe(pipeEnds.data()), 0);
    const std::string lowest = AnswerOf(RunOne([] { return std::to_string(open("/", O_RDONLY)); }));
    EXPECT_GT(std::stoi("0" + lowest), pipeEnds[1]);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

TEST(Workers, MessagesComeThroughLineByLine)
{
    const auto talk = [](char letter) {
        return [letter] {
            for (int line = 0; line < 50; ++line) {
                for (int half = 0; half < 2; ++half) {
                    const std::string text(100, letter);
                    EXPECT_EQ(write(STDERR_FILENO, text.data(), text.size()), 100);
                    // Until the half line has been read, so that it is there alone.
                    for (int unread = 1; ioctl(STDERR_FILENO, FIONREAD, &unread) == 0 && unread > 0;) {
                        usleep(100);
                    }
                }
                EXPECT_EQ(write(STDERR_FILENO, "\n", 1), 1);
            }
            EXPECT_EQ(write(STDERR_FILENO, "end", 3), 3);
            return std::string("a");
        };
    };
    testing::internal::CaptureStderr();
    const std::deque<Outcome> outcomes = RunWorkers({Doing(talk('x')), Doing(talk('y'))}, {longLimit});
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.size(), 2U * (50 * 201 + 4));
    std::istringstream lines(text);
    std::size_t whole = 0;
    for (std::string line; std::getline(lines, line);) {
        whole += line == std::string(200, 'x') || line == std::string(200, 'y') ? 1 : 0;
    }
    EXPECT_EQ(whole, 100U);
    EXPECT_EQ(AnswerOf(outcomes[0]), "a");
}

TEST(Workers, AMessageWithoutAnEndOfLineIsNotKeptUntilTheWorkerEnds)
{
    /** Makes a file as soon as something is passed on. */
    class Announcer : public Observer {
    public:
        void StillRunning(const std::vector<Waiting>& /*workers*/) override {}
        void BeforeMessage() override { std::ofstream{file}; }

        const std::string file = testing::TempDir() + "workerTest." + std::to_string(getpid());
    };
    Announcer announcer;
    const std::string text(3UL * 1024 * 1024, 'x');
    testing::internal::CaptureStderr();
    const Task task = Doing([&] {
        std::cerr << text << std::flush;
        while (!std::filesystem::exists(announcer.file)) {
            usleep(1000);
        }
        return std::string("passed on");
    });
    const Outcome outcome = RunWorkers({task}, {longLimit, &announcer}).at(0);
    EXPECT_TRUE(testing::internal::GetCapturedStderr() == text + "\n");
    EXPECT_EQ(AnswerOf(outcome), "passed on");
    std::filesystem::remove(announcer.file);
}

TEST(Workers, MessagesOfALateWorkerAreKept)
{
    std::string text;
    testing::internal::CaptureStderr();
    RunLate({Doing([]() -> std::string {
                EXPECT_EQ(write(STDERR_FILENO, "last words", 10), 10);
                Hang();
            })},
            [&](const std::deque<Outcome>&) {
                text = testing::internal::GetCapturedStderr();
                testing::internal::CaptureStderr();
                return !text.empty();
            });
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(text, "last words\n");
}

TEST(Workers, ACallerThatIgnoresItsChildrenGetsAnswersToo)
{
    signal(SIGCHLD, SIG_IGN);
    // A worker waits for children of its own, too: it runs modprobe.
    EXPECT_EQ(AnswerOf(RunOne([] { return std::to_string(std::system("exit 3")); })), std::to_string(3 << 8));
}

TEST(Workers, WithoutDescriptorsThereIsAFailureForEachTask)
{
    // A sanitizer that meets a type for the first time needs descriptors of its own.
    RunWorkers({}, {longLimit});
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::deque<Outcome> outcomes =
        RunWorkers({Doing([] { return std::string(); }), Doing([] { return std::string(); })}, {longLimit});
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.failure, "no pipe could be made: Too many open files");
        EXPECT_EQ(outcome.answer, std::nullopt);
    }
}

/** A task that is at these device files one after the other, and then never answers. */
Task HangingAt(const Texts& deviceFiles)
{
    return [deviceFiles](const Tell& tell) -> Texts {
        for (const std::string& deviceFile : deviceFiles) {
            tell.deviceFile(deviceFile);
        }
        Hang();
    };
}

class CountingObserver : public Observer {
public:
    void StillRunning(const std::vector<Waiting>& workers) override
    {
        ++calls;
        last = workers;
    }
    void BeforeMessage() override { ++messages; }

    int calls = 0;
    int messages = 0;
    std::vector<Waiting> last;
};

TEST(Workers, AreNotWaitedForByWhatIsDoneMeanwhile)
{
    const std::string file = testing::TempDir() + "/meanwhile." + std::to_string(getpid());
    int calls = 0;
    Terms terms{longLimit};
    terms.meanwhile = [&] {
        ++calls;
        std::ofstream(file) << "now";
    };
    const std::deque<Outcome> outcomes = RunWorkers({[&file](const Tell& /*tell*/) {
                                                        while (!std::filesystem::exists(file)) {
                                                            usleep(1000);
                                                        }
                                                        return Texts{"it came"};
                                                    }},
                                                    terms);
    std::filesystem::remove(file);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(outcomes.at(0).answer, Texts({"it came"}));
}

TEST(Workers, TheObserverHearsOfThoseThatRunAndOfMessages)
{
    CountingObserver observer;
    testing::internal::CaptureStderr();
    RunLate(
        {Doing([] { return std::string("a"); }),
         [](const Tell& tell) -> Texts {
             tell.deviceFile("/dev/sda");
             EXPECT_EQ(write(STDERR_FILENO, "x\n", 2), 2);
             Hang();
         }},
        [&](const std::deque<Outcome>&) {
            return observer.messages >= 1 && observer.last.size() == 1 && !observer.last[0].deviceFile.empty();
        },
        &observer);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.substr(0, 2), "x\n");
    EXPECT_EQ(2U * static_cast<std::size_t>(observer.messages), text.size());
    ASSERT_EQ(observer.last.size(), 1U);
    EXPECT_EQ(observer.last[0].deviceFile, "/dev/sda");
}

TEST(Workers, TheDeviceFileOfAWorkerThatDidNotAnswerIsNamed)
{
    CountingObserver observer;
    const auto before = std::chrono::steady_clock::now();
    const Outcome outcome =
        RunLate(
            {HangingAt({"/dev/sda", "/dev/sd\n\xff"})},
            [](const std::deque<Outcome>& all) { return all[0].deviceFile == "/dev/sd\n\xff"; }, &observer)
            .at(0);
    EXPECT_EQ(outcome.deviceFile, "/dev/sd\n\xff");
    EXPECT_GE(observer.last.at(0).since, before);
    EXPECT_LE(observer.last.at(0).since, std::chrono::steady_clock::now());
}

TEST(Workers, OfAnAnswerThereIsNoDeviceFile)
{
    const Task task = [](const Tell& tell) {
        tell.deviceFile("/dev/sda");
        return Texts{};
    };
    const Outcome outcome = RunWorkers({task}, {longLimit}).at(0);
    EXPECT_EQ(outcome.answer, Texts());
    EXPECT_EQ(outcome.deviceFile, "");
}

TEST(Workers, TheSameDeviceFileAgainIsNoNewOne)
{
    CountingObserver observer;
    RunLate(
        {[](const Tell& tell) -> Texts {
            for (;;) {
                tell.deviceFile("/dev/sda");
                usleep(10000);
            }
        }},
        [&](const std::deque<Outcome>& all) {
            return all[0].deviceFile == "/dev/sda" && observer.calls >= 2 && !observer.last.at(0).deviceFile.empty();
        },
        &observer);
    // Of what was noted again and again, the first time counts: about as long ago as the limit.
    EXPECT_GE(std::chrono::steady_clock::now() - observer.last.at(0).since, milliseconds(150));
}

TEST(Workers, SoManyAtATimeAndNoMore)
{
    const std::string directory = testing::TempDir() + "workerTest." + std::to_string(getpid());
    std::filesystem::create_directory(directory);
    std::vector<Task> tasks;
    for (int i = 0; i < 9; ++i) {
        tasks.push_back(Doing([&directory, i] {
            const std::string file = directory + "/" + std::to_string(i);
            std::ofstream{file};
            usleep(20000);
            const std::filesystem::directory_iterator entries(directory);
            const auto running = std::distance(begin(entries), end(entries));
            std::filesystem::remove(file);
            return std::to_string(running);
        }));
    }
    for (const std::size_t atATime : {1U, 3U}) {
        for (const Outcome& outcome : RunWorkers(tasks, {longLimit, nullptr, atATime})) {
            EXPECT_LE(std::stoul("0" + AnswerOf(outcome)), atATime);
            EXPECT_GE(std::stoul("0" + AnswerOf(outcome)), 1U);
        }
    }
    std::filesystem::remove_all(directory);
}

TEST(Workers, WhoWasNotStartedInTimeHasNotAnswered)
{
    const std::deque<Outcome> outcomes =
        RunWorkers({HangingAt({}), Doing([] { return std::string("a"); })}, {shortLimit, nullptr, 1});
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.failure, "no answer within 0.2 s");
        EXPECT_EQ(outcome.answer, std::nullopt);
        EXPECT_TRUE(outcome.late);
    }
}

TEST(Frames, ComeThroughInPiecesOfAnySize)
{
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    const std::vector<Frame> frames = {{Frame::Kind::DeviceFile, {""}},
                                       {Frame::Kind::Answer, {}},
                                       {Frame::Kind::Failure, {everyByte}},
                                       {Frame::Kind::Answer, {everyByte, "", "a"}}};
    std::string bytes;
    for (const Frame& frame : frames) {
        bytes += FrameBytes(frame);
    }
    for (std::size_t size = 1; size <= bytes.size(); ++size) {
        FrameReader reader;
        std::size_t next = 0;
        for (std::size_t first = 0; first < bytes.size(); first += size) {
            const std::string piece = bytes.substr(first, size);
            reader.Append(piece);
            while (const std::optional<Frame> frame = reader.Next()) {
                ASSERT_LT(next, frames.size());
                EXPECT_EQ(frame->kind, frames[next].kind);
                EXPECT_EQ(frame->texts, frames[next].texts);
                ++next;
            }
        }
        EXPECT_EQ(next, frames.size());
        EXPECT_FALSE(reader.IsBroken() || reader.IsWithinFrame());
    }
}

TEST(Frames, WhatIsNoneIsBrokenAndStaysSo)
{
    const std::string good = FrameBytes({Frame::Kind::DeviceFile, {"a"}});
    std::string tooLong = good;
    tooLong[3] = '\x7f';
    std::string unknown = good;
    unknown[4] = 'x';
    std::string textTooLong = good;
    textTooLong[5] = 2;
    std::string textTooShort = good;
    textTooShort[5] = 0;
    for (const std::string& bytes :
         {tooLong, unknown, textTooLong, textTooShort, std::string(4, '\0'), FrameBytes({Frame::Kind::DeviceFile, {}}),
          FrameBytes({Frame::Kind::Failure, {"a", "b"}})}) {
        FrameReader reader;
        reader.Append(bytes);
        EXPECT_FALSE(reader.Next());
        EXPECT_TRUE(reader.IsBroken());
        reader.Append(good);
        EXPECT_FALSE(reader.Next());
        EXPECT_TRUE(reader.IsBroken());
    }
}

TEST(Frames, HostileBytesAreReadWithoutHarm)
{
    const std::string good = FrameBytes({Frame::Kind::Answer, {"status", "text", std::string(50, 'x')}});
    std::mt19937 generator(7);
    int whole = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string bytes = good;
        for (std::size_t changes = generator() % 3 + 1; changes > 0; --changes) {
            bytes[generator() % bytes.size()] = static_cast<char>(generator());
        }
        FrameReader reader;
        reader.Append(bytes);
        if (const std::optional<Frame> frame = reader.Next()) {
            EXPECT_EQ(FrameBytes(*frame), bytes.substr(0, FrameBytes(*frame).size()));
            ++whole;
        }
    }
    EXPECT_GT(whole, 0);
    EXPECT_LT(whole, 20000);
}

TEST(Progress, ALineThatIsShownMakesRoomForAMessage)
{
    Progress line;
    usleep(1100000);
    testing::internal::CaptureStderr();
    line.StillRunning({});
    line.BeforeMessage();
    line.BeforeMessage();
    const std::string written = testing::internal::GetCapturedStderr();
    const std::size_t erasing = written.find('\r', 1);
    ASSERT_NE(erasing, std::string::npos) << written;
    EXPECT_EQ(written.substr(0, erasing).find("\rzddevices: asking the devices ("), 0U) << written;
    EXPECT_EQ(written.substr(erasing), "\r" + std::string(erasing - 1, ' ') + "\r");
}

TEST(Progress, NamesTheDevicesThatAreKnownLongestFirst)
{
    const std::chrono::steady_clock::time_point start{};
    const auto now = start + milliseconds(12900);
    EXPECT_EQ(DescribeProgress({}, start, now), "asking the devices (12 s)");
    EXPECT_EQ(DescribeProgress({{"", start}}, start, now), "asking the devices (12 s)");
    EXPECT_EQ(DescribeProgress({{"/dev/sg3", start + seconds(10)}, {"", start}, {"/dev/sdb", start + seconds(2)}},
                               start, now),
              "asking /dev/sdb (10 s), /dev/sg3 (2 s)");
    EXPECT_EQ(DescribeProgress({{"/dev/sd\x1b[2J", start}}, start, now), "asking /dev/sd\\x1b[2J (12 s)");
}

}  // namespace
}  // namespace Zendra::ZDDevices
