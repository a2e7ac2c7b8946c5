#include "tools/zddevices/records/deviceReport.h"

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::SystemDevice;

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

void WriteObject(const SystemDevice& device, JsonWriter& json)
{
    json.Key("vendor");
    json.RecordText(device.vendor);
    json.Key("product");
    json.RecordText(device.product);
    json.Key("device_type");
    json.RecordText(device.device_type);
    json.Key("serial_number");
    json.RecordText(device.serial_number);
    json.Key("firmware_revision");
    json.RecordText(device.firmware_revision);
    json.Key("port");
    json.AddressNumber(device.port);
    json.Key("target");
    json.AddressNumber(device.target);
    json.Key("bus");
    json.AddressNumber(device.bus);
    json.Key("lun");
    json.AddressNumber(device.lun);
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
    report.nothingFound = type ? ClassOf(*type).nothingFound : "No storage devices found.";
    ComposeFrom(std::move(devices), Columns(), WriteObject, report);
    return report;
}

std::vector<std::string> DeviceColumnNames()
{
    return HeadingsOf(Columns());
}

}  // namespace ZDDevices
}  // namespace Zendra
