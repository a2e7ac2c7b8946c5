/**
 * @file
 * @brief Asks the library. The only room of the program that calls it.
 *
 * Every function asks in this process and blocks for as long as the devices do.
 */
#ifndef ZENDRA_ZDDEVICES_LIBRARY_H
#define ZENDRA_ZDDEVICES_LIBRARY_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/scan/worker.h"

namespace Zendra::ZDDevices {

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

/** Status and records of one call. */
template <typename Record>
struct Answer {
    unsigned int status = ZDSystemDevice::DEVICE_RESULT_OK;
    std::vector<Record> records;
};

using DeviceAnswer = Answer<ZDSystemDevice::SystemDevice>;
using OpticalAnswer = Answer<ZDSystemDevice::OpticalProperty>;
using FirmwareAnswer = Answer<ZDOptions::SoftwareIdentity_>;

/**
 * @name What the library's facade answers.
 *
 * With a watch, which is told of each request, the facade's proxies are asked in its place: of its log their part is
 * then written.
 * @{
 */
/** @param type absent for all devices, merged; never with a watch. */
DeviceAnswer AskForDevices(std::optional<ZDSystemDevice::SysDeviceType> type, const Watch* watch);
OpticalAnswer AskForOptical(const Watch* watch);
FirmwareAnswer AskForFirmware(const Watch* watch);
/** @} */

/** What the library makes of one device file. */
struct DeviceFileAnswer {
    /** Whether the list of the class holds the device. */
    bool listed = false;
    std::string vendor;
    std::string product;
};

/** Asks one device file of a class, as the list of the class does. */
DeviceFileAnswer AskDeviceFile(ZDSystemDevice::SysDeviceType type, std::string path, const Watch& watch);

/** Loads the sg driver as each list does. @return whether the generic class then asks the files of that driver. */
bool LoadSgDriver();

}  // namespace Zendra::ZDDevices

#endif
