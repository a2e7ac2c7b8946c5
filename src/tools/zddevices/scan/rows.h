/**
 * @file
 * @brief Makes the rows of a list of what the library said of device files and what the kernel says of devices.
 */
#ifndef ZENDRA_ZDDEVICES_ROWS_H
#define ZENDRA_ZDDEVICES_ROWS_H

#include <vector>

#include "tools/zddevices/records/storageDevice.h"
#include "tools/zddevices/scan/kernelDevices.h"

namespace Zendra::ZDDevices {

/**
 * @brief One row for each device.
 *
 * What the kernel says is one device is one row, with the kernel's address, also where its files gave different texts:
 * each text is then that of the first record that has it, so that the classes have the same precedence as in the
 * library's merged list; but records with a device type come first. Records whose files the kernel does not know are
 * merged by their address, as the library does it, and stand behind the others.
 *
 * @param found the records of the classes in the order of deviceClasses. `device_files` is the path that was asked,
 *              ended by a line end, or empty where that is not known. `model` and `revision` may hold what was asked of
 *              the device; of the kernel's fields all others are empty.
 */
std::vector<StorageDevice> RowsOfDevices(std::vector<StorageDevice> found, const KernelDevices& kernel);

/** One row for each record, with what the kernel says of the device that its file belongs to. @param found as above. */
std::vector<StorageDevice> RowsOfFiles(std::vector<StorageDevice> found, const KernelDevices& kernel);

}  // namespace Zendra::ZDDevices

#endif
