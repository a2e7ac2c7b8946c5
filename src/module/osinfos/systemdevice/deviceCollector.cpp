#include "module/osinfos/systemdevice/deviceCollector.h"

#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <utility>

#include "common/logger/logLine.h"
#include "module/osinfos/systemdevice/sysDevice.h"

namespace Zendra {
namespace ZDSystemDevice {

namespace {

struct DeviceClass {
    SysDeviceType type;
    const char* noneFound;
};

/** The order decides which record of a device wins. */
const std::array<DeviceClass, 4> deviceClasses = {{
    {SYS_DEVICE_TAPE, " There has none tape device file."},
    {SYS_DEVICE_SCSI, " There has none scsi device file."},
    {SYS_DEVICE_PHYSICAL_DRIVE, " There has none physical driver device file. "},
    {SYS_DEVICE_CDDVD, " There has none cddvd device file. "},
}};

bool HasNoAddress(const SystemDevice& device)
{
    return device.port == "0" && device.target == "0" && device.bus == "0" && device.lun == "0";
}

std::string DeviceKey(const std::string& port, const std::string& target, const std::string& bus,
                      const std::string& lun)
{
    return "Port:" + port + "|Target:" + target + "|Bus:" + bus + "|Lun:" + lun;
}

}  // namespace

DeviceCollector::DeviceCollector()
{
    ZENDRA_LOG(4, "Enter construct DeviceCollector ");
}

DeviceCollector::~DeviceCollector() = default;

unsigned int DeviceCollector::GetIndividualDevice(std::vector<SystemDevice>& devices, SysDeviceType type)
{
    ZENDRA_LOG(4, "Enter DeviceCollector::GetIndividualDevice() device type = " << static_cast<std::int32_t>(type));
    SysDevice worker(type);
    return worker.GetData(devices);
}

unsigned int DeviceCollector::GetAllDevice(std::vector<SystemDevice>& devices)
{
    ZENDRA_LOG(4, "Enter DeviceCollector::GetAllDevice()");
    std::vector<SystemDevice> scratch;
    std::vector<SystemDevice> accumulated;
    for (const DeviceClass& deviceClass : deviceClasses) {
        if (GetIndividualDevice(scratch, deviceClass.type) == DEVICE_RESULT_NONE) {
            ZENDRA_LOG(4, deviceClass.noneFound);
            continue;
        }
        accumulated.insert(accumulated.end(), std::make_move_iterator(scratch.begin()),
                           std::make_move_iterator(scratch.end()));
        scratch.clear();
    }

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
    ZENDRA_LOG(4, "Leave DeviceCollector::GetAllDevice()");
    return DEVICE_RESULT_OK;
}

}  // namespace ZDSystemDevice
}  // namespace Zendra
