#include "tools/zddevices/scan/progress.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "tools/zddevices/output/console.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;

/** Who waits for less does not wonder. */
constexpr auto silence = std::chrono::seconds(1);

std::string Seconds(Clock::duration duration)
{
    return " (" + std::to_string(std::chrono::duration_cast<std::chrono::seconds>(duration).count()) + " s)";
}

/** A shell's background jobs must not write into what the user is typing. */
bool IsInForeground()
{
    const pid_t foreground = tcgetpgrp(STDERR_FILENO);
    return foreground == -1 || foreground == getpgrp();
}

}  // namespace

std::string DescribeProgress(const std::vector<Waiting>& workers, Clock::time_point started, Clock::time_point now)
{
    std::vector<Waiting> known;
    std::copy_if(workers.begin(), workers.end(), std::back_inserter(known),
                 [](const Waiting& worker) { return !worker.deviceFile.empty(); });
    std::stable_sort(known.begin(), known.end(),
                     [](const Waiting& left, const Waiting& right) { return left.since < right.since; });
    if (known.empty()) {
        return "asking the devices" + Seconds(now - started);
    }
    std::string text = "asking ";
    for (const Waiting& worker : known) {
        text += (&worker == &known.front() ? "" : ", ") + Printable(worker.deviceFile) + Seconds(now - worker.since);
    }
    return text;
}

Progress::~Progress()
{
    Erase();
}

bool Progress::IsOfUse()
{
    return isatty(STDERR_FILENO) != 0;
}

void Progress::StillRunning(const std::vector<Waiting>& workers)
{
    const Clock::time_point now = Clock::now();
    if (now - started < silence || !IsInForeground()) {
        return;
    }
    // Behind the last column the terminal would go on in the next line, which a carriage return does not reach.
    const std::string text =
        ("zddevices: " + DescribeProgress(workers, started, now)).substr(0, TerminalWidth(STDERR_FILENO) - 1);
    const std::size_t blanks = shown > text.size() ? shown - text.size() : 0;
    // A terminal that is stopped (Ctrl-S) must not keep the scan waiting.
    WriteUntil(STDERR_FILENO, "\r" + text + std::string(blanks, ' '), now);
    shown = text.size();
}

void Progress::Erase()
{
    if (shown > 0) {
        WriteUntil(STDERR_FILENO, "\r" + std::string(shown, ' ') + "\r", Clock::now());
        shown = 0;
    }
}

}  // namespace Zendra::ZDDevices
