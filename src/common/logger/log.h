/**
 * @file
 * @brief The log message class of the code base, and this tree's own implementation of it.
 *
 * A message is one Log object. It is made with its level and source position, takes its text through Stream(),
 * and is emitted when it is destroyed, whatever its level. So callers ask GetMinLogLevel() before they make one;
 * the macro in common/logger/logLine.h does that. There are no log files, no rotation and no configuration here.
 *
 * SetMinLogLevel() and SetSink() are for programs; a library uses the other four members only.
 */
#ifndef ZENDRA_COMMON_LOGGER_LOG_H
#define ZENDRA_COMMON_LOGGER_LOG_H

#include <ostream>
#include <sstream>
#include <string>

#include "common/export.h"

/** The code base. */
namespace Zendra {

/** One log message, emitted when destroyed. Each object belongs to one thread. */
class ZENDRA_EXPORT Log {
public:
    /**
     * Receives every emitted message, in the thread that emits it. `message` is the text as it was streamed: it may
     * hold line ends, NUL and any other byte, and it is valid during the call only. A sink may be called from several
     * threads at once, and in a forked child before its exec. What it throws is swallowed.
     */
    using Sink = void (*)(unsigned level, const char* file, int line, const std::string& message);

    /**
     * @param level 1 failures, 3 outcomes, 4 tracing (2 is not in use).
     * @param file  source path relative to the repository; not copied, must outlive the object.
     * @param line  source line.
     */
    Log(unsigned level, const char* file, int line);

    /** Emits the message. Never throws; a message that memory has run out for is lost. */
    ~Log();

    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    /** The stream that collects the text. Numbers come out in the "C" locale, whatever the global one is. */
    std::ostream& Stream();

    /** The highest level that is written; 0 (the initial value) silences everything. Safe in every thread. */
    static unsigned GetMinLogLevel();

    /** Sets what GetMinLogLevel() answers, for the whole process. */
    static void SetMinLogLevel(unsigned level);

    /**
     * Directs messages to `sink`; null restores the default sink. The default sink writes "[level] file:line message"
     * and a line end, with one write(2), to standard error as it is at that moment. It keeps no descriptor of its own
     * and takes no lock. It writes nothing in a process that was started without standard error, nor while descriptor
     * 2 is close-on-exec: the number then belongs to a file that the program opened.
     */
    static void SetSink(Sink sink);

private:
    unsigned level;
    const char* file;
    int line;
    std::ostringstream stream;
};

}  // namespace Zendra

#endif
