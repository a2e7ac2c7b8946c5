#include "tools/zddevices/deviceClass.h"

#include <algorithm>
#include <stdexcept>

namespace Zendra {
namespace ZDDevices {

const DeviceClass& ClassOf(ZDSystemDevice::SysDeviceType type)
{
    const auto found = std::find_if(deviceClasses.begin(), deviceClasses.end(),
                                    [type](const DeviceClass& one) { return one.type == type; });
    if (found == deviceClasses.end()) {
        throw std::invalid_argument("no class of devices has this number");
    }
    return *found;
}

}  // namespace ZDDevices
}  // namespace Zendra
