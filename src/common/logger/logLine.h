/**
 * @file
 * @brief The one way in which sources of this tree write a log message.
 *
 * Kept apart from log.h so that it works with any library that provides Zendra::Log.
 */
#ifndef ZENDRA_COMMON_LOGGER_LOGLINE_H
#define ZENDRA_COMMON_LOGGER_LOGLINE_H

#include "common/logger/log.h"

/**
 * Writes a message: ZENDRA_LOG(4, "ret = " << ret). The level is tested first, so that nothing of a message
 * that is not wanted is composed.
 */
#define ZENDRA_LOG(messageLevel, message)                                                                              \
    do {                                                                                                               \
        if (::Zendra::Log::GetMinLogLevel() >= (messageLevel)) {                                                       \
            ::Zendra::Log((messageLevel), __FILE__, __LINE__).Stream() << message; /* NOLINT */                        \
        }                                                                                                              \
    } while (false)

#endif
