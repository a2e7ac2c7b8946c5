#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra::ZDDevices {

namespace {

using Identity = DiskFirmware;

/** A CIM property that is empty or the same for most disks. */
constexpr Field<Identity> Rare(const char* heading, const char* key, std::string Identity::*member)
{
    return {{heading, 12}, key, member, nullptr, InTable::WhenAsked};
}

constexpr Field<Identity> fields[] = {
    // Heading, least width; key in JSON, text.
    {{"DEVICE"}, "device", &Identity::device},
    {{"MODEL", 12}, "model", &Identity::model},
    {{"REVISION", 8}, "revision", &Identity::revision},
    {{"SERIAL", 20}, "SerialNumber", &Identity::SerialNumber},
    {{"SOFTWARE-ID", 12}, "SoftwareID", &Identity::SoftwareID, nullptr, InTable::WhenAsked},
    {{"VERSION", 8}, "VersionString", &Identity::VersionString, nullptr, InTable::WhenAsked},
    Rare("DESCRIPTION", "Description", &Identity::Description),
    Rare("ELEMENT-NAME", "ElementName", &Identity::ElementName),
    Rare("PRODUCT-NAME", "ProductName", &Identity::ProductName),
    Rare("MANUFACTURER", "Manufacturer", &Identity::Manufacturer),
    Rare("NAME", "Name", &Identity::Name),
    Rare("CLASSIFICATIONS", "Classifications", &Identity::Classifications),
    Rare("CLASSIFICATION-DESCRIPTIONS", "ClassificationDescriptions", &Identity::ClassificationDescriptions),
    Rare("IDENTITY-INFO-VALUE", "IdentityInfoValue", &Identity::IdentityInfoValue),
    Rare("SUB-DEVICE-ID", "SubDeviceID", &Identity::SubDeviceID),
    Rare("RELEASE-DATE", "ReleaseDate", &Identity::ReleaseDate),
    Rare("SOFTWARE-STATUS", "SoftwareStatus", &Identity::SoftwareStatus),
    Rare("SOFTWARE-ROLE", "SoftwareRole", &Identity::SoftwareRole),
    Rare("IDENTITY-INFO-TYPE", "IdentityInfoType", &Identity::IdentityInfoType),
    Rare("PLDM-UPDATE-SUPPORTED", "IsPLDMUpdateSupported", &Identity::IsPLDMUpdateSupported),
    Rare("INSTANCE-ID", "InstanceID", &Identity::InstanceID),
    Rare("ADAPTER-SLOT", "AssociatedAdapterSlot", &Identity::AssociatedAdapterSlot),
    Rare("LAST-UPDATE-ERROR", "LastUpdateError", &Identity::LastUpdateError),
    Rare("LAST-UPDATE-ERROR-STRING", "LastUpdateErrorString", &Identity::LastUpdateErrorString),
    Rare("EXTRA-INFO", nullptr, &Identity::ExtraInfo),
};
static_assert(NameEachTextOnce(fields), "a text of the record has no field, or several");

}  // namespace

template <>
const RecordKind<Identity>& KindOf<Identity>()
{
    static const RecordKind<Identity> kind = {
        "zddevices-firmware/1", "identities", {std::begin(fields), std::end(fields)}, "DEVICE"};
    return kind;
}

Report<Identity> DescribeFirmware(unsigned int status, std::vector<Identity> identities)
{
    return {status, std::move(identities), {}, "No disk firmware found.", {}};
}

}  // namespace Zendra::ZDDevices
