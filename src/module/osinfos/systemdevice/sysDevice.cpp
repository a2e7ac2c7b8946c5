#include "module/osinfos/systemdevice/sysDevice.h"

#include <cstdint>
#include <new>

#include "common/logger/logLine.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"

namespace Zendra::ZDSystemDevice {

SysDevice::SysDevice(SysDeviceType type) : deviceType(type)
{
    ZENDRA_LOG(4, "Enter construct SysDevice device type is " << static_cast<std::int32_t>(deviceType));
}

DataProxy* SysDevice::makeDataProxy()
{
    try {
        switch (deviceType) {
        case SYS_DEVICE_TAPE:
            return new TapeProxy;
        case SYS_DEVICE_PHYSICAL_DRIVE:
            return new PhysicalDriveProxy;
        case SYS_DEVICE_CDDVD:
            return new CDDVDProxy;
        case SYS_DEVICE_SCSI:
        default:
            return new SCSIProxy;
        }
    } catch (const std::bad_alloc&) {
        ZENDRA_LOG(4, "makeDataProxy error due to catch an exception bad_alloc");
    }
    return nullptr;
}

unsigned int SysDevice::GetData(std::vector<SystemDevice>& out)
{
    ZENDRA_LOG(4, "Enter SysDevice::GetData()  device_type = " << static_cast<std::int32_t>(deviceType));
    // Not owned by a guard: a proxy whose operation throws is left as it is (oddity: proxy-is-lost).
    DataProxy* const proxy = makeDataProxy();
    if (proxy == nullptr) {
        return DEVICE_RESULT_OK;
    }
    const unsigned int result = proxy->GetDeviceList(out);
    delete proxy;
    return result;
}

unsigned int SysDevice::GetOpticalData(std::vector<OpticalProperty>& out)
{
    DataProxy* const proxy = makeDataProxy();
    if (proxy == nullptr) {
        return DEVICE_RESULT_OK;
    }
    const unsigned int result = proxy->GetCDDVDOptList(out);
    delete proxy;
    return result;
}

}  // namespace Zendra::ZDSystemDevice
