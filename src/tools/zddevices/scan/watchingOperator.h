/**
 * @file
 * @brief An operator that tells what is asked of the devices and what came back.
 *
 * It asks as the library's own operator does, which it is; Watched puts it into a proxy.
 */
#ifndef ZENDRA_ZDDEVICES_WATCHINGOPERATOR_H
#define ZENDRA_ZDDEVICES_WATCHINGOPERATOR_H

#include <functional>
#include <string>

#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "tools/zddevices/scan/worker.h"

namespace Zendra {
namespace ZDDevices {

/** One ioctl on a device file that has been asked. */
struct DeviceRequest {
    /** The ioctl's request number. */
    unsigned int code;
    /** Its argument, as the kernel left it. */
    const void* argument;
    /** DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED. */
    int status;
    /** The error number of ioctl(2), or of open(2) where the file was not opened; 0 where nothing failed. */
    int error;
};

/** Who is told of requests. */
struct Watch {
    /** Called before each request. */
    NoteDeviceFile before;
    /** Called after each request; may be empty. */
    std::function<void(const DeviceRequest& request)> after = nullptr;
};

class WatchingOperator : public ZDSystemDevice::DataOperator {
public:
    explicit WatchingOperator(Watch whoIsTold);

    /** As DataOperator::ExecIoCtl(), through which SCSI commands go, too. */
    int ExecIoCtl(ZDSystemDevice::ReqIoCtlParam& request) override;

private:
    Watch watch;
};

/** A proxy whose requests are watched. */
template <typename Proxy>
class Watched : public Proxy {
public:
    explicit Watched(const Watch& watch)
    {
        auto* const watching = new WatchingOperator(watch);
        delete this->dataOper;
        this->dataOper = watching;
    }

    /** Whether the sg module could be loaded. */
    bool UsesSgDriver() const { return this->sg_ko_loaded; }
};

}  // namespace ZDDevices
}  // namespace Zendra

#endif
