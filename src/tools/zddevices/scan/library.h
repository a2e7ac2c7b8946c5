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
    /** Called before each request; where it says no, the file is passed over as one that cannot be opened. */
    std::function<bool(const std::string& deviceFile)> before;
    /** Called after each request that was made; may be empty. */
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
 * @{
 */
/** @param type absent for all devices, merged. */
DeviceAnswer AskForDevices(std::optional<ZDSystemDevice::SysDeviceType> type);
OpticalAnswer AskForOptical();
FirmwareAnswer AskForFirmware();
/** @} */

/** What the list of a class made of one device file. */
struct FileAnswer {
    std::string path;
    /** The error number of open(2); 0 when the file was opened. */
    int openError = 0;
    /** The error number of the last request that failed; 0 for none. */
    int error = 0;
    /** Absent when the list left the device out. */
    std::optional<ZDSystemDevice::SystemDevice> record = std::nullopt;
    /** What an ATA disk says of itself, of which the record holds a part; empty for others. */
    std::string model = {};
    std::string revision = {};
};

/** What the list of a class answered. */
struct ClassAnswer {
    unsigned int status;
    /** Whether the sg module could be loaded: if not, the generic class does not ask the files of its driver. */
    bool usesSgDriver;
};

/**
 * @brief Has the list of a class made, by the facade's proxy; the facade's own part of the log is not written.
 * @param take whether to ask a file; otherwise it is passed over as one that cannot be opened. Called once for each.
 * @param done is told of each file that was taken, as soon as it is known.
 */
ClassAnswer AskFileByFile(ZDSystemDevice::SysDeviceType type, const std::function<bool(const std::string& path)>& take,
                          const std::function<void(FileAnswer answer)>& done);

/** What the library makes of one device file that is asked alone. */
struct DeviceFileAnswer {
    /** Whether the list of the class holds the device. */
    bool listed = false;
    std::string vendor;
    std::string product;
};

/** Asks one device file of a class, as the list of the class does. */
using DeviceFileAsker = std::function<DeviceFileAnswer(std::string path, const Watch& watch)>;

/** Is to be made once for many files: as it is made, it has the sg driver loaded, by modprobe. */
DeviceFileAsker AskerOf(ZDSystemDevice::SysDeviceType type);

/** Loads the sg driver as each list does. @return whether the generic class then asks the files of that driver. */
bool LoadSgDriver();

}  // namespace Zendra::ZDDevices

#endif
