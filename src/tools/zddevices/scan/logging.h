/**
 * @file
 * @brief The library's log messages on this program's standard error.
 */
#ifndef ZENDRA_ZDDEVICES_LOGGING_H
#define ZENDRA_ZDDEVICES_LOGGING_H

#include "tools/zddevices/scan/deviceWatch.h"

namespace Zendra {
namespace ZDDevices {

/**
 * @brief From now on writes the library's messages up to `level` to standard error, as "[level] file:line text".
 *
 * Messages quote what devices answered, so they are made printable like everything else; their line ends and
 * tabs stay.
 *
 * @return false when the logging library that this program runs with takes no level.
 */
bool EnableLog(unsigned int level);

/**
 * @brief From now on has the library's messages tell `watch` which device it is at; null ends that.
 *
 * Costs the library the making of all its messages. What is written does not change. Without effect when the logging
 * library that this program runs with cannot hand over messages.
 */
void FollowDevices(DeviceWatch* watch);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
