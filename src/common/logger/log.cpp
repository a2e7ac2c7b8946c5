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

/**
 * A duplicate of the process's standard error. Taken when the library is loaded and not at the first message:
 * the first message may come from a forked child whose descriptor 2 already leads elsewhere.
 */
class StandardErrorCopy {
public:
    StandardErrorCopy() : descriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {}
    ~StandardErrorCopy()
    {
        const int last = descriptor.exchange(-1);
        if (last >= 0) {
            close(last);
        }
    }
    StandardErrorCopy(const StandardErrorCopy&) = delete;
    StandardErrorCopy& operator=(const StandardErrorCopy&) = delete;

    int Get() const { return descriptor.load(std::memory_order_relaxed); }

private:
    std::atomic<int> descriptor;
};

StandardErrorCopy standardError;

void WriteToStandardError(unsigned level, const char* file, int line, const std::string& message)
{
    std::string text = "[" + std::to_string(level) + "] " + (file != nullptr ? file : "?") + ":" +
                       std::to_string(line) + " " + message;
    if (text.back() != '\n') {
        text += '\n';
    }
    const int callersErrno = errno;
    while (write(standardError.Get(), text.data(), text.size()) < 0 && errno == EINTR) {
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
