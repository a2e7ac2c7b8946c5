/**
 * @file
 * @brief The worker for one class of devices: makes the proxy, runs one operation on it, deletes it.
 *
 * Holds no device data. Not to be shared between threads while a call runs.
 */
#ifndef ZENDRA_SYSTEMDEVICE_SYSDEVICE_H
#define ZENDRA_SYSTEMDEVICE_SYSDEVICE_H

#include <vector>

#include "common/export.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice {

class DataProxy;

/** One class of devices. */
class ZENDRA_EXPORT SysDevice {
public:
    /** Any type other than the four known ones is treated as SYS_DEVICE_SCSI. */
    explicit SysDevice(SysDeviceType type);

    /** Makes the proxy of the class; the caller deletes it (see dataProxy_linux.h). Null when memory ran out. */
    DataProxy* makeDataProxy();

    /**
     * Appends the devices of the class. Loads the sg module; blocks while the devices are asked.
     * @return DEVICE_RESULT_OK (also when memory ran out before the scan) or DEVICE_RESULT_NONE.
     * @throws std::bad_alloc when memory runs out during the scan; what was appended stays, and the proxy is lost.
     */
    unsigned int GetData(std::vector<SystemDevice>& out);

    /**
     * Appends the capability records of the class, which only optical drives have.
     * @return what the class answers: DEVICE_RESULT_OK (also when memory ran out before the scan),
     *         DEVICE_RESULT_NONE, or DEV_SUCCESS from the generic SCSI class, with nothing done.
     * @throws std::bad_alloc when memory runs out during the scan; the proxy is lost.
     */
    unsigned int GetOpticalData(std::vector<OpticalProperty>& out);

private:
    SysDeviceType deviceType;
};

}  // namespace Zendra::ZDSystemDevice

#endif
