/**
 * @file
 * @brief The classes of devices: what the library calls each, and what people do.
 *
 * The one place that knows all four. Options, questions, reports and the doctor read it.
 */
#ifndef ZENDRA_ZDDEVICES_DEVICECLASS_H
#define ZENDRA_ZDDEVICES_DEVICECLASS_H

#include <array>
#include <stdexcept>

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDDevices {

struct DeviceClass {
    ZDSystemDevice::SysDeviceType type;
    /** On the command line and in every output: "disk". */
    const char* word;
    /** As a heading: "Disks". */
    const char* title;
    /** The names of its device files, as a person would write them: "/dev/st*, /dev/nst*". */
    const char* files;
    /** What people are told when the class has no device. */
    const char* nothingFound;
};

/** All classes, in the order in which the library's merged list prefers their records. */
constexpr std::array<DeviceClass, 4> deviceClasses = {{
    {ZDSystemDevice::SYS_DEVICE_TAPE, "tape", "Tape drives", "/dev/st*, /dev/nst*", "No tape drives found."},
    {ZDSystemDevice::SYS_DEVICE_SCSI, "scsi", "Generic SCSI devices", "/dev/sg*", "No generic SCSI devices found."},
    {ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, "disk", "Disks", "/dev/sd*, /dev/hd*, /dev/nvme*", "No disks found."},
    {ZDSystemDevice::SYS_DEVICE_CDDVD, "optical", "Optical drives", "/dev/sr*", "No optical drives found."},
}};

/**
 * @brief The row of a class.
 * @throws std::invalid_argument for a number that is none of the four.
 */
constexpr const DeviceClass& ClassOf(ZDSystemDevice::SysDeviceType type)
{
    for (const DeviceClass& one : deviceClasses) {
        if (one.type == type) {
            return one;
        }
    }
    throw std::invalid_argument("no class of devices has this number");
}

}  // namespace Zendra::ZDDevices

#endif
