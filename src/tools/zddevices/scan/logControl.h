/**
 * @file
 * @brief What a program can ask of a logging class, asked only where the class has it.
 *
 * The logging library may be somebody else's, with the class's imported members alone: no SetMinLogLevel(), no
 * SetSink(). The program must compile against such a class all the same.
 */
#ifndef ZENDRA_ZDDEVICES_LOGCONTROL_H
#define ZENDRA_ZDDEVICES_LOGCONTROL_H

#include <string>
#include <type_traits>

namespace Zendra {
namespace ZDDevices {

/** Receives log messages; as in common/logger/log.h. */
using LogSink = void (*)(unsigned level, const char* file, int line, const std::string& message);

template <typename Logger, typename = void>
struct HasMinLogLevel : std::false_type {
};
template <typename Logger>
struct HasMinLogLevel<Logger, std::void_t<decltype(Logger::SetMinLogLevel(0U))>> : std::true_type {
};

template <typename Logger, typename = void>
struct HasSink : std::false_type {
};
template <typename Logger>
struct HasSink<Logger, std::void_t<decltype(Logger::SetSink(LogSink{}))>> : std::true_type {
};

/**
 * @brief Sets the level up to which messages are written, and, where that can be chosen, who writes them.
 * @return whether the class's level can be set; nothing is changed otherwise.
 */
template <typename Logger>
bool DirectLog(unsigned int level, LogSink sink)
{
    if constexpr (HasMinLogLevel<Logger>::value) {
        if constexpr (HasSink<Logger>::value) {
            Logger::SetSink(sink);
        }
        Logger::SetMinLogLevel(level);
        return true;
    } else {
        static_cast<void>(level);
        static_cast<void>(sink);
        return false;
    }
}

}  // namespace ZDDevices
}  // namespace Zendra

#endif
