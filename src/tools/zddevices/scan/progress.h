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
#include <cstddef>
#include <string>
#include <vector>

#include "tools/zddevices/scan/worker.h"

namespace Zendra::ZDDevices {

/** "asking /dev/sdb (12 s), /dev/sg3 (3 s)", longest first; devices that are not known are left out. */
std::string DescribeProgress(const std::vector<Waiting>& workers, std::chrono::steady_clock::time_point started,
                             std::chrono::steady_clock::time_point now);

/** The line. Counts from when it was made. */
class Progress : public Observer {
public:
    Progress() = default;
    ~Progress() override;

    /** Whether standard error is a terminal. */
    static bool IsOfUse();

    void StillRunning(const std::vector<Waiting>& workers) override;
    void BeforeMessage() override { Erase(); }

private:
    void Erase();

    const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    /** The columns that the line takes. */
    std::size_t shown = 0;
};

}  // namespace Zendra::ZDDevices

#endif
