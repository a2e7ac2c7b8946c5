/**
 * @file
 * @brief What a disk's record says of its firmware.
 *
 * Of no use to callers of the library, which have DeviceCollector::GetDiskDriverSoftwareIdentities(); not installed. It
 * stands apart for programs of this tree that have asked the disks by themselves.
 */
#ifndef ZENDRA_SYSTEMDEVICE_FIRMWAREIDENTITY_H
#define ZENDRA_SYSTEMDEVICE_FIRMWAREIDENTITY_H

#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice {

/** Whether the disk has a firmware identity: of RAID volumes and M.2 disks others report the firmware. */
bool HasFirmwareIdentity(const SystemDevice& disk);

/** Whether the product is blank, so that the vendor names the disk. */
bool IsNamedByVendor(const SystemDevice& disk);

/** The identity: the disk's name without blanks around it, serial number and revision as the record has them. */
ZDOptions::SoftwareIdentity_ FirmwareIdentityOf(const SystemDevice& disk);

}  // namespace Zendra::ZDSystemDevice

#endif
