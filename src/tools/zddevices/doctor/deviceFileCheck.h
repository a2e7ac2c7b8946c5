/**
 * @file
 * @brief Asks one device file what the library asks it, and keeps every refusal.
 *
 * The library answers with records or with silence. Here each of its requests is kept with the kernel's error, so that
 * a person can be told why a device is missing. The library is asked for this one file, and asks as ever: it loads the
 * sg driver, and repeats a command that is answered with UNIT ATTENTION after five seconds.
 */
#ifndef ZENDRA_ZDDEVICES_DEVICEFILECHECK_H
#define ZENDRA_ZDDEVICES_DEVICEFILECHECK_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/scan/library.h"

namespace Zendra::ZDDevices {

/** One request to a device and what came back. */
struct RequestResult {
    std::string request;  ///< The ioctl's name.
    std::string asks;     ///< What it asks for, in words.
    int error = 0;        ///< The kernel's error number; 0 when it answered.
    std::string remark;   ///< What was odd about the answer; empty when nothing was.
};

/** Whether the library lists the device behind a file. */
enum class Visibility {
    Visible,         ///< It does.
    Denied,          ///< This user may not open the file.
    CannotBeOpened,  ///< The file cannot be opened for another reason.
    NoUsableAnswer,  ///< The device was asked and gave nothing that the library takes for a device.
    NoAnswerInTime,  ///< Nothing came back in time.
    NotAskedInTime,  ///< The time was over before the device was asked.
    WorkerDied,      ///< The process that asks it ended without an answer, or could not be started.
    Offline,         ///< The kernel has taken the device out of service.
    NotAsked         ///< A rewinding tape node without a twin that could be asked; it may be opened.
};

/** What is known of one device file. */
struct CheckedFile {
    std::string path;
    /** The file that was opened in its place; empty when it was opened itself or nothing was. */
    std::string askedThrough;
    Visibility visibility = Visibility::NoUsableAnswer;
    int openError = 0;  ///< Of open(2); 0 when the file was opened.
    /** In the order in which the library made them. */
    std::vector<RequestResult> requests;
    /** As the library lists them; empty where no device answered. */
    std::string vendor;
    std::string product;
    /** The device's state in sysfs; empty where it is not known. Not the worker's to tell. */
    std::string state = {};
};

/** The request in words. */
RequestResult Describe(const DeviceRequest& request);

/** The number of a character device; 0 for any other file and for none. */
dev_t CharacterDevice(const std::string& path);

/**
 * @brief The file to ask in place of a tape node: closing a node that rewinds moves the tape.
 * @param numberOf CharacterDevice(), or a test's stand-in.
 * @return the node itself, its twin that leaves the tape where it is, or nothing when there is no such twin.
 */
std::string TapeNodeToAsk(const std::string& path, const std::function<dev_t(const std::string& path)>& numberOf);

/**
 * @brief Asks the file; blocks for as long as the device does.
 * @param ask of the class `type`.
 */
CheckedFile CheckDeviceFile(ZDSystemDevice::SysDeviceType type, const std::string& path, const DeviceFileAsker& ask,
                            const std::function<void(const std::string& path)>& tell);

/** The texts by which a checked file passes from one process to another. */
std::vector<std::string> TextsOf(const CheckedFile& file);

/** @throws std::exception for other texts than TextsOf() makes. */
CheckedFile CheckedFileFrom(const std::vector<std::string>& texts);

}  // namespace Zendra::ZDDevices

#endif
