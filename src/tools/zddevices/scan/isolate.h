/**
 * @file
 * @brief Runs pieces of work in child processes of their own and waits for them no longer than allowed.
 *
 * A system call on a sick device may never come back, and a process in one cannot be ended, not even by SIGKILL.
 * Whoever must answer in time therefore leaves such calls to others. What a piece of work answers is bytes; they
 * are bounded and checked on their way, so that a child that dies half-way has not answered.
 */
#ifndef ZENDRA_ZDDEVICES_ISOLATE_H
#define ZENDRA_ZDDEVICES_ISOLATE_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/zddevices/scan/deviceWatch.h"

namespace Zendra {
namespace ZDDevices {

using Duration = std::chrono::nanoseconds;

/** A piece of work. */
struct Task {
    /** What people call it. */
    std::string name;
    /** Runs in a child process: changes nothing here, and what it throws becomes Outcome::failure. */
    std::function<std::string()> run;
    /** Says in this process which device the child is at; may be empty. */
    std::function<Sighting()> look = nullptr;
};

/** What became of a task. */
struct Outcome {
    /** What Task::run returned; absent when the child did not answer in time, or not properly. */
    std::optional<std::string> answer;
    /** Why there is no answer, for people; empty when there is one. */
    std::string failure;
    /** The device file that the child was at when there was no answer; empty when that is not known. */
    std::string device;
    /** From the start to the answer, or to when it was given up. */
    Duration elapsed{};
};

/** Is told about tasks that take their time. */
class Observer {
public:
    Observer() = default;
    virtual ~Observer() = default;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    /** Called several times a second with the tasks that have not answered yet. */
    virtual void StillRunning(const std::vector<const Task*>& tasks) = 0;

    /** Called before anything is written to standard error. */
    virtual void BeforeMessage() = 0;
};

/**
 * @brief Runs all tasks at the same time, each in a child process.
 *
 * Returns when each child has answered or died, at the latest shortly after `limit` (CLOCK_MONOTONIC; none means no
 * limit). A child that is late is killed, with what it has started; one that cannot be killed is left behind. No child
 * holds on to a standard descriptor of this process, so nobody who reads from it waits for one that was left behind.
 * What children write to standard error, log messages included, is passed on line by line; what they write to
 * standard output is lost. When this process dies, its children are killed.
 *
 * To be called while the process has one thread.
 *
 * @return the outcomes, in the order of the tasks.
 * @throws std::bad_alloc.
 */
std::vector<Outcome> RunIsolated(const std::vector<Task>& tasks, std::optional<Duration> limit,
                                 Observer* observer = nullptr);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
