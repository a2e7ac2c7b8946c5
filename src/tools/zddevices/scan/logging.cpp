#include "tools/zddevices/scan/logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "common/logger/log.h"
#include "tools/zddevices/output/console.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

namespace {

/**
 * A descriptor of our own, closed in children that exec: a forked child logs too, after its standard error has
 * been led into a pipe.
 */
int logDescriptor = -1;

void WriteLogLine(unsigned level, const char* file, int line, const std::string& message)
{
    const int callersErrno = errno;
    std::string text = "[" + std::to_string(level) + "] " + (file != nullptr ? file : "?") + ":" +
                       std::to_string(line) + " " + PrintableLines(message);
    if (text.back() != '\n') {
        text += '\n';
    }
    WriteAll(logDescriptor, text);
    errno = callersErrno;
}

}  // namespace

bool EnableLog(unsigned int level)
{
    if (logDescriptor < 0) {
        logDescriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }
    return DirectLog<Log>(level, WriteLogLine);
}

}  // namespace Zendra::ZDDevices
