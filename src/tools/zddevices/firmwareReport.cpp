#include "tools/zddevices/firmwareReport.h"

#include "tools/zddevices/json.h"
#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDOptions::SoftwareIdentity_;

std::vector<std::string> Row(const SoftwareIdentity_& identity)
{
    return {CellText(identity.SoftwareID), CellText(identity.VersionString), CellText(identity.SerialNumber)};
}

/** The CIM properties; the record's last three fields are none. */
nlohmann::ordered_json Object(const SoftwareIdentity_& identity)
{
    return {{"Description", JsonText(identity.Description)},
            {"ElementName", JsonText(identity.ElementName)},
            {"ProductName", JsonText(identity.ProductName)},
            {"Manufacturer", JsonText(identity.Manufacturer)},
            {"Name", JsonText(identity.Name)},
            {"VersionString", JsonText(identity.VersionString)},
            {"Classifications", JsonText(identity.Classifications)},
            {"ClassificationDescriptions", JsonText(identity.ClassificationDescriptions)},
            {"IdentityInfoValue", JsonText(identity.IdentityInfoValue)},
            {"SoftwareID", JsonText(identity.SoftwareID)},
            {"SubDeviceID", JsonText(identity.SubDeviceID)},
            {"ReleaseDate", JsonText(identity.ReleaseDate)},
            {"SoftwareStatus", JsonText(identity.SoftwareStatus)},
            {"SoftwareRole", JsonText(identity.SoftwareRole)},
            {"IdentityInfoType", JsonText(identity.IdentityInfoType)},
            {"IsPLDMUpdateSupported", JsonText(identity.IsPLDMUpdateSupported)},
            {"InstanceID", JsonText(identity.InstanceID)},
            {"AssociatedAdapterSlot", JsonText(identity.AssociatedAdapterSlot)},
            {"LastUpdateError", JsonText(identity.LastUpdateError)},
            {"LastUpdateErrorString", JsonText(identity.LastUpdateErrorString)}};
}

}  // namespace

Report DescribeFirmware(unsigned int status, std::vector<SoftwareIdentity_> identities)
{
    Report report;
    report.schema = "zddevices-firmware/1";
    report.recordsKey = "identities";
    report.status = status;
    report.nothingFound = "No disk firmware found.";
    ComposeFrom(
        std::move(identities),
        {{"SOFTWARE-ID", 0.45, Overflow::Wrap}, {"VERSION", 0.2, Overflow::Wrap}, {"SERIAL", 0.35, Overflow::Wrap}},
        Row, Object, report);
    return report;
}

}  // namespace ZDDevices
}  // namespace Zendra
