#include "support/trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "common/logger/log.h"
#include "support/allocations.h"

namespace ZendraTest {

namespace {

std::mutex recordMutex;
Lines recorded;
Lines sourceFiles;
Lines ignoredFiles;

void Record(unsigned level, const char* file, int line, const std::string& message)
{
    const Allocations::Pause pause;
    const std::lock_guard<std::mutex> guard(recordMutex);
    EXPECT_GT(line, 0);
    const std::string source = file != nullptr ? file : "(null)";
    if (std::find(ignoredFiles.begin(), ignoredFiles.end(), source) != ignoredFiles.end()) {
        return;
    }
    recorded.push_back("[" + std::to_string(level) + "] " + message);
    if (std::find(sourceFiles.begin(), sourceFiles.end(), source) == sourceFiles.end()) {
        sourceFiles.push_back(source);
    }
}

}  // namespace

namespace Trace {

void Install()
{
    {
        const std::lock_guard<std::mutex> guard(recordMutex);
        recorded.clear();
        sourceFiles.clear();
        ignoredFiles.clear();
    }
    Zendra::Log::SetSink(Record);
}

void Remove()
{
    Zendra::Log::SetMinLogLevel(0);
    Zendra::Log::SetSink(nullptr);
}

void IgnoreMessagesOf(const std::string& sourceFile)
{
    const std::lock_guard<std::mutex> guard(recordMutex);
    ignoredFiles.push_back(sourceFile);
}

void Note(const std::string& event)
{
    const std::lock_guard<std::mutex> guard(recordMutex);
    recorded.push_back(event);
}

Lines Take()
{
    const std::lock_guard<std::mutex> guard(recordMutex);
    Lines taken;
    taken.swap(recorded);
    return taken;
}

Lines SourceFiles()
{
    const std::lock_guard<std::mutex> guard(recordMutex);
    return sourceFiles;
}

}  // namespace Trace

std::string L4(const std::string& text)
{
    return "[4] " + text;
}

std::string L1(const std::string& text)
{
    return "[1] " + text;
}

Lines Join(std::initializer_list<Lines> parts)
{
    Lines joined;
    for (const Lines& part : parts) {
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}

Lines AtLevel(unsigned level, const Lines& lines)
{
    Lines admitted;
    for (const std::string& line : lines) {
        const bool message = line.size() > 2 && line[0] == '[' && line[2] == ']';
        if (!message || static_cast<unsigned>(line[1] - '0') <= level) {
            admitted.push_back(line);
        }
    }
    return admitted;
}

void ExpectTraceAtEveryLevel(const Lines& expected, const std::function<void()>& scenario)
{
    for (const unsigned level : {4U, 3U, 2U, 1U, 0U}) {
        SCOPED_TRACE("log level " + std::to_string(level));
        Trace::Take();
        Zendra::Log::SetMinLogLevel(level);
        scenario();
        Zendra::Log::SetMinLogLevel(0);
        EXPECT_EQ(AtLevel(level, expected), Trace::Take());
    }
}

}  // namespace ZendraTest
