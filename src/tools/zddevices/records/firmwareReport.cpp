#include "tools/zddevices/records/firmwareReport.h"

#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/text.h"

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
void WriteObject(const SoftwareIdentity_& identity, JsonWriter& json)
{
    json.Key("Description");
    json.RecordText(identity.Description);
    json.Key("ElementName");
    json.RecordText(identity.ElementName);
    json.Key("ProductName");
    json.RecordText(identity.ProductName);
    json.Key("Manufacturer");
    json.RecordText(identity.Manufacturer);
    json.Key("Name");
    json.RecordText(identity.Name);
    json.Key("VersionString");
    json.RecordText(identity.VersionString);
    json.Key("Classifications");
    json.RecordText(identity.Classifications);
    json.Key("ClassificationDescriptions");
    json.RecordText(identity.ClassificationDescriptions);
    json.Key("IdentityInfoValue");
    json.RecordText(identity.IdentityInfoValue);
    json.Key("SoftwareID");
    json.RecordText(identity.SoftwareID);
    json.Key("SubDeviceID");
    json.RecordText(identity.SubDeviceID);
    json.Key("ReleaseDate");
    json.RecordText(identity.ReleaseDate);
    json.Key("SoftwareStatus");
    json.RecordText(identity.SoftwareStatus);
    json.Key("SoftwareRole");
    json.RecordText(identity.SoftwareRole);
    json.Key("IdentityInfoType");
    json.RecordText(identity.IdentityInfoType);
    json.Key("IsPLDMUpdateSupported");
    json.RecordText(identity.IsPLDMUpdateSupported);
    json.Key("InstanceID");
    json.RecordText(identity.InstanceID);
    json.Key("AssociatedAdapterSlot");
    json.RecordText(identity.AssociatedAdapterSlot);
    json.Key("LastUpdateError");
    json.RecordText(identity.LastUpdateError);
    json.Key("LastUpdateErrorString");
    json.RecordText(identity.LastUpdateErrorString);
}

}  // namespace

Report DescribeFirmware(unsigned int status, std::vector<SoftwareIdentity_> identities)
{
    Report report;
    report.schema = "zddevices-firmware/1";
    report.recordsKey = "identities";
    report.status = status;
    report.nothingFound = "No disk firmware found.";
    ComposeFrom(std::move(identities), Columns(), WriteObject, report);
    return report;
}

std::vector<std::string> FirmwareColumnNames()
{
    return HeadingsOf(Columns());
}

}  // namespace ZDDevices
}  // namespace Zendra
