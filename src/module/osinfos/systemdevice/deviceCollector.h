/**
 * @file
 * @brief The inventory: the entry that callers of the library use.
 *
 * Every call looks at the hardware afresh on the caller's thread and returns when the devices have answered; nothing is
 * cached. Results are appended to the caller's vectors, which are never cleared. A device that cannot be opened or does
 * not answer has no record. Opening device files and loading the sg module take root; without it the lists stay short,
 * and no call fails for that. When memory runs out, a call throws std::bad_alloc: what was appended stays, and the
 * memory of the scan is lost. Collectors hold nothing, so several threads may each use their own.
 */
#ifndef ZENDRA_SYSTEMDEVICE_DEVICECOLLECTOR_H
#define ZENDRA_SYSTEMDEVICE_DEVICECOLLECTOR_H

#include <vector>

#include "common/export.h"
#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"

/** The inventory of a host's storage-class devices. */
namespace Zendra::ZDSystemDevice {

/** Takes the inventory of this host's storage-class devices. */
class ZENDRA_EXPORT DeviceCollector {
public:
    DeviceCollector();   ///< Touches no device.
    ~DeviceCollector();  ///< Has nothing to release.

    /**
     * Appends the devices of one class, in the order in which /dev lists them; nothing is merged. Blocks while the
     * devices are asked: usually milliseconds each, 125 seconds for a command that a device keeps putting off.
     * @return DEVICE_RESULT_OK, also when none of the devices answered; DEVICE_RESULT_NONE when the class has
     *         no device file.
     */
    unsigned int GetIndividualDevice(std::vector<SystemDevice>& devices, SysDeviceType type);

    /**
     * Appends every device of all classes once, ordered by address. Devices are told apart by SCSI address. One that
     * several device files lead to is reported as its tape record, else as its generic SCSI record, else as disk, else
     * as optical drive. The order is that of the text "Port:p|Target:t|Bus:b|Lun:l", byte by byte, so that adapter 10
     * comes before adapter 2. Devices without an address (all four numbers 0) are all kept, with the four address
     * fields empty, and stand where Port:n|Target:n|Bus:n|Lun:n with n = 1, 2, ... would.
     * @return DEVICE_RESULT_OK, always.
     */
    unsigned int GetAllDevice(std::vector<SystemDevice>& devices);

    /**
     * Appends what the host's optical drive can read and write. Knows one drive: with several, one record is appended
     * that names none of them and denies every capability. Runs `cat` on the kernel's table.
     * @return DEVICE_RESULT_OK, also when the kernel has no table; DEVICE_RESULT_NONE when there is no optical
     *         device file.
     */
    unsigned int GetOpticalProperties(std::vector<OpticalProperty>& properties);

    /**
     * Appends a firmware identity for every disk. Disks as GetIndividualDevice(SYS_DEVICE_PHYSICAL_DRIVE) lists them,
     * unmerged; those whose product contains "raid" or "m.2", in any letter case, are left out.
     * @return DEVICE_RESULT_OK, or DEVICE_RESULT_NONE when there is no disk device file.
     */
    unsigned int GetDiskDriverSoftwareIdentities(std::vector<Zendra::ZDOptions::SoftwareIdentity_>& identities);
};

}  // namespace Zendra::ZDSystemDevice

#endif
