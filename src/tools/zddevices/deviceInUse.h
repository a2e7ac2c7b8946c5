/**
 * @file
 * @brief Finds out which device file a process is busy with, without touching the device.
 */
#ifndef ZENDRA_ZDDEVICES_DEVICEINUSE_H
#define ZENDRA_ZDDEVICES_DEVICEINUSE_H

#include <sys/types.h>

#include <string>

namespace Zendra {
namespace ZDDevices {

/**
 * @brief The device file that a process has open, or waits in open(2) for: "/dev/sdb".
 *
 * Standard input, output and error do not count, nor do the devices that every program uses (terminals, /dev/null and
 * their like).
 *
 * @param process a child of this process, or this process; what is asked of a process is the state of its first
 *                thread.
 * @return empty when there is none or it cannot be seen.
 */
std::string DeviceInUse(pid_t process);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
