/**
 * @file
 * @brief Which names in /dev belong to a class of devices.
 *
 * Judges names only: it reads no directory and opens no file. Of no use to callers of the library; not installed. It
 * stands apart for programs of this tree that want to know which files the library asks.
 */
#ifndef ZENDRA_SYSTEMDEVICE_DEVICENAMES_H
#define ZENDRA_SYSTEMDEVICE_DEVICENAMES_H

#include <string>
#include <string_view>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice {

/** What the names of device files begin with. */
namespace DevicePrefix {
constexpr const char* tape = "st";
/** The same tapes; closing such a file leaves the tape where it is. */
constexpr const char* nonRewindingTape = "nst";
constexpr const char* genericScsi = "sg";
constexpr const char* ideDisk = "hd";
constexpr const char* scsiDisk = "sd";
constexpr const char* nvmeDisk = "nvme";
constexpr const char* optical = "sr";
}  // namespace DevicePrefix

/**
 * Whether a scan for `prefix` takes the file called `name`. The name must begin with the prefix. "st" leaves out every
 * name that ends in a letter (in the current locale): the tape mode variants st0a, st0l, st0m and the standard streams.
 * "sd" leaves out every name that ends in a digit: partitions. "nvme" leaves out names of 5 characters, the controllers
 * nvme0 to nvme9, and names of more than 7, the length of nvme0n1. Any other prefix leaves nothing out.
 */
bool IsDeviceFileName(std::string_view prefix, std::string_view name);

/**
 * Those of `names` that the list of a class is made from, prefix by prefix and else in the order of `names`. Tapes are
 * st or, where there is none, nst. Generic SCSI devices are sg or, where there is none, sd: without its module, which
 * decides for the library, no sg file exists. Disks are hd, sd and nvme. Optical drives are sr. Any other type is
 * SYS_DEVICE_SCSI.
 */
std::vector<std::string> DeviceFileNames(const std::vector<std::string>& names, SysDeviceType type);

}  // namespace Zendra::ZDSystemDevice

#endif
