/**
 * @file
 * @brief The firmware of disks, as a report.
 */
#ifndef ZENDRA_ZDDEVICES_FIRMWAREREPORT_H
#define ZENDRA_ZDDEVICES_FIRMWAREREPORT_H

#include <string>
#include <vector>

#include "common/options/softwareIdentity.h"
#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

/** What the facade answered when asked for the software identities of the disks. */
Report DescribeFirmware(unsigned int status, std::vector<ZDOptions::SoftwareIdentity_> identities);

/** The headings of the columns that the table of firmware can have. */
std::vector<std::string> FirmwareColumnNames();

}  // namespace ZDDevices
}  // namespace Zendra

#endif
