#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::SystemDevice;

std::string Address(const SystemDevice& device);

constexpr Field<SystemDevice> fields[] = {
    // Heading, share of the width, when too wide; in the table; key in JSON; text.
    {{"ADDRESS", 0.10, Overflow::Keep}, InTable::ByDefault, nullptr, nullptr, Content::Text, Address},
    {{"TYPE", 0.20, Overflow::Cut}, InTable::ByDefault, "device_type", &SystemDevice::device_type},
    {{"VENDOR", 0.10, Overflow::Wrap}, InTable::ByDefault, "vendor", &SystemDevice::vendor},
    {{"PRODUCT", 0.25, Overflow::Wrap}, InTable::ByDefault, "product", &SystemDevice::product},
    {{"FIRMWARE", 0.10, Overflow::Wrap}, InTable::ByDefault, "firmware_revision", &SystemDevice::firmware_revision},
    {{"SERIAL", 0.25, Overflow::Wrap}, InTable::ByDefault, "serial_number", &SystemDevice::serial_number},
    {{"PORT", 0.05, Overflow::Keep}, InTable::WhenAsked, "port", &SystemDevice::port, Content::Number},
    {{"BUS", 0.05, Overflow::Keep}, InTable::WhenAsked, "bus", &SystemDevice::bus, Content::Number},
    {{"TARGET", 0.05, Overflow::Keep}, InTable::WhenAsked, "target", &SystemDevice::target, Content::Number},
    {{"LUN", 0.05, Overflow::Keep}, InTable::WhenAsked, "lun", &SystemDevice::lun, Content::Number},
};
static_assert(NameEachTextOnce(fields), "a text of the record has no field, or several");

/**
 * Nothing both for four empty texts and for four zeros: the list of one class says "no address found" with zeros where
 * the merged list says it with empty texts, and the reader of a table should see no difference.
 */
std::string Address(const SystemDevice& device)
{
    std::string address;
    bool known = false;
    for (const Field<SystemDevice>* part : FieldsOf<SystemDevice>({"PORT", "BUS", "TARGET", "LUN"})) {
        const std::string text = TextOf(device, *part);
        known = known || (!text.empty() && text != "0");
        address += (address.empty() ? "" : ":") + (text.empty() ? "-" : text);
    }
    return known ? address : std::string();
}

}  // namespace

template <>
const RecordKind<SystemDevice>& KindOf<SystemDevice>()
{
    static const RecordKind<SystemDevice> kind = {"zddevices/1", "devices", {std::begin(fields), std::end(fields)}};
    return kind;
}

Report<SystemDevice> DescribeDevices(unsigned int status, std::vector<SystemDevice> devices,
                                     std::optional<ZDSystemDevice::SysDeviceType> type)
{
    return {status, std::move(devices), {}, type ? ClassOf(*type).nothingFound : "No storage devices found.", {}};
}

}  // namespace ZDDevices
}  // namespace Zendra
