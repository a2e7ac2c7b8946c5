#include "common/logger/log.h"

#include <fcntl.h>
#include <sys/stat.h>
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
    StandardErrorCopy() : descriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        if (descriptor < 0 || fstat(descriptor, &identity) != 0) {
            descriptor = -1;
        }
    }
    ~StandardErrorCopy()
    {
        const int last = Get();
        descriptor = -1;
        if (last >= 0) {
            close(last);
        }
    }
    StandardErrorCopy(const StandardErrorCopy&) = delete;
    StandardErrorCopy& operator=(const StandardErrorCopy&) = delete;

    /** The descriptor, or -1 when a program that closes whatever it finds open has put another file there. */
    int Get() const
    {
        struct stat now {};
        const bool same = descriptor >= 0 && fstat(descriptor, &now) == 0 && now.st_dev == identity.st_dev &&
                          now.st_ino == identity.st_ino && now.st_rdev == identity.st_rdev;
        return same ? descriptor : -1;
    }

private:
    int descriptor;
    struct stat identity {};
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
    const int descriptor = standardError.Get();
    while (descriptor >= 0 && write(descriptor, text.data(), text.size()) < 0 && errno == EINTR) {
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
