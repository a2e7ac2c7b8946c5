#include "module/osinfos/systemdevice/deviceNames.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <iterator>

namespace Zendra::ZDSystemDevice {

namespace {

constexpr std::size_t nvmeControllerLength = sizeof("nvme0") - 1;
constexpr std::size_t nvmeDiskLength = sizeof("nvme0n1") - 1;

void AppendNames(const std::vector<std::string>& names, std::string_view prefix, std::vector<std::string>& taken)
{
    std::copy_if(names.begin(), names.end(), std::back_inserter(taken),
                 [&](const std::string& name) { return IsDeviceFileName(prefix, name); });
}

}  // namespace

bool IsDeviceFileName(std::string_view prefix, std::string_view name)
{
    if (name.substr(0, prefix.size()) != prefix) {
        return false;
    }
    // nst0a is taken where st0a is not, and hda1 where sda1 is not (oddity: nst-and-hd-take-all).
    if (prefix == DevicePrefix::tape) {
        return std::isalpha(static_cast<unsigned char>(name.back())) == 0;
    }
    if (prefix == DevicePrefix::scsiDisk) {
        return name.back() < '0' || name.back() > '9';
    }
    if (prefix == DevicePrefix::nvmeDisk) {
        // nvme10 is taken and nvme10n1 is not (oddity: nvme-by-length).
        return name.size() != nvmeControllerLength && name.size() <= nvmeDiskLength;
    }
    return true;
}

std::vector<std::string> DeviceFileNames(const std::vector<std::string>& names, SysDeviceType type)
{
    std::vector<std::string> taken;
    switch (type) {
    case SYS_DEVICE_TAPE:
        AppendNames(names, DevicePrefix::tape, taken);
        if (taken.empty()) {
            AppendNames(names, DevicePrefix::nonRewindingTape, taken);
        }
        break;
    case SYS_DEVICE_PHYSICAL_DRIVE:
        for (const char* prefix : {DevicePrefix::ideDisk, DevicePrefix::scsiDisk, DevicePrefix::nvmeDisk}) {
            AppendNames(names, prefix, taken);
        }
        break;
    case SYS_DEVICE_CDDVD:
        AppendNames(names, DevicePrefix::optical, taken);
        break;
    case SYS_DEVICE_SCSI:
    default:
        AppendNames(names, DevicePrefix::genericScsi, taken);
        if (taken.empty()) {
            AppendNames(names, DevicePrefix::scsiDisk, taken);
        }
        break;
    }
    return taken;
}

}  // namespace Zendra::ZDSystemDevice
