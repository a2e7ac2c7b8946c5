#include "tools/zddevices/scan/watchingOperator.h"

#include <cerrno>
#include <utility>

namespace Zendra {
namespace ZDDevices {

WatchingOperator::WatchingOperator(Watch whoIsTold) : watch(std::move(whoIsTold)) {}

int WatchingOperator::ExecIoCtl(ZDSystemDevice::ReqIoCtlParam& request)
{
    watch.before(request.driveName);
    errno = 0;
    const int status = DataOperator::ExecIoCtl(request);
    // Still that of open(2) or ioctl(2): behind them the operator closes the file, which succeeds, and logs.
    const int error = status == ZDSystemDevice::DEV_SUCCESS ? 0 : errno;
    if (watch.after) {
        watch.after({static_cast<unsigned int>(request.ioctlCode), request.ioctlData, status, error});
    }
    return status;
}

}  // namespace ZDDevices
}  // namespace Zendra
