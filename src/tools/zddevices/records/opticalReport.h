/**
 * @file
 * @brief What optical drives can do, as a report.
 */
#ifndef ZENDRA_ZDDEVICES_OPTICALREPORT_H
#define ZENDRA_ZDDEVICES_OPTICALREPORT_H

#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

/** Whether the record stands for several drives, whose capabilities are then not known. */
bool NamesSeveral(const ZDSystemDevice::OpticalProperty& drive);

/**
 * @brief What the facade answered when asked for the optical drives' capabilities.
 *
 * The library describes one drive. With several, its one record holds all their names and no capability; the
 * report then has a remark that says so.
 */
Report DescribeOptical(unsigned int status, std::vector<ZDSystemDevice::OpticalProperty> drives);

/** The headings of the columns that the table of drives can have. */
std::vector<std::string> OpticalColumnNames();

}  // namespace ZDDevices
}  // namespace Zendra

#endif
