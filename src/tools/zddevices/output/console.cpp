#include "tools/zddevices/output/console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace Zendra::ZDDevices {

namespace {

void IgnoreSignal(int /*signal*/) {}

}  // namespace

void PrepareConsole()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) {
            // The root directory is always there and refuses both reading and writing.
            if (open("/", O_RDONLY | O_DIRECTORY) != descriptor) {
                std::abort();
            }
        }
    }
    // A handler, not SIG_IGN: children (modprobe) start with the default action again.
    struct sigaction action {};
    action.sa_handler = IgnoreSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

std::size_t TerminalWidth(int descriptor)
{
    if (isatty(descriptor) == 0) {
        return 0;
    }
    // For terminals that do not tell their size, such as serial consoles.
    constexpr std::size_t usualWidth = 80;
    winsize size{};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usualWidth;
}

bool WriteAll(int descriptor, const std::string& text)
{
    ssize_t count = 0;
    for (std::size_t written = 0; count >= 0 && written < text.size(); written += static_cast<std::size_t>(count)) {
        count = TEMP_FAILURE_RETRY(write(descriptor, text.data() + written, text.size() - written));
    }
    return count >= 0;
}

std::size_t WriteUntil(int descriptor, std::string_view text, std::chrono::steady_clock::time_point end)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd one{descriptor, POLLOUT, 0};
        const int wait = static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
        if (TEMP_FAILURE_RETRY(poll(&one, 1, wait)) <= 0) {
            break;
        }
        // A pipe that is ready takes so many bytes without delay.
        const std::size_t size = std::min<std::size_t>(text.size() - written, PIPE_BUF);
        const ssize_t count = TEMP_FAILURE_RETRY(write(descriptor, text.data() + written, size));
        if (count < 0) {
            return text.size();
        }
        written += static_cast<std::size_t>(count);
    }
    return written;
}

void WriteOutput(const std::string& text)
{
    if (!WriteAll(STDOUT_FILENO, text) || (close(STDOUT_FILENO) != 0 && errno != EINTR)) {
        if (errno == EPIPE) {
            throw NobodyReads();
        }
        throw std::system_error(errno, std::generic_category(), "standard output cannot be written");
    }
}

void Complain(const char* message) noexcept
{
    static_cast<void>(std::fprintf(stderr, "zddevices: %s\n", message));
}

void ComplainUntil(const std::string& message, std::optional<std::chrono::steady_clock::time_point> end)
{
    if (end) {
        WriteUntil(STDERR_FILENO, "zddevices: " + message + "\n", *end);
    } else {
        Complain(message.c_str());
    }
}

}  // namespace Zendra::ZDDevices
