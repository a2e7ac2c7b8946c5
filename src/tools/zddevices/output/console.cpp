#include "tools/zddevices/output/console.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace Zendra {
namespace ZDDevices {

namespace {

/** For terminals that do not tell their size, such as serial consoles. */
constexpr std::size_t usualWidth = 80;

void IgnoreSignal(int /*signal*/) {}

[[noreturn]] void ThrowOutputError()
{
    throw std::system_error(errno, std::generic_category(), "standard output cannot be written");
}

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

std::size_t OutputWidth()
{
    return isatty(STDOUT_FILENO) == 0 ? 0 : TerminalWidth(STDOUT_FILENO);
}

std::size_t TerminalWidth(int descriptor)
{
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return usualWidth;
    }
    return size.ws_col;
}

void WriteOutput(const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            ThrowOutputError();
        }
    }
    if (close(STDOUT_FILENO) != 0 && errno != EINTR) {
        ThrowOutputError();
    }
}

void Complain(const char* message) noexcept
{
    static const char prefix[] = "zddevices: ";
    static const char end[] = "\n";
    iovec parts[] = {{const_cast<char*>(prefix), sizeof(prefix) - 1},
                     {const_cast<char*>(message), std::strlen(message)},
                     {const_cast<char*>(end), sizeof(end) - 1}};
    constexpr int partCount = sizeof(parts) / sizeof(parts[0]);
    while (writev(STDERR_FILENO, parts, partCount) < 0 && errno == EINTR) {
    }
}

}  // namespace ZDDevices
}  // namespace Zendra
