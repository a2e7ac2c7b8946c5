/**
 * @file
 * @brief A software identity as the options of the code base carry it: a plain record after DMTF CIM_SoftwareIdentity.
 */
#ifndef ZENDRA_COMMON_OPTIONS_SOFTWAREIDENTITY_H
#define ZENDRA_COMMON_OPTIONS_SOFTWAREIDENTITY_H

#include <cstdint>
#include <string>

#include "common/export.h"

namespace Zendra {
/** Records that components of the code base hand each other. */
namespace ZDOptions {

/** One identity. Everything but `Category` is text; an empty text means that the property is not known. */
struct ZENDRA_EXPORT SoftwareIdentity_ {
    std::string Description;                 ///< Free text.
    std::string ElementName;                 ///< User-friendly name.
    std::string ProductName;                 ///< Commercial product name.
    std::string Manufacturer;                ///< Who made the software.
    std::string Name;                        ///< For disk firmware the software id.
    std::string VersionString;               ///< For disk firmware the firmware revision, exactly as the disk gives it.
    std::string Classifications;             ///< CIM value map, "10" for firmware.
    std::string ClassificationDescriptions;  ///< Words for `Classifications`.
    std::string IdentityInfoValue;           ///< Vendor-specific identity.
    std::string SoftwareID;   ///< For disk firmware the product, or the vendor where it is blank; no outer white space.
    std::string SubDeviceID;  ///< Part of a device.
    std::string ReleaseDate;  ///< Date of release.
    std::string SoftwareStatus;               ///< Installation status.
    std::string SoftwareRole;                 ///< What the software is for.
    std::string IdentityInfoType;             ///< Format of `IdentityInfoValue`.
    std::string IsPLDMUpdateSupported = "0";  ///< Whether the firmware can be updated through PLDM: "0" or "1".
    std::string InstanceID;                   ///< Unique instance name.
    std::string AssociatedAdapterSlot;        ///< Slot of the adapter that the software runs on.
    std::string LastUpdateError;              ///< Code of the last failed update.
    std::string LastUpdateErrorString;        ///< Words for `LastUpdateError`.
    std::string SerialNumber;   ///< Serial number of the device that runs the software. Has no property name.
    std::string ExtraInfo;      ///< Not used by the device library. Has no property name.
    std::int32_t Category = 3;  ///< Not used by the device library. Has no property name.
};

/** The CIM names of the first twenty fields, in order. Every source that includes this header has its own copy. */
static const std::string SoftwareIdentityPropertyNames[20] = {"Description",
                                                              "ElementName",
                                                              "ProductName",
                                                              "Manufacturer",
                                                              "Name",
                                                              "VersionString",
                                                              "Classifications",
                                                              "ClassificationDescriptions",
                                                              "IdentityInfoValue",
                                                              "SoftwareID",
                                                              "SubDeviceID",
                                                              "ReleaseDate",
                                                              "SoftwareStatus",
                                                              "SoftwareRole",
                                                              "IdentityInfoType",
                                                              "IsPLDMUpdateSupported",
                                                              "InstanceID",
                                                              "AssociatedAdapterSlot",
                                                              "LastUpdateError",
                                                              "LastUpdateErrorString"};

}  // namespace ZDOptions
}  // namespace Zendra

#endif
