/**
 * @file
 * @brief One chronological record of what the library logs and of what it asks the system to do.
 *
 * Log messages appear as "[level] text", events of the fakes as they were noted ("sleep 5"). Comparing whole
 * traces catches a message that is missing, doubled, out of order, at another level, or one blank off.
 */
#ifndef ZENDRA_TESTS_SUPPORT_TRACE_H
#define ZENDRA_TESTS_SUPPORT_TRACE_H

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace ZendraTest {

using Lines = std::vector<std::string>;

namespace Trace {

/** Makes this record the sink of Zendra::Log and empties it. */
void Install();

/** Restores the default sink and silences the log. */
void Remove();

/** Leaves out the messages of this source file until the next Install(). */
void IgnoreMessagesOf(const std::string& sourceFile);

/** Notes an event that is not a log message. Its text must not begin with "[". */
void Note(const std::string& event);

/** Hands over what was recorded and starts anew. */
Lines Take();

/** The source files that log messages came from since Install(), each once. */
Lines SourceFiles();

}  // namespace Trace

/** A message of level 4 or 1 as it stands in a trace. */
std::string L4(const std::string& text);
std::string L1(const std::string& text);

/** The lists one after the other. */
Lines Join(std::initializer_list<Lines> parts);

/** What of `lines` remains at a log level: every event, and the messages of that level or below. */
Lines AtLevel(unsigned level, const Lines& lines);

/**
 * Runs the scenario at log levels 4, 3, 2, 1 and 0 and expects the trace that each level admits.
 * The scenario must be repeatable.
 */
void ExpectTraceAtEveryLevel(const Lines& expected, const std::function<void()>& scenario);

}  // namespace ZendraTest

#endif
