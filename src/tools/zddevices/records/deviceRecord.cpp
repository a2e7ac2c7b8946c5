#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

namespace {

using Device = ZDSystemDevice::SystemDevice;

std::string Address(const Device& device);

/** A part of the address. */
constexpr Field<Device> Number(const char* heading, const char* key, std::string Device::*member)
{
    return {{heading}, key, member, nullptr, InTable::WhenAsked, Content::Number};
}

constexpr Field<Device> fields[] = {
    // Heading, least width, key in JSON, text.
    {{"ADDRESS"}, nullptr, nullptr, Address},
    {{"TYPE", 12}, "device_type", &Device::device_type},
    {{"VENDOR", 8}, "vendor", &Device::vendor},
    {{"PRODUCT", 12}, "product", &Device::product},
    {{"FIRMWARE", 8}, "firmware_revision", &Device::firmware_revision},
    {{"SERIAL", 20}, "serial_number", &Device::serial_number},
    Number("PORT", "port", &Device::port),
    Number("BUS", "bus", &Device::bus),
    Number("TARGET", "target", &Device::target),
    Number("LUN", "lun", &Device::lun),
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

}  // namespace Zendra::ZDDevices
