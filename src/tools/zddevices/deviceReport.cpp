#include "tools/zddevices/deviceReport.h"

#include "tools/zddevices/json.h"
#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::SystemDevice;

std::string NothingFound(std::optional<ZDSystemDevice::SysDeviceType> type)
{
    if (type == ZDSystemDevice::SYS_DEVICE_TAPE) {
        return "No tape drives found.";
    }
    if (type == ZDSystemDevice::SYS_DEVICE_SCSI) {
        return "No generic SCSI devices found.";
    }
    if (type == ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE) {
        return "No disks found.";
    }
    if (type == ZDSystemDevice::SYS_DEVICE_CDDVD) {
        return "No optical drives found.";
    }
    return "No storage devices found.";
}

using DeviceColumn = RecordColumn<SystemDevice>;

const std::vector<DeviceColumn>& Columns()
{
    static const std::vector<DeviceColumn> columns = {
        {{"ADDRESS", 0.10, Overflow::Keep}, Shown::ByDefault, AddressCell},
        {{"TYPE", 0.20, Overflow::Cut}, Shown::ByDefault, TextCell<&SystemDevice::device_type>},
        {{"VENDOR", 0.10, Overflow::Wrap}, Shown::ByDefault, TextCell<&SystemDevice::vendor>},
        {{"PRODUCT", 0.25, Overflow::Wrap}, Shown::ByDefault, TextCell<&SystemDevice::product>},
        {{"FIRMWARE", 0.10, Overflow::Wrap}, Shown::ByDefault, TextCell<&SystemDevice::firmware_revision>},
        {{"SERIAL", 0.25, Overflow::Wrap}, Shown::ByDefault, TextCell<&SystemDevice::serial_number>},
        {{"PORT", 0.05, Overflow::Keep}, Shown::WhenAsked, TextCell<&SystemDevice::port>},
        {{"BUS", 0.05, Overflow::Keep}, Shown::WhenAsked, TextCell<&SystemDevice::bus>},
        {{"TARGET", 0.05, Overflow::Keep}, Shown::WhenAsked, TextCell<&SystemDevice::target>},
        {{"LUN", 0.05, Overflow::Keep}, Shown::WhenAsked, TextCell<&SystemDevice::lun>}};
    return columns;
}

nlohmann::ordered_json Object(const SystemDevice& device)
{
    // Not by a list of pairs, out of which every text would be copied once more; and with room for all of them at once.
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    constexpr std::size_t fieldCount = 9;
    object.get_ref<nlohmann::ordered_json::object_t&>().reserve(fieldCount);
    object["vendor"] = JsonText(device.vendor);
    object["product"] = JsonText(device.product);
    object["device_type"] = JsonText(device.device_type);
    object["serial_number"] = JsonText(device.serial_number);
    object["firmware_revision"] = JsonText(device.firmware_revision);
    object["port"] = JsonNumber(device.port);
    object["target"] = JsonNumber(device.target);
    object["bus"] = JsonNumber(device.bus);
    object["lun"] = JsonNumber(device.lun);
    return object;
}

}  // namespace

std::string AddressCell(const SystemDevice& device)
{
    bool known = false;
    for (const std::string* field : {&device.port, &device.bus, &device.target, &device.lun}) {
        known = known || (!field->empty() && *field != "0");
    }
    if (!known) {
        return unknownText;
    }
    return CellText(device.port) + ":" + CellText(device.bus) + ":" + CellText(device.target) + ":" +
           CellText(device.lun);
}

Report DescribeDevices(unsigned int status, std::vector<SystemDevice> devices,
                       std::optional<ZDSystemDevice::SysDeviceType> type)
{
    Report report;
    report.schema = "zddevices/1";
    report.recordsKey = "devices";
    report.status = status;
    report.nothingFound = NothingFound(type);
    ComposeFrom(std::move(devices), Columns(), Object, report);
    return report;
}

std::vector<std::string> DeviceColumnNames()
{
    return HeadingsOf(Columns());
}

}  // namespace ZDDevices
}  // namespace Zendra
