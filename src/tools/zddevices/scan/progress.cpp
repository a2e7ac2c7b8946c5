#include "tools/zddevices/scan/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <system_error>

#include "tools/zddevices/output/console.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/scan/logging.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;

/** Who waits for less does not wonder. */
constexpr auto patience = std::chrono::seconds(1);

constexpr auto interval = std::chrono::milliseconds(200);

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

void WriteToTerminal(const std::string& text)
{
    while (write(STDERR_FILENO, text.data(), text.size()) < 0 && errno == EINTR) {
    }
}

}  // namespace

std::string DescribeProgress(const std::vector<Sighting>& sightings, Clock::time_point started, Clock::time_point now)
{
    std::vector<Sighting> known;
    std::copy_if(sightings.begin(), sightings.end(), std::back_inserter(known),
                 [](const Sighting& sighting) { return !sighting.device.empty(); });
    std::stable_sort(known.begin(), known.end(),
                     [](const Sighting& left, const Sighting& right) { return left.since < right.since; });
    if (known.empty()) {
        return "asking the devices" + Seconds(now - started);
    }
    std::string text = "asking ";
    for (const Sighting& sighting : known) {
        text += (&sighting == &known.front() ? "" : ", ") + Printable(sighting.device) + Seconds(now - sighting.since);
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

void Progress::Show(const std::vector<Sighting>& sightings)
{
    const Clock::time_point now = Clock::now();
    if (now - started < patience || !IsInForeground()) {
        return;
    }
    // Behind the last column the terminal would go on in the next line, which a carriage return does not reach.
    const std::string text =
        ("zddevices: " + DescribeProgress(sightings, started, now)).substr(0, TerminalWidth(STDERR_FILENO) - 1);
    const std::size_t blanks = shown > text.size() ? shown - text.size() : 0;
    WriteToTerminal("\r" + text + std::string(blanks, ' '));
    shown = text.size();
}

void Progress::Erase()
{
    if (shown > 0) {
        WriteToTerminal("\r" + std::string(shown, ' ') + "\r");
        shown = 0;
    }
}

void Progress::StillRunning(const std::vector<const Task*>& tasks)
{
    std::vector<Sighting> sightings;
    sightings.reserve(tasks.size());
    for (const Task* task : tasks) {
        sightings.push_back(task->look ? task->look() : Sighting());
    }
    Show(sightings);
}

BackgroundProgress::BackgroundProgress(Progress& line) : progress(&line)
{
    // The thread inherits a full mask: a signal to the process is not its business.
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    try {
        thread = std::thread(&BackgroundProgress::Run, this);
    } catch (const std::system_error&) {
        // The scan is worth more than the line.
    }
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    FollowDevices(&watch);
}

BackgroundProgress::~BackgroundProgress()
{
    FollowDevices(nullptr);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        isOver = true;
    }
    ended.notify_one();
    if (thread.joinable()) {
        thread.join();
    }
    progress->Erase();
}

void BackgroundProgress::Run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!ended.wait_for(lock, interval, [this] { return isOver; })) {
        progress->Show({watch.Look()});
    }
}

}  // namespace ZDDevices
}  // namespace Zendra
