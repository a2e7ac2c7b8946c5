#include "tools/zddevices/scan/worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/format.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <list>
#include <new>
#include <string_view>
#include <utility>

#include "common/descriptor.h"
#include "tools/zddevices/output/console.h"
#include "tools/zddevices/scan/frame.h"

namespace Zendra::ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;

/** What is longer is written in pieces, between which other workers' lines may come. */
constexpr std::size_t longestLine = 1024UL * 1024;

/** As much as a pipe holds. */
constexpr std::size_t longestPiece = 65536;

/** A process that can be killed at all is gone by then, on a busy host too. */
constexpr Duration graceAfterKill = std::chrono::milliseconds(250);

/** A worker has closed its pipes some microseconds before it can be waited for. */
constexpr Duration reapInterval = std::chrono::milliseconds(1);

/** What waits in a pipe, or a piece of it; closes the pipe at its end. */
std::string ReadPiece(Descriptor& pipe)
{
    std::array<char, longestPiece> piece;
    const ssize_t count = pipe.IsOpen() ? read(pipe.Get(), piece.data(), piece.size()) : 0;
    if (count == 0) {
        pipe.Close();
    }
    return {piece.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
}

bool MakePipe(Descriptor& readEnd, Descriptor& writeEnd)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    readEnd = Descriptor(ends[0]);
    writeEnd = Descriptor(ends[1]);
    return fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0;
}

/**
 * Puts something harmless behind every descriptor that this worker has inherited, so that nobody waits for it. The
 * numbers stay taken: loggers keep copies of standard error, and a number that became free would be given to the next
 * device file. Standard error and its copies lead into `messages`, all others to a directory that takes no output;
 * `answer` stays. Without /proc only the standard descriptors are changed.
 */
bool LetGoOfInheritedFiles(int answer, int messages)
{
    std::vector<int> inherited;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        inherited.push_back(std::stoi(entry.path().filename()));
    }
    struct stat standardError {};
    const Descriptor nowhere(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!nowhere.IsOpen() || fstat(STDERR_FILENO, &standardError) != 0) {
        return false;
    }
    for (const int number : inherited) {
        struct stat file {};
        if (number <= STDERR_FILENO || number == answer || number == messages || number == nowhere.Get() ||
            fstat(number, &file) != 0) {
            continue;
        }
        const bool isStandardError = file.st_dev == standardError.st_dev && file.st_ino == standardError.st_ino &&
                                     file.st_rdev == standardError.st_rdev;
        dup3(isStandardError ? messages : nowhere.Get(), number, O_CLOEXEC);
    }
    return dup2(nowhere.Get(), STDIN_FILENO) == STDIN_FILENO && dup2(nowhere.Get(), STDOUT_FILENO) == STDOUT_FILENO &&
           dup2(messages, STDERR_FILENO) == STDERR_FILENO;
}

[[noreturn]] void DoWork(const Task& task, int answer, int messages) noexcept
{
    std::string parts;
    const auto send = [answer, &parts](Frame::Kind kind, std::vector<std::string> texts) {
        const std::string bytes = std::exchange(parts, {}) + FrameBytes({kind, std::move(texts)});
        return WriteAll(answer, bytes);
    };
    std::string last;
    const Tell tell{[&](const std::string& deviceFile) {
                        if (deviceFile != last) {
                            last = deviceFile;
                            // A frame that cannot be written has no reader any more, and this process is about to be
                            // killed.
                            send(Frame::Kind::DeviceFile, {deviceFile});
                        }
                    },
                    // Not sent by itself: a system call a device file is enough.
                    [&parts](std::vector<std::string> texts) {
                        parts += FrameBytes({Frame::Kind::Part, std::move(texts)});
                    }};
    bool sent = false;
    try {
        sent = LetGoOfInheritedFiles(answer, messages) && send(Frame::Kind::Answer, task(tell));
    } catch (const std::bad_alloc&) {
        sent = send(Frame::Kind::Failure, {"out of memory"});
    } catch (const std::exception& error) {
        sent = send(Frame::Kind::Failure, {error.what()});
    } catch (...) {
        sent = send(Frame::Kind::Failure, {"unknown failure"});
    }
    // Not exit(): what is to be done at the end of the program is the parent's.
    _exit(sent ? EXIT_SUCCESS : EXIT_FAILURE);
}

/**
 * What goes to standard error. With a time limit nobody waits for a reader: a full pipe must keep no answer waiting.
 * What is still there when the time is over is lost.
 */
class Messages {
public:
    Messages(Observer* whoIsTold, std::optional<Clock::time_point> endOfTime) : observer(whoIsTold), end(endOfTime) {}

    bool AreWaiting() const { return !unwritten.empty(); }
    /** Workers then have to wait with theirs. */
    bool AreTooMany() const { return unwritten.size() > longestLine; }

    void Add(std::string_view text)
    {
        unwritten += text;
        WriteUntilNow();
    }

    void WriteUntilNow() { Write(Clock::now()); }
    void WriteTheRest() { Write(end.value_or(Clock::time_point())); }

private:
    void Write(Clock::time_point until)
    {
        if (unwritten.empty()) {
            return;
        }
        if (observer != nullptr) {
            observer->BeforeMessage();
        }
        if (end) {
            unwritten.erase(0, WriteUntil(STDERR_FILENO, unwritten, until));
        } else {
            WriteAll(STDERR_FILENO, unwritten);
            unwritten.clear();
        }
    }

    Observer* observer;
    std::optional<Clock::time_point> end;
    std::string unwritten;
};

/** One worker, from its start until it has ended or is left behind. */
class Worker {
public:
    /** Starts it. @param result is complete when the worker does not run any more. */
    Worker(const Task& task, std::size_t number, Outcome& result, Messages& forStandardError)
        : outcome(result), passedOn(forStandardError)
    {
        waiting.task = number;
        Descriptor answerEnd;
        Descriptor messageEnd;
        if (!MakePipe(answer, answerEnd) || !MakePipe(messages, messageEnd)) {
            outcome.failure = "no pipe could be made: " + std::string(std::strerror(errno));
            return;
        }
        const pid_t parent = getpid();
        process = fork();
        if (process < 0) {
            outcome.failure = "no process could be started: " + std::string(std::strerror(errno));
        } else if (process == 0) {
            // A group of its own, so that what it starts can be killed with it.
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(EXIT_FAILURE);
            }
            DoWork(task, answerEnd.Get(), messageEnd.Get());
        } else {
            // Again, for the worker may not have run yet when it is to be killed.
            setpgid(process, process);
        }
    }

    bool IsRunning() const { return process > 0; }
    bool HasClosed() const { return !answer.IsOpen(); }
    /** Whether more of an answer must be on its way. */
    bool IsWithinFrame() const { return reader.IsWithinFrame(); }
    std::array<int, 2> Pipes() const { return {answer.Get(), passedOn.AreTooMany() ? -1 : messages.Get()}; }
    const Waiting& WhatItWaitsFor() const { return waiting; }

    /** Takes in a piece of what has come through the pipes; whether there was any. */
    bool Read()
    {
        const std::string frames = ReadPiece(answer);
        reader.Append(frames);
        while (std::optional<Frame> frame = reader.Next()) {
            if (lastFrame) {
                broken = true;
            } else if (frame->kind == Frame::Kind::DeviceFile) {
                waiting.deviceFile = std::move(frame->texts.front());
                waiting.since = Clock::now();
            } else if (frame->kind == Frame::Kind::Part) {
                outcome.parts.push_back(std::move(frame->texts));
            } else {
                lastFrame = std::move(frame);
            }
        }
        broken = broken || reader.IsBroken();
        if (broken && answer.IsOpen()) {
            Kill();
            answer.Close();
        }
        const std::string text = IsRunning() && passedOn.AreTooMany() ? "" : ReadPiece(messages);
        unwritten += text;
        const std::size_t lines = unwritten.rfind('\n') + 1;
        PassOn(lines == 0 && unwritten.size() > longestLine ? unwritten.size() : lines);
        return !frames.empty() || !text.empty();
    }

    /** Completes the outcome of a worker that has ended. */
    void Reap()
    {
        int status = 0;
        const pid_t result = waitpid(process, &status, WNOHANG);
        if (result == 0) {
            return;
        }
        process = none;
        while (Read()) {
        }
        if (result < 0) {
            End("its end could not be seen");
        } else if (WIFSIGNALED(status) && !broken) {
            End((boost::format("its process was ended by signal %d (%s)") % WTERMSIG(status) %
                 strsignal(WTERMSIG(status)))
                    .str());
        } else if (status != 0 || broken || !lastFrame || reader.IsWithinFrame()) {
            End(improperAnswer);
        } else if (lastFrame->kind == Frame::Kind::Answer) {
            outcome.answer = std::move(lastFrame->texts);
            End({});
        } else {
            outcome.threw = late.empty();
            End(lastFrame->texts.front());
        }
    }

    void BeLate(const std::string& failure)
    {
        late = failure;
        Kill();
    }

    /** It could not be killed. */
    void Leave() { End(late); }

private:
    void Kill() const
    {
        // Without a worker the number would mean every process of this user.
        if (IsRunning()) {
            kill(-process, SIGKILL);
            kill(process, SIGKILL);
        }
    }

    void End(const std::string& failure)
    {
        process = none;
        // What others write has to begin a line.
        unwritten += isWithinLine || (!unwritten.empty() && unwritten.back() != '\n') ? "\n" : "";
        PassOn(unwritten.size());
        if (!outcome.answer) {
            outcome.failure = late.empty() ? failure : late;
            outcome.late = !late.empty();
            outcome.deviceFile = waiting.deviceFile;
        }
        outcome.elapsed = Clock::now() - started;
    }

    /** Hands on the first bytes of the messages. */
    void PassOn(std::size_t size)
    {
        if (size == 0) {
            return;
        }
        passedOn.Add(std::string_view(unwritten).substr(0, size));
        isWithinLine = unwritten[size - 1] != '\n';
        unwritten.erase(0, size);
    }

    static constexpr pid_t none = -1;

    Outcome& outcome;
    Messages& passedOn;
    pid_t process = none;
    Clock::time_point started = Clock::now();
    Descriptor answer;
    Descriptor messages;
    FrameReader reader;
    std::optional<Frame> lastFrame;
    bool broken = false;
    Waiting waiting{{}, started};
    std::string unwritten;
    /** Whether what was written last is no whole line. */
    bool isWithinLine = false;
    /** The failure when its time is over; empty before. */
    std::string late;
};

/** Waits until a worker has written, ended or closed its pipes, or until so much time has passed. */
void Wait(const std::list<Worker>& workers, std::optional<Duration> longest)
{
    std::vector<pollfd> pipes;
    for (const Worker& worker : workers) {
        for (const int pipe : worker.Pipes()) {
            // One that is closed has a negative number, which poll(2) passes over.
            pipes.push_back({pipe, POLLIN, 0});
        }
        if (worker.HasClosed()) {
            longest = std::min(longest.value_or(reapInterval), reapInterval);
        }
    }
    constexpr int forEver = -1;
    // Rounded up: who waits a little less than it should comes back for nothing.
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(longest.value_or(Duration::zero()));
    poll(pipes.data(), pipes.size(), longest ? std::max(static_cast<int>(milliseconds.count()), 0) : forEver);
    if (std::none_of(workers.begin(), workers.end(), [](const Worker& worker) { return worker.IsWithinFrame(); })) {
        // Device files follow one another in microseconds. Those of the next moment are taken in together, which halves
        // what this process costs on a host of a thousand.
        for (pollfd& one : pipes) {
            one.events = 0;
        }
        poll(pipes.data(), pipes.size(), 1);
    }
}

}  // namespace

std::deque<Outcome> RunWorkers(std::vector<Task> tasks, const Terms& terms)
{
    // Ended workers stay until they are waited for, whatever our caller made of the signal.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    const double seconds = std::chrono::duration<double>(terms.limit.value_or(Duration::zero())).count();
    const std::string late = (boost::format("no answer within %.15g s") % seconds).str();
    // Workers keep references to theirs.
    std::deque<Outcome> outcomes(tasks.size());
    Messages messages(terms.observer, terms.limit ? std::make_optional(terms.started + *terms.limit) : std::nullopt);
    std::list<Worker> running;
    std::function<void()> meanwhile = terms.meanwhile;
    std::size_t next = 0;
    bool killed = false;
    const auto waiting = [&running] {
        std::vector<Waiting> all(running.size());
        std::transform(running.begin(), running.end(), all.begin(),
                       [](const Worker& worker) { return worker.WhatItWaitsFor(); });
        return all;
    };
    const auto counting = [&](const Worker& worker) {
        return Clock::now() - worker.WhatItWaitsFor().since < terms.patience;
    };
    for (;;) {
        if (terms.more && next == tasks.size() && !killed) {
            for (Task& task : terms.more(outcomes, waiting())) {
                tasks.push_back(std::move(task));
                outcomes.emplace_back();
            }
        }
        for (; next < tasks.size() && !killed &&
               static_cast<std::size_t>(std::count_if(running.begin(), running.end(), counting)) < terms.atATime;
             ++next) {
            running.emplace_back(tasks[next], next, outcomes[next], messages);
            if (!running.back().IsRunning()) {
                running.pop_back();
            }
        }
        if (meanwhile) {
            std::exchange(meanwhile, nullptr)();
        }
        if (running.empty()) {
            break;
        }
        const auto timeLeft = [&] {
            return *terms.limit + (killed ? graceAfterKill : Duration()) - (Clock::now() - terms.started);
        };
        std::optional<Duration> longest;
        if (terms.limit) {
            longest = timeLeft();
        }
        if (terms.observer != nullptr || terms.more || next < tasks.size() || messages.AreWaiting()) {
            longest = std::min(longest.value_or(observeInterval), observeInterval);
        }
        Wait(running, longest);
        messages.WriteUntilNow();
        for (Worker& worker : running) {
            worker.Read();
            if (killed || worker.HasClosed()) {
                worker.Reap();
            }
        }
        running.remove_if([](const Worker& worker) { return !worker.IsRunning(); });
        if (terms.limit && timeLeft() <= Duration::zero()) {
            for (Worker& worker : running) {
                killed ? worker.Leave() : worker.BeLate(late);
            }
            killed = true;
        }
        if (terms.observer != nullptr && !running.empty()) {
            terms.observer->StillRunning(waiting());
        }
    }
    messages.WriteTheRest();
    for (; next < tasks.size(); ++next) {
        outcomes[next].failure = late;
        outcomes[next].late = true;
    }
    return outcomes;
}

}  // namespace Zendra::ZDDevices
