#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/replace.hpp>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "toolTests.h"
#include "tools/zddevices/scan/answer.h"
#include "tools/zddevices/scan/deviceWatch.h"
#include "tools/zddevices/scan/isolate.h"
#include "tools/zddevices/scan/progress.h"

/** In place of the C library's: what is more than a child and its group is a failure, and stays alive. */
extern "C" int kill(pid_t process, int signal) noexcept
{
    if (process >= -1 && process <= 1) {
        ADD_FAILURE() << "kill(" << process << ") ends more than a child";
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_kill, process, signal));
}

namespace Zendra {
namespace ZDDevices {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/** For children that never answer. */
constexpr milliseconds shortLimit(200);

/** For runs that must not come near it. */
constexpr seconds longLimit(600);

const char* const improper = "its process gave no proper answer";

[[noreturn]] void Hang()
{
    for (;;) {
        pause();
    }
}

Outcome RunOne(const std::function<std::string()>& work, std::optional<Duration> limit = longLimit)
{
    return RunIsolated({{"one", work}}, limit).at(0);
}

/**
 * Runs tasks some of which never answer, with more time while the others, or what is to be seen of them, are not there
 * yet: how fast the machine is must not matter.
 */
template <typename IsReady>
std::vector<Outcome> RunLate(const std::vector<Task>& tasks, IsReady isReady, Observer* observer = nullptr)
{
    std::vector<Outcome> outcomes;
    for (const Duration limit : {Duration(milliseconds(300)), Duration(seconds(5)), Duration(seconds(90))}) {
        outcomes = RunIsolated(tasks, limit, observer);
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

TEST(Isolated, AnswersAreAllBytesInTheOrderOfTheTasks)
{
    std::string everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte += static_cast<char>(i);
    }
    std::string large(3000000, 'x');
    const std::vector<Outcome> outcomes = RunIsolated({{"first",
                                                        [] {
                                                            usleep(50000);
                                                            return std::string("slow");
                                                        }},
                                                       {"second", [&] { return everyByte; }},
                                                       {"third", [] { return std::string(); }},
                                                       {"fourth", [&] { return large; }}},
                                                      longLimit);
    ASSERT_EQ(outcomes.size(), 4U);
    EXPECT_EQ(outcomes[0].answer, "slow");
    EXPECT_EQ(outcomes[1].answer, everyByte);
    EXPECT_EQ(outcomes[2].answer, "");
    EXPECT_TRUE(outcomes[3].answer == large);
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.failure, "");
    }
    EXPECT_GE(outcomes[0].elapsed, milliseconds(50));
}

TEST(Isolated, WithoutALimitIsWaitedFor)
{
    EXPECT_EQ(RunOne([] { return std::string("answer"); }, std::nullopt).answer, "answer");
    EXPECT_TRUE(RunIsolated({}, std::nullopt).empty());
}

TEST(Isolated, NothingIsLeftBehindWhenAllAreThroughOrCouldBeEnded)
{
    const std::size_t before = OpenDescriptors();
    RunIsolated({{"good", [] { return std::string("a"); }},
                 {"dead",
                  []() -> std::string {
                      static_cast<void>(raise(SIGKILL));
                      return {};
                  }},
                 {"late", []() -> std::string { Hang(); }}},
                shortLimit);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(HasChildren());
}

TEST(Isolated, LateChildrenDoNotKeepTheOthersAnswersBack)
{
    const std::vector<Outcome> outcomes =
        RunLate({{"late", []() -> std::string { Hang(); }}, {"good", [] { return std::string("a"); }}},
                [](const std::vector<Outcome>& all) { return all[1].answer.has_value(); });
    EXPECT_EQ(outcomes[0].answer, std::nullopt);
    EXPECT_EQ(outcomes[0].failure.rfind("no answer within ", 0), 0U) << outcomes[0].failure;
    EXPECT_GE(outcomes[0].elapsed, milliseconds(300));
    EXPECT_EQ(outcomes[1].answer, "a");
    EXPECT_EQ(outcomes[1].failure, "");
    EXPECT_LT(outcomes[1].elapsed, outcomes[0].elapsed);
}

TEST(Isolated, TheLimitIsNamed)
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

TEST(Isolated, WhatALateChildHasStartedEndsWithIt)
{
    const std::string file = testing::TempDir() + "isolateTest." + std::to_string(getpid());
    pid_t grandchild = 0;
    RunLate({{"late",
              [&]() -> std::string {
                  if (fork() == 0) {
                      std::ofstream(file) << getpid() << std::endl;
                      Hang();
                  }
                  Hang();
              }}},
            [&](const std::vector<Outcome>&) {
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

TEST(Isolated, WhatIsThrownIsTheFailure)
{
    EXPECT_EQ(RunOne([]() -> std::string { throw std::runtime_error("bang"); }).failure, "bang");
    EXPECT_EQ(RunOne([]() -> std::string { throw std::bad_alloc(); }).failure, "out of memory");
    EXPECT_EQ(RunOne([]() -> std::string { throw 42; }).failure, "unknown failure");
    EXPECT_EQ(RunOne([]() -> std::string { throw std::runtime_error(""); }).failure, improper);
}

TEST(Isolated, DeathIsAFailure)
{
    EXPECT_EQ(RunOne([]() -> std::string {
                  static_cast<void>(raise(SIGKILL));
                  return "a";
              }).failure,
              "its process was ended by signal 9 (Killed)");
    EXPECT_EQ(RunOne([]() -> std::string { _exit(0); }).failure, improper);
    EXPECT_EQ(RunOne([]() -> std::string { _exit(1); }).failure, improper);
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

TEST(Isolated, WhatIsNotWholeIsNoAnswer)
{
    for (const char* rubbish : {"x", "rubbish that is longer than what stands before an answer", "ZNDA"}) {
        EXPECT_EQ(RunOne([&] {
                      WriteToPipes(rubbish);
                      return std::string("answer");
                  }).failure,
                  improper);
        EXPECT_EQ(RunOne([&]() -> std::string {
                      WriteToPipes(rubbish);
                      _exit(0);
                  }).failure,
                  improper);
    }
}

TEST(Isolated, WhatHasTheFormOfAnAnswerMustBeWhatWasSent)
{
    // What stands before an answer: a word, a checksum of the answer's bytes, and their number.
    const std::string word = "ZNDA";
    const std::string checksum("\x43\xbe\xb7\xe8", 4);  // CRC-32 of "a"
    const std::string one("\x01\0\0\0\0\0\0\0", 8);
    const auto sent = [](const std::string& bytes) {
        return RunOne([&]() -> std::string {
            WriteToPipes(bytes);
            _exit(0);
        });
    };
    EXPECT_EQ(sent(word + checksum + one + "a").answer, "a");
    EXPECT_EQ(sent(word + checksum + one + "b").failure, improper);
    EXPECT_EQ(sent(word + checksum + one).failure, improper);
    EXPECT_EQ(sent(word + checksum + one + "aa").failure, improper);
    EXPECT_EQ(sent("zNDA" + checksum + one + "a").failure, improper);
}

TEST(Isolated, AnswersWithoutEndAreCutOff)
{
    const Outcome outcome = RunOne([]() -> std::string {
        const std::string chunk(1000000, 'x');
        for (;;) {
            WriteToPipes(chunk);
        }
    });
    EXPECT_EQ(outcome.answer, std::nullopt);
    EXPECT_EQ(outcome.failure, "its process was ended by signal 9 (Killed)");
    EXPECT_FALSE(HasChildren());
}

TEST(Isolated, ChildrenHoldNothingThatOthersMayWaitFor)
{
    std::array<int, 2> pipeEnds{};
    ASSERT_EQ(pipe(pipeEnds.data()), 0);
    const int outputCopy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int errorCopy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const std::string held = RunOne(OpenFiles).answer.value_or("");
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

TEST(Isolated, NumbersOfDescriptorsStayTaken)
{
    std::array<int, 2> pipeEnds{};
    ASSERT_EQ(pipe(pipeEnds.data()), 0);
    const std::string lowest = RunOne([] { return std::to_string(open("/", O_RDONLY)); }).answer.value_or("");
    EXPECT_GT(std::stoi("0" + lowest), pipeEnds[1]);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

TEST(Isolated, MessagesComeThroughLineByLine)
{
    const auto talk = [](char letter) {
        return [letter] {
            for (int line = 0; line < 50; ++line) {
                for (int half = 0; half < 2; ++half) {
                    const std::string text(100, letter);
                    EXPECT_EQ(write(STDERR_FILENO, text.data(), text.size()), 100);
                }
                EXPECT_EQ(write(STDERR_FILENO, "\n", 1), 1);
            }
            EXPECT_EQ(write(STDERR_FILENO, "end", 3), 3);
            return std::string("a");
        };
    };
    testing::internal::CaptureStderr();
    const std::vector<Outcome> outcomes = RunIsolated({{"x", talk('x')}, {"y", talk('y')}}, longLimit);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.size(), 2U * (50 * 201 + 3));
    std::istringstream lines(text);
    std::size_t whole = 0;
    for (std::string line; std::getline(lines, line);) {
        whole += line == std::string(200, 'x') || line == std::string(200, 'y') ? 1 : 0;
    }
    // A last line without its end takes the next line in.
    EXPECT_GE(whole, 98U);
    EXPECT_EQ(outcomes[0].answer, "a");
}

TEST(Isolated, MessagesOfALateChildAreKept)
{
    std::string text;
    testing::internal::CaptureStderr();
    RunLate({{"late",
              []() -> std::string {
                  EXPECT_EQ(write(STDERR_FILENO, "last words", 10), 10);
                  Hang();
              }}},
            [&](const std::vector<Outcome>&) {
                text = testing::internal::GetCapturedStderr();
                testing::internal::CaptureStderr();
                return !text.empty();
            });
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(text, "last words");
}

TEST(Isolated, ACallerThatIgnoresItsChildrenGetsAnswersToo)
{
    signal(SIGCHLD, SIG_IGN);
    const Outcome outcome = RunOne([] { return std::string(signal(SIGCHLD, SIG_DFL) == SIG_IGN ? "ignored" : "not"); });
    EXPECT_EQ(signal(SIGCHLD, SIG_DFL), SIG_IGN);
    EXPECT_EQ(outcome.answer, "ignored");
}

TEST(Isolated, WithoutDescriptorsThereIsAFailureForEachTask)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::vector<Outcome> outcomes =
        RunIsolated({{"a", [] { return std::string(); }}, {"b", [] { return std::string(); }}}, longLimit);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.failure, "no pipe could be made: Too many open files");
        EXPECT_EQ(outcome.answer, std::nullopt);
    }
}

class CountingObserver : public Observer {
public:
    void StillRunning(const std::vector<const Task*>& tasks) override
    {
        ++calls;
        names = tasks.at(0)->name;
    }
    void BeforeMessage() override { ++messages; }

    int calls = 0;
    int messages = 0;
    std::string names;
};

TEST(Isolated, TheObserverHearsOfTasksThatRunAndOfMessages)
{
    CountingObserver observer;
    testing::internal::CaptureStderr();
    RunLate(
        {{"good", [] { return std::string("a"); }},
         {"late",
          []() -> std::string {
              EXPECT_EQ(write(STDERR_FILENO, "x\n", 2), 2);
              Hang();
          }}},
        [&](const std::vector<Outcome>&) { return observer.calls >= 2 && observer.messages >= 1; }, &observer);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.substr(0, 2), "x\n");
    EXPECT_EQ(2U * static_cast<std::size_t>(observer.messages), text.size());
    EXPECT_EQ(observer.names, "late");
}

const char* const opens = "Enter DataOperator::OpenDriveFile() driveName = ";

TEST(DeviceWatch, SeesTheDeviceThatAChildIsAt)
{
    const auto watch = std::make_shared<DeviceWatch>();
    EXPECT_EQ(watch->Look().device, "");
    const auto before = std::chrono::steady_clock::now();
    Task task{"one",
              [watch]() -> std::string {
                  watch->Note(std::string(opens) + "/dev/sda");
                  watch->Note(std::string(opens) + "/dev/sdb");
                  watch->Note("Enter DataOperator::ExecIoCtl().");
                  Hang();
              },
              [watch] { return watch->Look(); }};
    const Outcome outcome =
        RunLate({task}, [](const std::vector<Outcome>& all) { return all[0].device == "/dev/sdb"; }).at(0);
    EXPECT_EQ(outcome.device, "/dev/sdb");
    EXPECT_GE(watch->Look().since, before);
    EXPECT_LE(watch->Look().since, std::chrono::steady_clock::now());
}

TEST(DeviceWatch, OfAnAnswerThereIsNoDevice)
{
    const auto watch = std::make_shared<DeviceWatch>();
    Task task{"one",
              [watch] {
                  watch->Note(std::string(opens) + "/dev/sda");
                  return std::string("answer");
              },
              [watch] { return watch->Look(); }};
    EXPECT_EQ(RunIsolated({task}, longLimit).at(0).device, "");
    EXPECT_EQ(watch->Look().device, "/dev/sda");
}

TEST(DeviceWatch, TheSameDeviceAgainIsNoNewOne)
{
    DeviceWatch watch;
    watch.Note(std::string(opens) + "/dev/sda");
    const auto since = watch.Look().since;
    watch.Note(std::string(opens) + "/dev/sda");
    EXPECT_EQ(watch.Look().since, since);
    watch.Note(std::string(opens) + "/dev/sd");
    EXPECT_EQ(watch.Look().device, "/dev/sd");
    EXPECT_GT(watch.Look().since, since);
    const auto shorter = watch.Look().since;
    watch.Note(std::string(opens) + "/dev/sda");
    EXPECT_GT(watch.Look().since, shorter);
}

TEST(DeviceWatch, LongNamesAreCut)
{
    DeviceWatch watch;
    watch.Note(opens + std::string(1000, 'x'));
    EXPECT_EQ(watch.Look().device, std::string(255, 'x'));
    watch.Note(opens + std::string(255, 'y'));
    EXPECT_EQ(watch.Look().device, std::string(255, 'y'));
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

template <typename Record>
void ExpectToComeBack(const Answer<Record>& answer)
{
    const std::string bytes = Encode(answer);
    std::optional<Answer<Record>> decoded = Decode<Record>(bytes);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->status, answer.status);
    ASSERT_EQ(decoded->records.size(), answer.records.size());
    for (std::size_t i = 0; i < answer.records.size(); ++i) {
        Record original = answer.records[i];
        const std::vector<std::string*> expected = Texts(original);
        const std::vector<std::string*> actual = Texts(decoded->records[i]);
        for (std::size_t field = 0; field < expected.size(); ++field) {
            EXPECT_EQ(*actual[field], *expected[field]) << "field " << field;
        }
    }
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_FALSE(Decode<Record>(bytes.substr(0, size))) << size;
    }
    EXPECT_FALSE(Decode<Record>(bytes + '\0'));
}

/** A record in which every text is another one, each with bytes that are no text at all. */
template <typename Record>
Record Distinct()
{
    Record record;
    char first = 'a';
    for (std::string* text : Texts(record)) {
        *text = std::string(1, first++) + std::string("\0\xff\xc3", 3);
    }
    return record;
}

TEST(Answer, ComesBackAsItWas)
{
    ExpectToComeBack<ZDSystemDevice::SystemDevice>({6, {}});
    ExpectToComeBack<ZDSystemDevice::SystemDevice>({4294967295U, {Distinct<ZDSystemDevice::SystemDevice>(), {}}});
    ExpectToComeBack<ZDSystemDevice::OpticalProperty>({0, {Distinct<ZDSystemDevice::OpticalProperty>(), {}}});
    ExpectToComeBack<ZDOptions::SoftwareIdentity_>({0, {Distinct<ZDOptions::SoftwareIdentity_>(), {}}});
}

TEST(Answer, OfAnotherKindIsNone)
{
    const std::string devices = Encode<ZDSystemDevice::SystemDevice>({0, {{}}});
    EXPECT_FALSE(Decode<ZDSystemDevice::OpticalProperty>(devices));
    EXPECT_FALSE(Decode<ZDOptions::SoftwareIdentity_>(devices));
    EXPECT_TRUE(Decode<ZDSystemDevice::SystemDevice>(devices));
}

TEST(Answer, KeepsEveryByteOfEveryText)
{
    std::mt19937 generator(11);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<std::size_t> size(0, 40);
    std::array<bool, 256> seen{};
    for (int round = 0; round < 2000; ++round) {
        DeviceAnswer answer;
        answer.status = static_cast<unsigned int>(generator());
        for (int records = round % 4; records > 0; --records) {
            for (std::string* text : Texts(answer.records.emplace_back())) {
                text->resize(size(generator));
                for (char& c : *text) {
                    c = static_cast<char>(byte(generator));
                    seen[static_cast<unsigned char>(c)] = true;
                }
            }
        }
        std::optional<DeviceAnswer> decoded = Decode<ZDSystemDevice::SystemDevice>(Encode(answer));
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->status, answer.status);
        ASSERT_EQ(decoded->records.size(), answer.records.size());
        for (std::size_t i = 0; i < answer.records.size(); ++i) {
            const std::vector<std::string*> expected = Texts(answer.records[i]);
            const std::vector<std::string*> actual = Texts(decoded->records[i]);
            for (std::size_t field = 0; field < expected.size(); ++field) {
                ASSERT_EQ(*actual[field], *expected[field]) << "field " << field;
            }
        }
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 256);
}

TEST(Answer, HostileBytesAreNone)
{
    HostileTexts texts(7);
    const std::string bytes = Encode<ZDSystemDevice::SystemDevice>({12, {Distinct<ZDSystemDevice::SystemDevice>()}});
    const std::string pieces = "[]{},:\"\\u0-+.eE9 \n";
    std::mt19937 generator(7);
    std::uniform_int_distribution<int> byte(0, 255);
    int good = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string changed = bytes;
        const std::size_t place = generator() % changed.size();
        const char c = round % 2 == 0 ? static_cast<char>(byte(generator)) : pieces[generator() % pieces.size()];
        switch (round % 3) {
        case 0:
            changed[place] = c;
            break;
        case 1:
            changed.insert(place, 1, c);
            break;
        default:
            changed.erase(place, 1);
            break;
        }
        const auto answer = Decode<ZDSystemDevice::SystemDevice>(changed);
        if (answer) {
            // A byte inside of a text may change, and a digit of the status; that is another answer then.
            EXPECT_EQ(Encode(*answer), changed);
            ++good;
        }
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>(texts.Next()));
    }
    EXPECT_GT(good, 0);
    EXPECT_LT(good, 20000);
}

TEST(Answer, WhatSaysTheSameInAnotherWayIsNone)
{
    ASSERT_EQ(Encode(DeviceAnswer{12, {}}), "[12,[]]");
    for (const char* bytes : {" [12,[]]", "[12,[]] ", "[12, []]", "[012,[]]", "[+12,[]]", "[12.0,[]]", "[1.2e1,[]]",
                              "[\"12\",[]]", "[12,[],[]]", "[12,[]][]", "[[],12]", "[12,{}]", "{\"12\":[]}", "[12]",
                              "[12,[[]]]", "[12,null]", "[true,[]]", "12", "[]"}) {
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>(bytes)) << bytes;
    }
    const std::string record = R"([12,[["a","","","","","","","",""]]])";
    EXPECT_TRUE(Decode<ZDSystemDevice::SystemDevice>(record));
    for (const char* text : {R"("\u0061")", R"("\ud800")", R"("\x")", "null", "1", "[]", "{}"}) {
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>(boost::algorithm::replace_first_copy(record, R"("a")", text)))
            << text;
    }
}

TEST(Answer, NumbersBeyondAStatusAreNone)
{
    EXPECT_TRUE(Decode<ZDSystemDevice::SystemDevice>("[4294967295,[]]"));
    const std::vector<std::string> numbers = {
        "4294967296",
        "18446744073709551616",
        "-1",
        "-0",
        "-2147483649",
        "0.5",
        "1e999",
        "1e-2147483648",
        "0.00000000000000000000000000000000000000001e-2147483639",
        "0." + std::string(100000, '0') + "1e-2147483639",
        "1e" + std::string(100000, '9'),
        "1" + std::string(100000, '0'),
        std::string(100000, '9') + ".5",
        "NaN",
        "Infinity",
        "-Infinity",
    };
    for (const std::string& number : numbers) {
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>("[" + number + ",[]]")) << number.substr(0, 80);
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>(number)) << number.substr(0, 80);
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>("[12,[" + number + "]]")) << number.substr(0, 80);
    }
}

TEST(Answer, BytesNestedHoweverDeeplyAreNone)
{
    constexpr std::size_t depth = 10000000;
    for (const char* piece : {"[", "{", "[[12,", "{\"a\":", "[12,[[", "]", "\"\\"}) {
        std::string bytes;
        while (bytes.size() < depth) {
            bytes += piece;
        }
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>(bytes)) << piece;
        EXPECT_FALSE(Decode<ZDSystemDevice::SystemDevice>("[12,[" + bytes)) << piece;
    }
}

}  // namespace
}  // namespace ZDDevices
}  // namespace Zendra
