/**
 * @file
 * @brief A line on the terminal while devices take their time: which device is being asked, and how long already.
 *
 * On standard error, only where that is a terminal, and only when a scan has taken a second: a healthy host never
 * shows it. The line is plain text that overwrites itself after a carriage return and leaves nothing behind; no escape
 * sequence is sent, so there is nothing to turn off.
 */
#ifndef ZENDRA_ZDDEVICES_PROGRESS_H
#define ZENDRA_ZDDEVICES_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/zddevices/scan/deviceWatch.h"
#include "tools/zddevices/scan/isolate.h"

namespace Zendra {
namespace ZDDevices {

/** "asking /dev/sdb (12 s), /dev/sg3 (3 s)", longest first; devices that are not known are left out. */
std::string DescribeProgress(const std::vector<Sighting>& sightings, std::chrono::steady_clock::time_point started,
                             std::chrono::steady_clock::time_point now);

/** The line. Counts from when it was made. */
class Progress : public Observer {
public:
    Progress() = default;
    ~Progress() override;

    /** Whether standard error is a terminal. */
    static bool IsOfUse();

    /** Shows where these scans are. */
    void Show(const std::vector<Sighting>& sightings);
    void Erase();

    void StillRunning(const std::vector<const Task*>& tasks) override;
    void BeforeMessage() override { Erase(); }

private:
    const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    /** The columns that the line takes. */
    std::size_t shown = 0;
};

/** Keeps the line up to date while this thread, which makes it, is in the library. */
class BackgroundProgress {
public:
    explicit BackgroundProgress(Progress& progress);
    ~BackgroundProgress();
    BackgroundProgress(const BackgroundProgress&) = delete;
    BackgroundProgress& operator=(const BackgroundProgress&) = delete;

private:
    void Run();

    Progress* progress;
    DeviceWatch watch;
    std::mutex mutex;
    std::condition_variable ended;
    bool isOver = false;
    std::thread thread;
};

}  // namespace ZDDevices
}  // namespace Zendra

#endif
