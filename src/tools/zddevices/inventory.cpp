#include "tools/zddevices/inventory.h"

#include <utility>
#include <vector>

#include "module/osinfos/systemdevice/deviceCollector.h"
#include "tools/zddevices/deviceReport.h"
#include "tools/zddevices/firmwareReport.h"
#include "tools/zddevices/opticalReport.h"

namespace Zendra {
namespace ZDDevices {

Report CollectDevices(std::optional<ZDSystemDevice::SysDeviceType> type)
{
    ZDSystemDevice::DeviceCollector collector;
    std::vector<ZDSystemDevice::SystemDevice> devices;
    const unsigned int status = type ? collector.GetIndividualDevice(devices, *type) : collector.GetAllDevice(devices);
    return DescribeDevices(status, std::move(devices), type);
}

Report CollectOptical()
{
    std::vector<ZDSystemDevice::OpticalProperty> drives;
    const unsigned int status = ZDSystemDevice::DeviceCollector().GetOpticalProperties(drives);
    return DescribeOptical(status, std::move(drives));
}

Report CollectFirmware()
{
    std::vector<ZDOptions::SoftwareIdentity_> identities;
    const unsigned int status = ZDSystemDevice::DeviceCollector().GetDiskDriverSoftwareIdentities(identities);
    return DescribeFirmware(status, std::move(identities));
}

}  // namespace ZDDevices
}  // namespace Zendra
