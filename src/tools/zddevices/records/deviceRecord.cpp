#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using Device = ZDSystemDevice::SystemDevice;

std::string Address(const Device& device);

constexpr Field<Device> fields[] = {
    // Heading, share of the width, when too wide; in the table; content, key in JSON, text.
    {{"ADDRESS", 0.1, Overflow::Keep}, InTable::ByDefault, Content::Text, nullptr, nullptr, Address},
    {{"TYPE", 0.2, Overflow::Cut}, InTable::ByDefault, Content::Text, "device_type", &Device::device_type},
    {{"VENDOR", 0.1, Overflow::Wrap}, InTable::ByDefault, Content::Text, "vendor", &Device::vendor},
    {{"PRODUCT", 0.25, Overflow::Wrap}, InTable::ByDefault, Content::Text, "product", &Device::product},
    {{"FIRMWARE", 0.1, Overflow::Wrap},
     InTable::ByDefault,
     Content::Text,
     "firmware_revision",
     &Device::firmware_revision},
    {{"SERIAL", 0.25, Overflow::Wrap}, InTable::ByDefault, Content::Text, "serial_number", &Device::serial_number},
    {{"PORT", 0.05, Overflow::Keep}, InTable::WhenAsked, Content::Number, "port", &Device::port},
    {{"BUS", 0.05, Overflow::Keep}, InTable::WhenAsked, Content::Number, "bus", &Device::bus},
    {{"TARGET", 0.05, Overflow::Keep}, InTable::WhenAsked, Content::Number, "target", &Device::target},
    {{"LUN", 0.05, Overflow::Keep}, InTable::WhenAsked, Content::Number, "lun", &Device::lun},
};
static_assert(NameEachTextOnce(fields), "a text of the record has no field, or several");

/**
 * Nothing both for four empty texts and for four zeros: the list of one class says "no address found" with zeros where
 * the merged list says it with empty texts, and the reader of a table should see no difference.
 */
std::string Address(const Device& device)
{
    std::string address;
    bool known = false;
    for (const Field<Device>* part : FieldsOf<Device>({"PORT", "BUS", "TARGET", "LUN"})) {
        const std::string text = TextOf(device, *part);
        known = known || (!text.empty() && text != "0");
        address += (address.empty() ? "" : ":") + (text.empty() ? "-" : text);
    }
    return known ? address : std::string();
}

}  // namespace

template <>
const RecordKind<Device>& KindOf<Device>()
{
    static const RecordKind<Device> kind = {"zddevices/1", "devices", {std::begin(fields), std::end(fields)}};
    return kind;
}

Report<Device> DescribeDevices(unsigned int status, std::vector<Device> devices,
                               std::optional<ZDSystemDevice::SysDeviceType> type)
{
    return {status, std::move(devices), {}, type ? ClassOf(*type).nothingFound : "No storage devices found.", {}};
}

}  // namespace ZDDevices
}  // namespace Zendra
