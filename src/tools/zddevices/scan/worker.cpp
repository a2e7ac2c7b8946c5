#include "tools/zddevices/scan/worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iomanip>
#include <new>
#include <sstream>
#include <utility>

#include "common/descriptor.h"
#include "tools/zddevices/scan/frame.h"
#include "tools/zddevices/scan/inheritedFiles.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;

/** What is longer is written in pieces, between which other workers' lines may come. */
constexpr std::size_t longestLine = 1024UL * 1024;

/** A process that can be killed at all is gone by then, on a busy host too. */
constexpr Duration graceAfterKill = std::chrono::milliseconds(250);

/** A worker has closed its pipes some microseconds before it can be waited for. */
constexpr Duration reapInterval = std::chrono::milliseconds(1);

constexpr Duration observeInterval = std::chrono::milliseconds(200);

bool WriteAll(int descriptor, const std::string& bytes)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
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

bool SendFrame(int descriptor, Frame::Kind kind, std::vector<std::string> texts)
{
    return WriteAll(descriptor, FrameBytes({kind, std::move(texts)}));
}

[[noreturn]] void DoWork(const Task& task, int answer, int messages) noexcept
{
    if (!LetGoOfInheritedFiles(answer, messages)) {
        _exit(EXIT_FAILURE);
    }
    bool sent = false;
    try {
        const auto noteDeviceFile = [answer, last = std::string()](const std::string& deviceFile) mutable {
            if (deviceFile != last) {
                last = deviceFile;
                // A frame that cannot be written has no reader any more, and this process is about to be killed.
                SendFrame(answer, Frame::Kind::DeviceFile, {deviceFile});
            }
        };
        sent = SendFrame(answer, Frame::Kind::Answer, task(noteDeviceFile));
    } catch (const std::bad_alloc&) {
        sent = SendFrame(answer, Frame::Kind::Failure, {"out of memory"});
    } catch (const std::exception& error) {
        sent = SendFrame(answer, Frame::Kind::Failure, {error.what()});
    } catch (...) {
        sent = SendFrame(answer, Frame::Kind::Failure, {"unknown failure"});
    }
    // Not exit(): what is to be done at the end of the program is the parent's.
    _exit(sent ? EXIT_SUCCESS : EXIT_FAILURE);
}

std::string Seconds(Duration duration)
{
    std::ostringstream text;
    text << std::setprecision(std::numeric_limits<double>::digits10) << std::chrono::duration<double>(duration).count();
    return text.str() + " s";
}

/** One worker, from before its start until it has ended or is left behind. */
class Worker {
public:
    explicit Worker(const Task& work) : task(&work) {}

    void Start()
    {
        started = Clock::now();
        waiting.since = started;
        waits = false;
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
            DoWork(*task, answerEnd.Get(), messageEnd.Get());
        }
        // Again, for the worker may not have run yet when it is to be killed.
        setpgid(process, process);
    }

    bool WaitsForItsStart() const { return waits; }
    bool IsRunning() const { return process > 0; }
    bool HasClosed() const { return !answer.IsOpen(); }
    /** Whether more of an answer must be on its way. */
    bool IsWithinFrame() const { return reader.IsWithinFrame(); }
    int AnswerDescriptor() const { return answer.Get(); }
    int MessageDescriptor() const { return messages.Get(); }
    const Waiting& WhatItWaitsFor() const { return waiting; }
    Outcome TakeOutcome() { return std::move(outcome); }

    /** Takes in what has come through the pipes. */
    void Read(Observer* observer)
    {
        Drain(answer, [this](const char* bytes, std::size_t size) {
            reader.Append(bytes, size);
            TakeFrames();
            return !broken;
        });
        if (broken && answer.IsOpen()) {
            Kill();
            answer.Close();
        }
        Drain(messages, [this, observer](const char* bytes, std::size_t size) {
            unwritten.append(bytes, size);
            const std::size_t end = unwritten.rfind('\n');
            if (end != std::string::npos) {
                PassOn(end + 1, observer);
            } else if (unwritten.size() > longestLine) {
                PassOn(unwritten.size(), observer);
            }
            return true;
        });
    }

    /** Whether the worker has ended; then the outcome is there. */
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
        const bool ended = result > 0 && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
        if (result < 0) {
            GiveUp("its end could not be seen");
        } else if (WIFSIGNALED(status) && !broken) {
            GiveUp("its process was ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
                   strsignal(WTERMSIG(status)) + ")");
        } else if (!ended || broken || !lastFrame || reader.IsWithinFrame()) {
            GiveUp(improperAnswer);
        } else if (lastFrame->kind == Frame::Kind::Answer) {
            outcome.answer = std::move(lastFrame->texts);
        } else {
            GiveUp(lastFrame->texts.front());
            outcome.threw = late.empty();
        }
        End();
        return true;
    }

    /** The time is over. */
    void BeLate(Duration limit)
    {
        late = "no answer within " + Seconds(limit);
        if (IsRunning()) {
            Kill();
        } else if (waits) {
            waits = false;
            GiveUp(late);
        }
    }

    /** If it is still there, it cannot be ended. */
    void Leave(Observer* observer)
    {
        if (IsRunning()) {
            process = noProcess;
            PassOn(unwritten.size(), observer);
            GiveUp(late);
            End();
        }
    }

private:
    static constexpr pid_t noProcess = -1;

    void Kill() const
    {
        // Without a worker the number would mean every process of this user.
        if (IsRunning()) {
            kill(-process, SIGKILL);
            kill(process, SIGKILL);
        }
    }

    void GiveUp(const std::string& failure)
    {
        outcome.deviceFile = waiting.deviceFile;
        outcome.failure = late.empty() ? failure : late;
        answer.Close();
        messages.Close();
    }

    void End()
    {
        outcome.elapsed = Clock::now() - started;
        answer.Close();
        messages.Close();
    }

    void TakeFrames()
    {
        while (std::optional<Frame> frame = reader.Next()) {
            if (lastFrame) {
                broken = true;
            } else if (frame->kind == Frame::Kind::DeviceFile) {
                waiting = {std::move(frame->texts.front()), Clock::now()};
            } else {
                lastFrame = std::move(frame);
            }
        }
        broken = broken || reader.IsBroken();
    }

    /** Gives away what waits in the pipe, until `take` wants no more; closes the pipe at its end. */
    template <typename Take>
    static void Drain(Descriptor& pipe, Take take)
    {
        std::array<char, 65536> chunk;
        while (pipe.IsOpen()) {
            const ssize_t count = read(pipe.Get(), chunk.data(), chunk.size());
            if (count == 0) {
                pipe.Close();
            } else if (count < 0 ? errno != EINTR : !take(chunk.data(), static_cast<std::size_t>(count))) {
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
        WriteAll(STDERR_FILENO, unwritten.substr(0, size));
        unwritten.erase(0, size);
    }

    const Task* task;
    bool waits = true;
    pid_t process = noProcess;
    Clock::time_point started;
    Descriptor answer;
    Descriptor messages;
    FrameReader reader;
    std::optional<Frame> lastFrame;
    bool broken = false;
    Waiting waiting;
    std::string unwritten;
    std::string late;
    Outcome outcome;
};

/** Waits until a worker has written, ended or closed its pipes, or until so much time has passed. */
void Wait(const std::vector<Worker>& workers, std::optional<Duration> longest)
{
    std::vector<pollfd> descriptors;
    for (const Worker& worker : workers) {
        for (const int descriptor : {worker.AnswerDescriptor(), worker.MessageDescriptor()}) {
            if (descriptor != Descriptor::none) {
                descriptors.push_back({descriptor, POLLIN, 0});
            }
        }
        if (worker.IsRunning() && worker.HasClosed()) {
            longest = std::min(longest.value_or(reapInterval), reapInterval);
        }
    }
    constexpr int forEver = -1;
    // Rounded up: who waits a little less than it should comes back for nothing.
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(longest.value_or(Duration::zero()));
    poll(descriptors.data(), descriptors.size(),
         longest ? std::max(static_cast<int>(milliseconds.count()), 0) : forEver);
    if (std::none_of(workers.begin(), workers.end(), [](const Worker& worker) { return worker.IsWithinFrame(); })) {
        // Device files follow one another in microseconds. Those of the next moment are taken in together, which halves
        // what this process costs on a host of a thousand.
        for (pollfd& one : descriptors) {
            one.events = 0;
        }
        poll(descriptors.data(), descriptors.size(), 1);
    }
}

/** Starts workers that wait for it while fewer than `atATime` are running; how many are then running. */
std::size_t StartWorkers(std::vector<Worker>& workers, std::size_t atATime)
{
    auto running = static_cast<std::size_t>(
        std::count_if(workers.begin(), workers.end(), [](const Worker& worker) { return worker.IsRunning(); }));
    for (Worker& worker : workers) {
        if (running < atATime && worker.WaitsForItsStart()) {
            worker.Start();
            running += worker.IsRunning() ? 1 : 0;
        }
    }
    return running;
}

}  // namespace

std::vector<Outcome> RunWorkers(const std::vector<Task>& tasks, std::optional<Duration> limit, Observer* observer,
                                std::size_t atATime)
{
    // Ended workers stay until they are waited for, whatever our caller made of the signal.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    const Clock::time_point started = Clock::now();
    std::vector<Worker> workers(tasks.begin(), tasks.end());
    bool killed = false;
    while (StartWorkers(workers, atATime) > 0) {
        std::optional<Duration> longest;
        if (limit) {
            longest = (killed ? *limit + graceAfterKill : *limit) - (Clock::now() - started);
        }
        if (observer != nullptr) {
            longest = std::min(longest.value_or(observeInterval), observeInterval);
        }
        Wait(workers, longest);
        std::vector<Waiting> running;
        for (Worker& worker : workers) {
            if (worker.IsRunning()) {
                worker.Read(observer);
                if (!(worker.HasClosed() || killed) || !worker.Reap(observer)) {
                    running.push_back(worker.WhatItWaitsFor());
                }
            }
        }
        const Duration passed = Clock::now() - started;
        if (limit && passed >= (killed ? *limit + graceAfterKill : *limit)) {
            for (Worker& worker : workers) {
                killed ? worker.Leave(observer) : worker.BeLate(*limit);
            }
            killed = true;
        }
        if (observer != nullptr && !running.empty()) {
            observer->StillRunning(running);
        }
    }
    std::vector<Outcome> outcomes(workers.size());
    std::transform(workers.begin(), workers.end(), outcomes.begin(), [](Worker& one) { return one.TakeOutcome(); });
    return outcomes;
}

}  // namespace ZDDevices
}  // namespace Zendra
