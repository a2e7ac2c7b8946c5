#include "tools/zddevices/records/status.h"

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra {
namespace ZDDevices {

std::string StatusName(unsigned int status)
{
    switch (status) {
    case ZDSystemDevice::DEVICE_RESULT_OK:
        return "DEVICE_RESULT_OK";
    case ZDSystemDevice::DEV_OPEN_OK:
        return "DEV_OPEN_OK";
    case ZDSystemDevice::DEV_OPEN_FAILED:
        return "DEV_OPEN_FAILED";
    case ZDSystemDevice::DEV_SUCCESS:
        return "DEV_SUCCESS";
    case ZDSystemDevice::DEV_FAILURE:
        return "DEV_FAILURE";
    case ZDSystemDevice::DEVICE_RESULT_NONE:
        return "DEVICE_RESULT_NONE";
    default:
        return "UNKNOWN";
    }
}

bool ScanRan(unsigned int status)
{
    return status == ZDSystemDevice::DEVICE_RESULT_OK || status == ZDSystemDevice::DEV_SUCCESS ||
           status == ZDSystemDevice::DEVICE_RESULT_NONE;
}

}  // namespace ZDDevices
}  // namespace Zendra
