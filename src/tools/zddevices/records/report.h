/**
 * @file
 * @brief What one run has found, ready for any output format.
 */
#ifndef ZENDRA_ZDDEVICES_REPORT_H
#define ZENDRA_ZDDEVICES_REPORT_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/diskFirmware.h"
#include "tools/zddevices/scan/missing.h"

namespace Zendra::ZDDevices {

/** Whether a scan that answered this ran: with or without devices. */
constexpr bool ScanRan(unsigned int status)
{
    return status == ZDSystemDevice::DEVICE_RESULT_OK || status == ZDSystemDevice::DEV_SUCCESS ||
           status == ZDSystemDevice::DEVICE_RESULT_NONE;
}

/** Records of one kind, and what belongs to them. */
template <typename Record>
struct Report {
    /** What the library's facade answered; DEV_FAILURE when no class was answered at all. */
    unsigned int status = 0;
    std::vector<Record> records;
    /** What the records lack. */
    std::vector<Missing> missing;
    /** What people are told when there is no record. */
    std::string nothingFound;
    /** What must be known to read the records rightly; for standard error, empty when there is nothing. */
    std::string remark;
};

/** What was answered when one class of devices was asked, or all of them: devices, or the facade's records. */
template <typename Record>
Report<Record> DescribeDevices(unsigned int status, std::vector<Record> devices,
                               std::optional<ZDSystemDevice::SysDeviceType> type)
{
    return {status, std::move(devices), {}, type ? ClassOf(*type).nothingFound : "No storage devices found.", {}};
}

/** What the facade answered when asked for the software identities of the disks. */
Report<DiskFirmware> DescribeFirmware(unsigned int status, std::vector<DiskFirmware> identities);

/**
 * @brief What the facade answered when asked for the optical drives' capabilities.
 *
 * The library describes one drive. With several, its one record holds all their names and no capability; the
 * report then has a remark that says so.
 */
Report<ZDSystemDevice::OpticalProperty> DescribeOptical(unsigned int status,
                                                        std::vector<ZDSystemDevice::OpticalProperty> drives);

/** Whether the record stands for several drives, whose capabilities are then not known. */
bool NamesSeveral(const ZDSystemDevice::OpticalProperty& drive);

}  // namespace Zendra::ZDDevices

#endif
