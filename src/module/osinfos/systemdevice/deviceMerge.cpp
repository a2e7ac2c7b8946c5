#include "module/osinfos/systemdevice/deviceMerge.h"

#include <endian.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "common/composeText.h"
#include "common/makeRoom.h"

namespace Zendra {
namespace ZDSystemDevice {

namespace {

class KeyedDevice {
public:
    KeyedDevice(std::string keyOfDevice, SystemDevice& deviceOfKey)
        : key(std::move(keyOfDevice)), start(StartOf(key)), device(&deviceOfKey)
    {
    }

    SystemDevice& Device() const { return *device; }

    bool HasKeyOf(const KeyedDevice& other) const { return Compare(other) == 0; }

    /** In the order of the keys' bytes; of equal ones the first of the list is first. */
    bool Precedes(const KeyedDevice& other) const
    {
        const int order = Compare(other);
        return order != 0 ? order < 0 : device < other.device;
    }

private:
    /** The first bytes as one number, which orders as they do. */
    static std::uint64_t StartOf(const std::string& key)
    {
        std::uint64_t bytes = 0;
        key.copy(reinterpret_cast<char*>(&bytes), sizeof(bytes));
        return be64toh(bytes);
    }

    int Compare(const KeyedDevice& other) const
    {
        if (start != other.start) {
            return start < other.start ? -1 : 1;
        }
        return key.compare(other.key);
    }

    std::string key;
    /** Nearly all that are compared differ in it. */
    std::uint64_t start;
    SystemDevice* device;
};

bool IsZero(const std::string& number)
{
    return number.size() == 1 && number.front() == '0';
}

bool HasNoAddress(const SystemDevice& device)
{
    return IsZero(device.port) && IsZero(device.target) && IsZero(device.bus) && IsZero(device.lun);
}

/**
 * Orders as "Port:2|Target:0|Bus:0|Lun:0" would, whose words are the same in every key. What separates the numbers
 * matters: it is greater than any digit, so that port 20 comes before port 2.
 */
std::string DeviceKey(const std::string& port, const std::string& target, const std::string& bus,
                      const std::string& lun)
{
    std::string key;
    ComposeText(key, port, "|", target, "|", bus, "|", lun);
    return key;
}

}  // namespace

void MergeByAddress(std::vector<SystemDevice> accumulated, std::vector<SystemDevice>& devices)
{
    std::vector<KeyedDevice> keyed;
    keyed.reserve(accumulated.size());
    std::int32_t withoutAddress = 1;
    for (SystemDevice& device : accumulated) {
        if (HasNoAddress(device)) {
            // May meet the key of a real device at this address, which then wins or loses by order; required.
            const std::string number = std::to_string(withoutAddress);
            keyed.emplace_back(DeviceKey(number, number, number, number), device);
            device.port.clear();
            device.target.clear();
            device.bus.clear();
            device.lun.clear();
            ++withoutAddress;
        } else {
            keyed.emplace_back(DeviceKey(device.port, device.target, device.bus, device.lun), device);
        }
    }
    std::vector<const KeyedDevice*> sorted;
    sorted.reserve(keyed.size());
    for (const KeyedDevice& one : keyed) {
        sorted.push_back(&one);
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const KeyedDevice* left, const KeyedDevice* right) { return left->Precedes(*right); });
    const auto sameKey = [](const KeyedDevice* left, const KeyedDevice* right) { return left->HasKeyOf(*right); };
    sorted.erase(std::unique(sorted.begin(), sorted.end(), sameKey), sorted.end());
    MakeRoom(devices, sorted.size());
    for (const KeyedDevice* one : sorted) {
        devices.push_back(std::move(one->Device()));
    }
}

}  // namespace ZDSystemDevice
}  // namespace Zendra
