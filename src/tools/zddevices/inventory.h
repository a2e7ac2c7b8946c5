/**
 * @file
 * @brief Asks the library. The only source of the program that calls the facade.
 */
#ifndef ZENDRA_ZDDEVICES_INVENTORY_H
#define ZENDRA_ZDDEVICES_INVENTORY_H

#include <optional>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/report.h"

namespace Zendra {
namespace ZDDevices {

/** The devices of one class as their device files stand, or, without a class, all devices merged. Blocks. */
Report CollectDevices(std::optional<ZDSystemDevice::SysDeviceType> type);

/** What the optical drive can read and write. Blocks. */
Report CollectOptical();

/** The firmware of the disks. Blocks. */
Report CollectFirmware();

}  // namespace ZDDevices
}  // namespace Zendra

#endif
