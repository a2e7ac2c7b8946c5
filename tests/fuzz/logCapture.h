/**
 * @file
 * @brief Keeps the library's log lines.
 */
#ifndef ZENDRA_TESTS_FUZZ_LOGCAPTURE_H
#define ZENDRA_TESTS_FUZZ_LOGCAPTURE_H

#include <string>

#include "common/logger/log.h"

namespace Zendra {
namespace Fuzz {

/**
 * Sets the log level and keeps what is logged, until destroyed. One at a time. The lines are kept in static storage:
 * a pretended child logs, and the stack is put back when it ends.
 */
class LogCapture {
public:
    explicit LogCapture(unsigned level)
    {
        Kept().clear();
        Log::SetSink([](unsigned lineLevel, const char* /*file*/, int /*line*/, const std::string& message) {
            Kept() += std::to_string(lineLevel) + " " + message + "\n";
        });
        Log::SetMinLogLevel(level);
    }
    ~LogCapture()
    {
        Log::SetMinLogLevel(0);
        Log::SetSink(nullptr);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /** Per line its level, a blank, the message and a line feed. */
    static const std::string& Lines() { return Kept(); }

private:
    static std::string& Kept()
    {
        static std::string lines;
        return lines;
    }
};

}  // namespace Fuzz
}  // namespace Zendra

#endif
