#include "module/osinfos/systemdevice/deviceMerge.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace Zendra {
namespace ZDSystemDevice {

namespace {

/** Room for "Port:10|Target:15|Bus:0|Lun:0". */
constexpr std::size_t usualKeyLength = 48;

bool HasNoAddress(const SystemDevice& device)
{
    return device.port == "0" && device.target == "0" && device.bus == "0" && device.lun == "0";
}

std::string DeviceKey(const std::string& port, const std::string& target, const std::string& bus,
                      const std::string& lun)
{
    std::string key;
    key.reserve(usualKeyLength);
    key.append("Port:").append(port).append("|Target:").append(target);
    key.append("|Bus:").append(bus).append("|Lun:").append(lun);
    return key;
}

}  // namespace

void MergeByAddress(std::vector<SystemDevice> accumulated, std::vector<SystemDevice>& devices)
{
    std::map<std::string, SystemDevice> devicesByKey;
    std::int32_t withoutAddress = 1;
    for (SystemDevice& device : accumulated) {
        std::string key;
        if (HasNoAddress(device)) {
            // May meet the key of a real device at this address, which then wins or loses by order; required.
            const std::string number = std::to_string(withoutAddress);
            key = DeviceKey(number, number, number, number);
            device.port.clear();
            device.target.clear();
            device.bus.clear();
            device.lun.clear();
            ++withoutAddress;
        } else {
            key = DeviceKey(device.port, device.target, device.bus, device.lun);
        }
        devicesByKey.try_emplace(std::move(key), std::move(device));
    }
    for (auto& keyAndDevice : devicesByKey) {
        devices.push_back(std::move(keyAndDevice.second));
    }
}

}  // namespace ZDSystemDevice
}  // namespace Zendra
