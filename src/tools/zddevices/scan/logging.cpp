#include "tools/zddevices/scan/logging.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "common/logger/log.h"
#include "tools/zddevices/output/console.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

void WriteLogLine(unsigned level, const char* file, int line, const std::string& message)
{
    const int callersErrno = errno;
    std::string_view text = message;
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    WriteAll(STDERR_FILENO, "[" + std::to_string(level) + "] " + (file != nullptr ? file : "?") + ":" +
                                std::to_string(line) + " " + PrintableLine(text) + "\n");
    errno = callersErrno;
}

bool EnableLog(unsigned int level)
{
    return DirectLog<Log>(level, WriteLogLine);
}

}  // namespace Zendra::ZDDevices
