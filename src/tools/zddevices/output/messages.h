/**
 * @file
 * @brief What people are told beside the answer, in one line each; fit for a terminal, without line ends.
 */
#ifndef ZENDRA_ZDDEVICES_MESSAGES_H
#define ZENDRA_ZDDEVICES_MESSAGES_H

#include <string>
#include <vector>

#include "tools/zddevices/records/report.h"
#include "tools/zddevices/scan/access.h"

namespace Zendra::ZDDevices {

/** "DEVICE_RESULT_OK", ...; "UNKNOWN" for a number that the library does not use. */
std::string StatusName(unsigned int status);

std::string DescribeFailedScan(unsigned int status);

/** Which class is missing, and why. */
std::string DescribeUnanswered(const Unanswered& unanswered);

/** Which files these are and what to do about them. */
std::string DescribeDenied(const std::vector<DeniedFile>& files, bool userIsRoot);

}  // namespace Zendra::ZDDevices

#endif
