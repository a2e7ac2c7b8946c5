/**
 * @file
 * @brief The firmware of disks, as a report.
 */
#ifndef ZENDRA_ZDDEVICES_FIRMWAREREPORT_H
#define ZENDRA_ZDDEVICES_FIRMWAREREPORT_H

#include <vector>

#include "common/options/softwareIdentity.h"
#include "tools/zddevices/report.h"

namespace Zendra {
namespace ZDDevices {

/** What the facade answered when asked for the software identities of the disks. */
Report DescribeFirmware(unsigned int status, std::vector<ZDOptions::SoftwareIdentity_> identities);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
