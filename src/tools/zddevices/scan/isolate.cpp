#include "tools/zddevices/scan/isolate.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/crc.hpp>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iomanip>
#include <limits>
#include <new>
#include <sstream>
#include <utility>

namespace Zendra {
namespace ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;

/** A host of ten thousand disks stays far below. */
constexpr std::size_t largestAnswer = 64UL * 1024 * 1024;

/** What is longer is written in pieces, between which other children's lines may come. */
constexpr std::size_t longestLine = 1024UL * 1024;

/** A process that can be killed at all is gone by then, on a busy host too. */
constexpr Duration graceAfterKill = std::chrono::milliseconds(250);

/** A child has closed its pipes some microseconds before it can be waited for. */
constexpr Duration reapInterval = std::chrono::milliseconds(1);

constexpr Duration observeInterval = std::chrono::milliseconds(200);

constexpr int noDescriptor = -1;

class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, noDescriptor)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }

    void Set(int newNumber)
    {
        Close();
        number = newNumber;
    }
    void Close()
    {
        if (number != noDescriptor) {
            close(std::exchange(number, noDescriptor));
        }
    }
    int Get() const { return number; }
    bool IsOpen() const { return number != noDescriptor; }

private:
    int number = noDescriptor;
};

bool MakePipe(Descriptor& readEnd, Descriptor& writeEnd)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    readEnd.Set(ends[0]);
    writeEnd.Set(ends[1]);
    return fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0;
}

/** How the child's work ended. */
enum class Ending : std::uint32_t { Answered = 0x41444E5A, Failed = 0x46444E5A };

/** What stands before the bytes of an answer. Both ends are the same program, so the layout needs no standard. */
struct Header {
    Ending ending;
    std::uint32_t checksum;
    std::uint64_t size;
};

std::uint32_t Checksum(const char* bytes, std::size_t size)
{
    boost::crc_32_type crc;
    crc.process_bytes(bytes, size);
    return crc.checksum();
}

/** The answer or, out of a child that could say it, the failure; false when it is neither. */
bool Unpack(const std::string& packed, Outcome& outcome)
{
    Header header{};
    if (packed.size() < sizeof(header)) {
        return false;
    }
    std::memcpy(&header, packed.data(), sizeof(header));
    const char* bytes = packed.data() + sizeof(header);
    const std::size_t size = packed.size() - sizeof(header);
    if (header.size != size || header.checksum != Checksum(bytes, size)) {
        return false;
    }
    switch (header.ending) {
    case Ending::Answered:
        outcome.answer.emplace(bytes, size);
        return true;
    case Ending::Failed:
        outcome.failure.assign(bytes, size);
        return !outcome.failure.empty();
    }
    return false;
}

bool WriteAll(int descriptor, const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = write(descriptor, bytes, size);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        if (count > 0) {
            bytes += count;
            size -= static_cast<std::size_t>(count);
        }
    }
    return true;
}

bool SendAnswer(int descriptor, Ending ending, const std::string& bytes)
{
    const Header header{ending, Checksum(bytes.data(), bytes.size()), bytes.size()};
    std::array<char, sizeof(header)> start{};
    std::memcpy(start.data(), &header, sizeof(header));
    return WriteAll(descriptor, start.data(), start.size()) && WriteAll(descriptor, bytes.data(), bytes.size());
}

bool SameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_rdev == other.st_rdev;
}

/**
 * Puts something harmless behind every descriptor that leads out of this program, without freeing its number: loggers
 * keep copies of standard error, callers pass on more than they know (a lock, the end of a pipe), and a number that
 * became free would be given to the next device file.
 */
bool LetGoOfInheritedFiles(int answer, int messages)
{
    constexpr int lowestOther = STDERR_FILENO + 1;
    constexpr int usualDescriptors = 1024;
    const int nowhere = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat standardOutput {};
    struct stat standardError {};
    if (nowhere < 0 || fstat(STDOUT_FILENO, &standardOutput) != 0 || fstat(STDERR_FILENO, &standardError) != 0) {
        return false;
    }
    for (int number = lowestOther; number < usualDescriptors; ++number) {
        const int flags = number == nowhere || number == answer || number == messages ? -1 : fcntl(number, F_GETFD);
        struct stat file {};
        if (flags < 0 || fstat(number, &file) != 0) {
            continue;
        }
        if (SameFile(file, standardError)) {
            dup3(messages, number, O_CLOEXEC);
        } else if (SameFile(file, standardOutput) || (flags & FD_CLOEXEC) == 0) {
            dup3(nowhere, number, O_CLOEXEC);
        }
    }
    return dup2(nowhere, STDIN_FILENO) == STDIN_FILENO && dup2(nowhere, STDOUT_FILENO) == STDOUT_FILENO &&
           dup2(messages, STDERR_FILENO) == STDERR_FILENO;
}

[[noreturn]] void DoWork(const Task& task, int answer, int messages) noexcept
{
    if (!LetGoOfInheritedFiles(answer, messages)) {
        _exit(EXIT_FAILURE);
    }
    bool sent = false;
    try {
        const std::string bytes = task.run();
        sent = SendAnswer(answer, Ending::Answered, bytes);
    } catch (const std::bad_alloc&) {
        sent = SendAnswer(answer, Ending::Failed, "out of memory");
    } catch (const std::exception& error) {
        sent = SendAnswer(answer, Ending::Failed, error.what());
    } catch (...) {
        sent = SendAnswer(answer, Ending::Failed, "unknown failure");
    }
    // Not exit(): what is to be done at the end of the program is the parent's.
    _exit(sent ? EXIT_SUCCESS : EXIT_FAILURE);
}

/** While this lives, ended children stay until they are waited for, whatever our caller made of SIGCHLD. */
class ChildSignal {
public:
    ChildSignal()
    {
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &standard, &former);
    }
    ~ChildSignal() { Restore(); }
    ChildSignal(const ChildSignal&) = delete;
    ChildSignal& operator=(const ChildSignal&) = delete;

    void Restore() const { sigaction(SIGCHLD, &former, nullptr); }

private:
    struct sigaction former {};
};

std::string Seconds(Duration duration)
{
    std::ostringstream text;
    text << std::setprecision(std::numeric_limits<double>::digits10) << std::chrono::duration<double>(duration).count()
         << " s";
    return text.str();
}

/** One child, from its start until it has ended or is left behind. */
class Child {
public:
    Child(const Task& work, Clock::time_point start) : task(&work), started(start) {}

    void Start(const std::vector<Child>& others, const ChildSignal& childSignal)
    {
        Descriptor answerEnd;
        Descriptor messageEnd;
        if (!MakePipe(answer, answerEnd) || !MakePipe(messages, messageEnd)) {
            return GiveUp("no pipe could be made: " + std::string(std::strerror(errno)));
        }
        const pid_t parent = getpid();
        process = fork();
        if (process < 0) {
            return GiveUp("no process could be started: " + std::string(std::strerror(errno)));
        }
        if (process == 0) {
            // A group of its own, so that what it starts can be killed with it.
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(EXIT_FAILURE);
            }
            childSignal.Restore();
            for (const Child& other : others) {
                other.CloseInChild();
            }
            DoWork(*task, answerEnd.Get(), messageEnd.Get());
        }
        // Again, for the child may not have run yet when it is to be killed.
        setpgid(process, process);
    }

    bool IsRunning() const { return process > 0; }
    const Task& Work() const { return *task; }
    bool HasClosed() const { return !answer.IsOpen(); }
    int AnswerDescriptor() const { return answer.Get(); }
    int MessageDescriptor() const { return messages.Get(); }
    Outcome TakeOutcome() { return std::move(outcome); }

    /** Takes in what has come through the pipes. */
    void Read(Observer* observer)
    {
        Take(answer, received);
        if (answer.IsOpen() && received.size() > sizeof(Header) + largestAnswer) {
            Kill();
            answer.Close();
        }
        Take(messages, unwritten);
        const std::size_t end = unwritten.rfind('\n');
        if (end != std::string::npos) {
            PassOn(end + 1, observer);
        } else if (unwritten.size() > longestLine) {
            PassOn(unwritten.size(), observer);
        }
    }

    /** Whether the child has ended; then the outcome is there. */
    bool Reap(Observer* observer)
    {
        int status = 0;
        const pid_t result = waitpid(process, &status, WNOHANG);
        if (result == 0 || (result < 0 && errno == EINTR)) {
            return false;
        }
        process = noProcess;
        Read(observer);
        PassOn(unwritten.size(), observer);
        if (result < 0) {
            GiveUp("its end could not be seen");
        } else if (WIFSIGNALED(status)) {
            GiveUp("its process was ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
                   strsignal(WTERMSIG(status)) + ")");
        } else if (WEXITSTATUS(status) != EXIT_SUCCESS || !Unpack(received, outcome)) {
            GiveUp("its process gave no proper answer");
        }
        outcome.elapsed = Clock::now() - started;
        Release();
        return true;
    }

    /** The time is over. */
    void End(Duration limit)
    {
        late = "no answer within " + Seconds(limit);
        Kill();
    }

    /** It cannot be ended. */
    void Leave(Observer* observer)
    {
        process = noProcess;
        PassOn(unwritten.size(), observer);
        GiveUp("");
        outcome.elapsed = Clock::now() - started;
        Release();
    }

private:
    static constexpr pid_t noProcess = -1;

    void CloseInChild() const
    {
        for (const int descriptor : {answer.Get(), messages.Get()}) {
            if (descriptor != noDescriptor) {
                close(descriptor);
            }
        }
    }

    void Kill() const
    {
        // Without a child the number would mean every process of this user.
        if (IsRunning()) {
            kill(-process, SIGKILL);
            kill(process, SIGKILL);
        }
    }

    void GiveUp(const std::string& failure)
    {
        outcome.answer.reset();
        outcome.device = task->look ? task->look().device : std::string();
        outcome.failure = late.empty() ? failure : late;
        Release();
    }

    void Release()
    {
        answer.Close();
        messages.Close();
        received.clear();
        received.shrink_to_fit();
    }

    /** Appends what waits in the pipe; closes it at its end. */
    static void Take(Descriptor& pipe, std::string& bytes)
    {
        std::array<char, 65536> chunk{};
        while (pipe.IsOpen() && bytes.size() <= sizeof(Header) + largestAnswer) {
            const ssize_t count = read(pipe.Get(), chunk.data(), chunk.size());
            if (count > 0) {
                bytes.append(chunk.data(), static_cast<std::size_t>(count));
            } else if (count == 0) {
                pipe.Close();
            } else if (errno != EINTR) {
                return;
            }
        }
    }

    /** Writes the first bytes of the messages to standard error. */
    void PassOn(std::size_t size, Observer* observer)
    {
        if (size == 0) {
            return;
        }
        if (observer != nullptr) {
            observer->BeforeMessage();
        }
        WriteAll(STDERR_FILENO, unwritten.data(), size);
        unwritten.erase(0, size);
    }

    const Task* task;
    Clock::time_point started;
    pid_t process = noProcess;
    Descriptor answer;
    Descriptor messages;
    std::string received;
    std::string unwritten;
    std::string late;
    Outcome outcome;
};

bool AnyRuns(const std::vector<Child>& children)
{
    return std::any_of(children.begin(), children.end(), [](const Child& child) { return child.IsRunning(); });
}

/** Waits until a child has written, ended or closed its pipes, or until so much time has passed. */
void Wait(const std::vector<Child>& children, std::optional<Duration> longest)
{
    std::vector<pollfd> descriptors;
    for (const Child& child : children) {
        for (const int descriptor : {child.AnswerDescriptor(), child.MessageDescriptor()}) {
            if (descriptor != noDescriptor) {
                descriptors.push_back({descriptor, POLLIN, 0});
            }
        }
        if (child.IsRunning() && child.HasClosed()) {
            longest = std::min(longest.value_or(reapInterval), reapInterval);
        }
    }
    timespec time{};
    if (longest) {
        const Duration wait = std::max(*longest, Duration::zero());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
        time.tv_sec = seconds.count();
        time.tv_nsec = (wait - seconds).count();
    }
    ppoll(descriptors.data(), descriptors.size(), longest ? &time : nullptr, nullptr);
}

}  // namespace

std::vector<Outcome> RunIsolated(const std::vector<Task>& tasks, std::optional<Duration> limit, Observer* observer)
{
    const ChildSignal childSignal;
    const Clock::time_point started = Clock::now();
    std::vector<Child> children;
    children.reserve(tasks.size());
    for (const Task& task : tasks) {
        children.emplace_back(task, started);
        children.back().Start(children, childSignal);
    }
    bool killed = false;
    while (AnyRuns(children)) {
        std::optional<Duration> longest;
        if (limit) {
            longest = (killed ? *limit + graceAfterKill : *limit) - (Clock::now() - started);
        }
        if (observer != nullptr) {
            longest = std::min(longest.value_or(observeInterval), observeInterval);
        }
        Wait(children, longest);
        std::vector<const Task*> running;
        for (Child& child : children) {
            if (child.IsRunning()) {
                child.Read(observer);
                if (!(child.HasClosed() || killed) || !child.Reap(observer)) {
                    running.push_back(&child.Work());
                }
            }
        }
        const Duration passed = Clock::now() - started;
        if (limit && passed >= *limit + graceAfterKill && killed) {
            for (Child& child : children) {
                if (child.IsRunning()) {
                    child.Leave(observer);
                }
            }
        } else if (limit && passed >= *limit && !killed) {
            killed = true;
            for (Child& child : children) {
                if (child.IsRunning()) {
                    child.End(*limit);
                }
            }
        }
        if (observer != nullptr && !running.empty()) {
            observer->StillRunning(running);
        }
    }
    std::vector<Outcome> outcomes;
    outcomes.reserve(children.size());
    for (Child& child : children) {
        outcomes.push_back(child.TakeOutcome());
    }
    return outcomes;
}

}  // namespace ZDDevices
}  // namespace Zendra
