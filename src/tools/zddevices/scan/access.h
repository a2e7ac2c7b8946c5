/**
 * @file
 * @brief Finds the device files that this user may not open.
 *
 * The library leaves out a device that it cannot open, without a word: the program looks for itself, so that a
 * short list is not mistaken for a small host. Only permissions are asked, nothing is opened: opening alone can
 * rewind a tape, wake a disk or wait for a device that hangs.
 */
#ifndef ZENDRA_ZDDEVICES_ACCESS_H
#define ZENDRA_ZDDEVICES_ACCESS_H

#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDDevices {

/**
 * @brief The names in /dev, those of directories among them, in no order.
 * @throws std::system_error when /dev cannot be listed.
 */
std::vector<std::string> ListDeviceDirectory();

/**
 * @brief Those of the names in /dev that the library opens for a class, or for all of them; each once, in natural
 * order.
 */
std::vector<std::string> DeviceFileNames(const std::vector<std::string>& names,
                                         std::optional<ZDSystemDevice::SysDeviceType> type);

/**
 * @brief The device files that the list of a class asks, as paths in the order of /dev; none where /dev may not be
 * listed.
 * @throws std::system_error when /dev cannot be listed for another reason than permissions.
 */
std::vector<std::string> DeviceFilesOf(ZDSystemDevice::SysDeviceType type);

/** Whether an error of a system call says that this process lacks the privilege. */
bool IsPrivilegeLacking(int error);

/** Whether this process may not read the file, for lack of privilege. Opens nothing. */
bool MayNotRead(const std::string& path);

bool IsDirectory(const std::string& path);

/** A device file that exists and may not be opened by this process. */
struct DeniedFile {
    std::string path;
    /** The group whose members may open the file; empty for none and for root's own, whose members hardly exist. */
    std::string group;
};

/** The file with its group. */
DeniedFile DeniedFileAt(const std::string& path);

/**
 * @brief The device files of a class, or of all of them, that this process may not open for reading.
 *
 * /dev itself when it may not be listed. A file that would fail for another reason (no medium, in use, gone) is
 * not among them.
 *
 * @throws std::system_error when /dev cannot be listed for another reason than permissions.
 */
std::vector<DeniedFile> FindDeniedFiles(std::optional<ZDSystemDevice::SysDeviceType> type);

}  // namespace Zendra::ZDDevices

#endif
