/**
 * @file
 * @brief What one run has found, ready for any output format.
 */
#ifndef ZENDRA_ZDDEVICES_REPORT_H
#define ZENDRA_ZDDEVICES_REPORT_H

#include <optional>
#include <string>
#include <vector>

#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDDevices {

/** Whether a scan that answered this ran: with or without devices. */
constexpr bool ScanRan(unsigned int status)
{
    return status == ZDSystemDevice::DEVICE_RESULT_OK || status == ZDSystemDevice::DEV_SUCCESS ||
           status == ZDSystemDevice::DEVICE_RESULT_NONE;
}

/** A class of devices about which there is no answer. */
struct Unanswered {
    /** As on the command line: "disk". */
    std::string className;
    /** Why, for people. */
    std::string failure;
    /** The device file that it waits for; empty when that is not known. */
    std::string device;
};

/** Records of one kind, and what belongs to them. */
template <typename Record>
struct Report {
    /** What the library's facade answered; DEV_FAILURE when no class was answered at all. */
    unsigned int status = 0;
    std::vector<Record> records;
    /** The classes whose devices are missing, which the library was not to be waited for any longer. */
    std::vector<Unanswered> unanswered;
    /** What people are told when there is no record. */
    std::string nothingFound;
    /** What must be known to read the records rightly; for standard error, empty when there is nothing. */
    std::string remark;
};

/** What the facade answered when asked for one class of devices, or for all of them. */
Report<ZDSystemDevice::SystemDevice> DescribeDevices(unsigned int status,
                                                     std::vector<ZDSystemDevice::SystemDevice> devices,
                                                     std::optional<ZDSystemDevice::SysDeviceType> type);

/** What the facade answered when asked for the software identities of the disks. */
Report<ZDOptions::SoftwareIdentity_> DescribeFirmware(unsigned int status,
                                                      std::vector<ZDOptions::SoftwareIdentity_> identities);

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
