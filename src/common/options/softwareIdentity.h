/**
 * @file
 * @brief A software identity as the options of the code base carry it, after DMTF CIM_SoftwareIdentity.
 *
 * A plain record and the names of its CIM properties; nothing here reads or writes a device.
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
    /** Free text. */
    std::string Description;
    /** User-friendly name. */
    std::string ElementName;
    /** Commercial product name. */
    std::string ProductName;
    /** Who made the software. */
    std::string Manufacturer;
    /** For disk firmware the software id. */
    std::string Name;
    /** For disk firmware the firmware revision, exactly as the disk gives it. */
    std::string VersionString;
    /** CIM value map, "10" for firmware. */
    std::string Classifications;
    /** Words for `Classifications`. */
    std::string ClassificationDescriptions;
    /** Vendor-specific identity. */
    std::string IdentityInfoValue;
    /** For disk firmware the product, or the vendor where the product is blank; no outer white space. */
    std::string SoftwareID;
    /** Part of a device. */
    std::string SubDeviceID;
    /** Date of release. */
    std::string ReleaseDate;
    /** Installation status. */
    std::string SoftwareStatus;
    /** What the software is for. */
    std::string SoftwareRole;
    /** Format of `IdentityInfoValue`. */
    std::string IdentityInfoType;
    /** Whether the firmware can be updated through PLDM: "0" or "1". */
    std::string IsPLDMUpdateSupported = "0";
    /** Unique instance name. */
    std::string InstanceID;
    /** Slot of the adapter that the software runs on. */
    std::string AssociatedAdapterSlot;
    /** Code of the last failed update. */
    std::string LastUpdateError;
    /** Words for `LastUpdateError`. */
    std::string LastUpdateErrorString;
    /** Serial number of the device that runs the software. Has no property name. */
    std::string SerialNumber;
    /** Not used by the device library. Has no property name. */
    std::string ExtraInfo;
    /** Not used by the device library. Has no property name. */
    std::int32_t Category = 3;
};

/**
 * The CIM property names of the first twenty fields, in the order of the record. Every source that includes
 * this header has its own copy.
 */
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
