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

namespace Zendra::ZDSystemDevice {

/** What is known of one device file while it is being probed. */
struct ZENDRA_EXPORT BusDevice {
    std::uint16_t hostAdapter = 0;  ///< SCSI host (adapter) number.
    std::uint16_t bus = 0;          ///< SCSI channel.
    std::uint16_t spareNumber = 0;  ///< Carried and copied; no probe sets it.
    std::uint16_t targetId = 0;     ///< SCSI target id.
    std::uint16_t lun = 0;          ///< Logical unit number.
    std::string devId;              ///< Device identifier.
    std::string spareText;          ///< Carried and copied; no probe sets it.
    std::string productId;          ///< Product identification.
    std::string vendorId;           ///< Vendor identification.
    std::string revision;           ///< Firmware or product revision.
    std::string serialNum;          ///< Unit serial number.
    std::string otherIdentInfo;     ///< The address as text: "Port:2|Target:0|Bus:0|Lun:0".
    std::string shortIdent;         ///< The first 23 characters of an ATA model.
    std::string deviceType;         ///< Peripheral device type in words.
    std::string inquiryString;      ///< SPC standard INQUIRY bytes 8-35 (vendor, product, revision) as one text.
};

}  // namespace Zendra::ZDSystemDevice

#endif
