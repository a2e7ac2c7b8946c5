#include "module/osinfos/systemdevice/deviceMerge.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "common/concatenate.h"

namespace Zendra::ZDSystemDevice {

namespace {

bool HasNoAddress(const SystemDevice& device)
{
    return device.port == "0" && device.target == "0" && device.bus == "0" && device.lun == "0";
}

std::string DeviceKey(const std::string& port, const std::string& target, const std::string& bus,
                      const std::string& lun)
{
    return Concatenate("Port:", port, "|Target:", target, "|Bus:", bus, "|Lun:", lun);
}

}  // namespace

void MergeByAddress(std::vector<SystemDevice> accumulated, std::vector<SystemDevice>& devices)
{
    std::map<std::string, SystemDevice*> byKey;
    std::int32_t withoutAddress = 1;
    for (SystemDevice& device : accumulated) {
        if (HasNoAddress(device)) {
            // May meet the key of a device that has this address: the first of the two stays (oddity: counted-keys).
            const std::string number = std::to_string(withoutAddress);
            byKey.try_emplace(DeviceKey(number, number, number, number), &device);
            device.port.clear();
            device.target.clear();
            device.bus.clear();
            device.lun.clear();
            ++withoutAddress;
        } else {
            byKey.try_emplace(DeviceKey(device.port, device.target, device.bus, device.lun), &device);
        }
    }
    devices.reserve(devices.size() + byKey.size());
    for (const auto& [key, device] : byKey) {
        devices.push_back(std::move(*device));
    }
}

}  // namespace Zendra::ZDSystemDevice
