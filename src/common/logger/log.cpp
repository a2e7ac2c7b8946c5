#include "common/logger/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <locale>

namespace Zendra {

namespace {

std::atomic<unsigned> minLogLevel{0};
std::atomic<Log::Sink> currentSink{nullptr};

const bool startedWithStandardError = fcntl(STDERR_FILENO, F_GETFD) >= 0;

/**
 * Whether descriptor 2 is standard error. Where that was closed, the next file that the program opens gets its number,
 * and must not get the messages. Such a file is mostly close-on-exec, which standard error never is.
 */
bool HasStandardError()
{
    const int flags = fcntl(STDERR_FILENO, F_GETFD);
    return startedWithStandardError && flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

void WriteToStandardError(unsigned level, const char* file, int line, const std::string& message)
{
    std::string text = "[" + std::to_string(level) + "] " + (file != nullptr ? file : "?") + ":" +
                       std::to_string(line) + " " + message;
    if (text.back() != '\n') {
        text += '\n';
    }
    const int callersErrno = errno;
    if (HasStandardError()) {
        while (write(STDERR_FILENO, text.data(), text.size()) < 0 && errno == EINTR) {
        }
    }
    errno = callersErrno;
}

}  // namespace

Log::Log(unsigned messageLevel, const char* sourceFile, int sourceLine)
    : level(messageLevel), file(sourceFile), line(sourceLine)
{
    stream.imbue(std::locale::classic());
}

Log::~Log()
{
    try {
        const Sink sink = currentSink.load(std::memory_order_acquire);
        (sink != nullptr ? sink : WriteToStandardError)(level, file, line, stream.str());
    } catch (...) {
        // A log line is never worth the process: destructors must not throw.
    }
}

std::ostream& Log::Stream()
{
    return stream;
}

unsigned Log::GetMinLogLevel()
{
    return minLogLevel.load(std::memory_order_relaxed);
}

void Log::SetMinLogLevel(unsigned newLevel)
{
    minLogLevel.store(newLevel, std::memory_order_relaxed);
}

void Log::SetSink(Sink sink)
{
    currentSink.store(sink, std::memory_order_release);
}

}  // namespace Zendra
