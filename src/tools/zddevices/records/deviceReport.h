/**
 * @file
 * @brief Device records as a report: the columns of their table and the keys of their JSON objects.
 */
#ifndef ZENDRA_ZDDEVICES_DEVICEREPORT_H
#define ZENDRA_ZDDEVICES_DEVICEREPORT_H

#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

/**
 * @brief The address as port:bus:target:lun, or "-".
 *
 * "-" both for four empty fields and for four zeros: the list of one class says "no address found" with zeros
 * where the merged list says it with empty fields, and the reader of a table should see no difference.
 */
std::string AddressCell(const ZDSystemDevice::SystemDevice& device);

/** What the facade answered when asked for one class of devices, or for all of them. */
Report DescribeDevices(unsigned int status, std::vector<ZDSystemDevice::SystemDevice> devices,
                       std::optional<ZDSystemDevice::SysDeviceType> type);

/** The headings of the columns that the table of devices can have. */
std::vector<std::string> DeviceColumnNames();

}  // namespace ZDDevices
}  // namespace Zendra

#endif
