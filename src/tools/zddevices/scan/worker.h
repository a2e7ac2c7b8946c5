/**
 * @file
 * @brief Runs tasks in worker processes and waits for them no longer than allowed.
 *
 * A system call on a sick device may never come back, and a process in one cannot be ended, not even by SIGKILL.
 * Whoever must answer in time therefore leaves such calls to others.
 */
#ifndef ZENDRA_ZDDEVICES_WORKER_H
#define ZENDRA_ZDDEVICES_WORKER_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace Zendra::ZDDevices {

using Duration = std::chrono::nanoseconds;

/** How a worker process tells what it does. */
struct Tell {
    /** To be called with the path of each device file before it is asked. */
    std::function<void(const std::string& deviceFile)> deviceFile;
    /** Texts that count whatever becomes of the worker later; they are sent with what it tells next. */
    std::function<void(std::vector<std::string> texts)> part;
};

/**
 * @brief What a worker process does: it returns the texts of its answer, and what it throws is why there is none.
 *
 * It changes nothing in the process that has it run.
 */
using Task = std::function<std::vector<std::string>(const Tell& tell)>;

/** Outcome::failure of a worker that ended without an answer, or sent something else. */
constexpr const char* improperAnswer = "its process gave no proper answer";

/** What became of a task. */
struct Outcome {
    /** What the task told in parts, however it ended. */
    std::vector<std::vector<std::string>> parts;
    /** What the task returned; absent when the worker did not answer in time, or not properly. */
    std::optional<std::vector<std::string>> answer;
    /** Why there is no answer, for people; empty when there is one. */
    std::string failure;
    /** Whether the failure is what the task threw. */
    bool threw = false;
    /** Whether it was killed, left, or not even started, because the time was over. */
    bool late = false;
    /** The device file that was being asked when there was no answer; empty when that is not known. */
    std::string deviceFile;
    /** From the worker's start to its answer, or to when it was given up. */
    Duration elapsed{};
};

/** What a worker that has not answered yet is waiting for. */
struct Waiting {
    /** Empty while it is not known. */
    std::string deviceFile;
    std::chrono::steady_clock::time_point since;
    /** The task's number among all that were started. */
    std::size_t task = 0;
};

/** Is told about workers that take their time. */
class Observer {
public:
    virtual ~Observer() = default;

    /** Called several times a second with what each worker that has not answered is waiting for. */
    virtual void StillRunning(const std::vector<Waiting>& workers) = 0;

    /** Called before anything is written to standard error. */
    virtual void BeforeMessage() = 0;
};

constexpr std::size_t allAtOnce = std::numeric_limits<std::size_t>::max();

/**
 * Tasks to be started beside those that run. Called every observeInterval and when a worker ends, with the outcomes as
 * they are so far, and with what the running workers wait for.
 */
using MoreTasks =
    std::function<std::vector<Task>(const std::deque<Outcome>& outcomes, const std::vector<Waiting>& running)>;

constexpr Duration observeInterval = std::chrono::milliseconds(20);

/** How RunWorkers() goes about it. */
struct Terms {
    /** By CLOCK_MONOTONIC; none waits for ever. */
    std::optional<Duration> limit;
    /** May be null. */
    Observer* observer = nullptr;
    /** How many workers run at a time. */
    std::size_t atATime = allAtOnce;
    /** A worker that waits longer for one device file does not count among them any more. */
    Duration patience = Duration::max();
    /** May be empty. */
    MoreTasks more = nullptr;
    /** When the limit began to run. */
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    /** What this process does when the first workers run, while nobody looks after them. May be empty. */
    std::function<void()> meanwhile = nullptr;
};

/**
 * @brief Runs each task in a worker process.
 *
 * Returns when each worker has answered or died, at the latest shortly after the limit. A worker that is late is
 * killed, with what it has started; one that cannot be killed is left behind. No worker holds on to a descriptor of
 * this process, so nobody who reads from it waits for one that was left behind. What workers write to standard error,
 * log messages included, is passed on line by line; what standard error does not take within the limit is lost, as is
 * what they write to standard output. When this process dies,
 * its workers are killed.
 *
 * To be called while the process has one thread. SIGCHLD has its default action from then on.
 *
 * @return the outcomes, in the order of the tasks; those of Terms::more behind them, as they were started.
 * @throws std::bad_alloc.
 */
std::deque<Outcome> RunWorkers(std::vector<Task> tasks, const Terms& terms);

}  // namespace Zendra::ZDDevices

#endif
