/**
 * @file
 * @brief The firmware of a disk: the library's identity of it, and which disk that is.
 */
#ifndef ZENDRA_ZDDEVICES_DISKFIRMWARE_H
#define ZENDRA_ZDDEVICES_DISKFIRMWARE_H

#include <string>

#include "common/options/softwareIdentity.h"

namespace Zendra::ZDDevices {

/** One firmware. The texts that are not the library's are empty where they are not known, as in its own list. */
struct DiskFirmware : ZDOptions::SoftwareIdentity_ {
    /** "sda", "nvme0n1". */
    std::string device;
    /** As long as the disk gives it, without the blanks around it. */
    std::string model;
    /** Of the firmware, likewise. */
    std::string revision;
};

}  // namespace Zendra::ZDDevices

#endif
