#include "tools/zddevices/firmwareReport.h"

#include "tools/zddevices/json.h"
#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDOptions::SoftwareIdentity_;

/** A column for a property that is empty or the same for most disks. */
template <std::string SoftwareIdentity_::*field>
RecordColumn<SoftwareIdentity_> FurtherColumn(const char* heading)
{
    return {{heading, 0.15, Overflow::Wrap}, Shown::WhenAsked, TextCell<field>};
}

const std::vector<RecordColumn<SoftwareIdentity_>>& Columns()
{
    using Identity = SoftwareIdentity_;
    static const std::vector<RecordColumn<SoftwareIdentity_>> columns = {
        {{"SOFTWARE-ID", 0.45, Overflow::Wrap}, Shown::ByDefault, TextCell<&Identity::SoftwareID>},
        {{"VERSION", 0.2, Overflow::Wrap}, Shown::ByDefault, TextCell<&Identity::VersionString>},
        {{"SERIAL", 0.35, Overflow::Wrap}, Shown::ByDefault, TextCell<&Identity::SerialNumber>},
        FurtherColumn<&Identity::Description>("DESCRIPTION"),
        FurtherColumn<&Identity::ElementName>("ELEMENT-NAME"),
        FurtherColumn<&Identity::ProductName>("PRODUCT-NAME"),
        FurtherColumn<&Identity::Manufacturer>("MANUFACTURER"),
        FurtherColumn<&Identity::Name>("NAME"),
        FurtherColumn<&Identity::Classifications>("CLASSIFICATIONS"),
        FurtherColumn<&Identity::ClassificationDescriptions>("CLASSIFICATION-DESCRIPTIONS"),
        FurtherColumn<&Identity::IdentityInfoValue>("IDENTITY-INFO-VALUE"),
        FurtherColumn<&Identity::SubDeviceID>("SUB-DEVICE-ID"),
        FurtherColumn<&Identity::ReleaseDate>("RELEASE-DATE"),
        FurtherColumn<&Identity::SoftwareStatus>("SOFTWARE-STATUS"),
        FurtherColumn<&Identity::SoftwareRole>("SOFTWARE-ROLE"),
        FurtherColumn<&Identity::IdentityInfoType>("IDENTITY-INFO-TYPE"),
        FurtherColumn<&Identity::IsPLDMUpdateSupported>("PLDM-UPDATE-SUPPORTED"),
        FurtherColumn<&Identity::InstanceID>("INSTANCE-ID"),
        FurtherColumn<&Identity::AssociatedAdapterSlot>("ADAPTER-SLOT"),
        FurtherColumn<&Identity::LastUpdateError>("LAST-UPDATE-ERROR"),
        FurtherColumn<&Identity::LastUpdateErrorString>("LAST-UPDATE-ERROR-STRING"),
        FurtherColumn<&Identity::ExtraInfo>("EXTRA-INFO")};
    return columns;
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
    ComposeFrom(std::move(identities), Columns(), Object, report);
    return report;
}

std::vector<std::string> FirmwareColumnNames()
{
    return HeadingsOf(Columns());
}

}  // namespace ZDDevices
}  // namespace Zendra
