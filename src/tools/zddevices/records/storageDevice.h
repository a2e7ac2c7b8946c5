/**
 * @file
 * @brief A storage device of this host: what the library says of it, and what the kernel says.
 */
#ifndef ZENDRA_ZDDEVICES_STORAGEDEVICE_H
#define ZENDRA_ZDDEVICES_STORAGEDEVICE_H

#include <optional>
#include <string>

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDDevices {

/** One device, or, in the list of one class, one device file. Every text is empty where it is not known. */
struct StorageDevice : ZDSystemDevice::SystemDevice {
    /** The node that a person uses: "sda", "nvme0n1", "sr0", "st0", else "sg4". */
    std::string device;
    /** The paths of all its device files, each ended by a line end; the one of `device` first. */
    std::string device_files;
    /** Decimal digits. */
    std::string size_bytes;
    /** lsblk's word: "sata", "sas", "usb", "nvme". */
    std::string transport;
    /** World-wide name: "0x5000c500a1b2c3d4". */
    std::string wwn;
    /** sysfs' word: "running", "offline", "live". */
    std::string state;
    /** Driver of the host adapter: "ahci". */
    std::string driver;
    /** Enclosure and bay. */
    std::string slot;
    /** As long as the device gives it, without the blanks around it. */
    std::string model;
    /** Of the firmware, likewise. */
    std::string revision;
    /** TypeWord()'s. */
    std::string type;
    /** How many devices of this host have this `wwn`, and are therefore ways to one disk; decimal digits. */
    std::string paths;
};

/**
 * @brief "disk", "tape", "cd", "changer": a word for what kind of device it is.
 * @param scsiType SPC's peripheral device type; goes further than the text.
 * @param text the library's `device_type`; comes back where it has no word and the type is not known.
 */
std::string TypeWord(std::optional<unsigned int> scsiType, const std::string& text);

}  // namespace Zendra::ZDDevices

#endif
