/**
 * @file
 * @brief The library's log messages on this program's standard error.
 *
 * The logging library may be somebody else's, whose class has its imported members alone: no SetMinLogLevel(), no
 * SetSink(). The program must compile against such a class all the same.
 */
#ifndef ZENDRA_ZDDEVICES_LOGGING_H
#define ZENDRA_ZDDEVICES_LOGGING_H

#include <string>
#include <type_traits>

namespace Zendra::ZDDevices {

/** Receives log messages; as in common/logger/log.h. */
using LogSink = void (*)(unsigned level, const char* file, int line, const std::string& message);

template <typename Logger, typename = void>
inline constexpr bool takesLevel = false;
template <typename Logger>
inline constexpr bool takesLevel<Logger, std::void_t<decltype(Logger::SetMinLogLevel(0U))>> = true;

template <typename Logger, typename = void>
inline constexpr bool takesSink = false;
template <typename Logger>
inline constexpr bool takesSink<Logger, std::void_t<decltype(Logger::SetSink(LogSink{}))>> = true;

/**
 * @brief Sets the level up to which messages are written, and, where that can be chosen, who writes them.
 * @return whether the class's level can be set; nothing is changed otherwise.
 */
template <typename Logger>
bool DirectLog([[maybe_unused]] unsigned int level, [[maybe_unused]] LogSink sink)
{
    if constexpr (takesLevel<Logger>) {
        if constexpr (takesSink<Logger>) {
            Logger::SetSink(sink);
        }
        Logger::SetMinLogLevel(level);
    }
    return takesLevel<Logger>;
}

/**
 * @brief Writes a message to standard error as one line: "[level] file:line text". Keeps errno.
 *
 * Messages quote what devices answered. No byte of an answer may begin a line, or it could pass for a message of its
 * own: the text is what PrintableLine() makes of it, without the line feed at its end that some messages have.
 */
void WriteLogLine(unsigned level, const char* file, int line, const std::string& message);

/**
 * @brief From now on writes the library's messages up to `level` with WriteLogLine().
 *
 * @return false when the logging library that this program runs with takes no level.
 */
bool EnableLog(unsigned int level);

}  // namespace Zendra::ZDDevices

#endif
