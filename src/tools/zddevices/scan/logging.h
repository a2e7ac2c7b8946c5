/**
 * @file
 * @brief The library's log messages on this program's standard error.
 */
#ifndef ZENDRA_ZDDEVICES_LOGGING_H
#define ZENDRA_ZDDEVICES_LOGGING_H

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

}  // namespace ZDDevices
}  // namespace Zendra

#endif
