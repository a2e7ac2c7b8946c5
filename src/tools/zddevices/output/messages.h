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

/** What an answer lacks, and why: a line for each of the first ten, how many more there are, and who is denied. */
std::vector<std::string> DescribeMissing(const std::vector<Missing>& missing, bool userIsRoot);

/** Which files these are and what to do about them. */
std::string DescribeDenied(const std::vector<DeniedFile>& files, bool userIsRoot);

}  // namespace Zendra::ZDDevices

#endif
