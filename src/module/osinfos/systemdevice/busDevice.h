/**
 * @file
 * @brief The probing record: what is known of one device file while it is being asked.
 *
 * Plain data that may be copied freely. dataProxy_linux.h fills it, identityData.h reads answers into it.
 */
#ifndef ZENDRA_SYSTEMDEVICE_BUSDEVICE_H
#define ZENDRA_SYSTEMDEVICE_BUSDEVICE_H

#include <cstdint>
#include <string>

#include "common/export.h"

namespace Zendra {
namespace ZDSystemDevice {

/** What is known of one device file while it is being probed. */
struct ZENDRA_EXPORT BusDevice {
    /** SCSI host (adapter) number. */
    std::uint16_t hostAdapter = 0;
    /** SCSI channel. */
    std::uint16_t bus = 0;
    /** Carried and copied; no probe sets it. */
    std::uint16_t spareNumber = 0;
    /** SCSI target id. */
    std::uint16_t targetId = 0;
    /** Logical unit number. */
    std::uint16_t lun = 0;
    /** Device identifier. */
    std::string devId;
    /** Carried and copied; no probe sets it. */
    std::string spareText;
    /** Product identification. */
    std::string productId;
    /** Vendor identification. */
    std::string vendorId;
    /** Firmware or product revision. */
    std::string revision;
    /** Unit serial number. */
    std::string serialNum;
    /** The address as text: "Port:2|Target:0|Bus:0|Lun:0". */
    std::string otherIdentInfo;
    /** The first 23 characters of an ATA model. */
    std::string shortIdent;
    /** Peripheral device type in words. */
    std::string deviceType;
    /** SPC standard INQUIRY bytes 8-35 (vendor, product, revision) as one text. */
    std::string inquiryString;
};

}  // namespace ZDSystemDevice
}  // namespace Zendra

#endif
