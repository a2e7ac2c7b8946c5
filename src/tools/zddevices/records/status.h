/**
 * @file
 * @brief The library's status codes, by name.
 */
#ifndef ZENDRA_ZDDEVICES_STATUS_H
#define ZENDRA_ZDDEVICES_STATUS_H

#include <string>

namespace Zendra {
namespace ZDDevices {

/** "DEVICE_RESULT_OK", ...; "UNKNOWN" for a number that the library does not use. */
std::string StatusName(unsigned int status);

/** Whether a scan that answered this ran: with or without devices. */
bool ScanRan(unsigned int status);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
