/**
 * @file
 * @brief The kernel's table of optical drives: from its text to what a drive can do.
 *
 * The table has a row per property, "name:", then a column per drive. It is read as if it had one column. Text in,
 * record out: nothing is opened, started or logged here. Of no use to callers of the library; not installed.
 */
#ifndef ZENDRA_SYSTEMDEVICE_OPTICALTABLE_H
#define ZENDRA_SYSTEMDEVICE_OPTICALTABLE_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice::OpticalTable {

constexpr const char* path = "/proc/sys/dev/cdrom/info";
/** Characters; a longer line ends the table. */
constexpr std::size_t longestLine = 255;
/** A whole table has this many lines, the empty one at its end included. */
constexpr std::size_t completeLineCount = 20;

/** The value of each row by its name, without blanks and tabs around either. */
using Rows = std::map<std::string, std::string>;

/** The lines of the table, and an empty one for the end of the text; a line that is too long is cut and the last. */
std::vector<std::string> SplitLines(const std::string& table);

/** The rows that have a name and one value; of rows of the same name the first counts. */
Rows ReadRows(const std::vector<std::string>& lines);

/**
 * Takes over what the rows say: the drive's path and its capabilities; vendor and product stay. What has no row stays.
 * A capability is "Yes" where the row says exactly "1", otherwise "No".
 */
void StoreRows(const Rows& rows, OpticalProperty& drive);

}  // namespace Zendra::ZDSystemDevice::OpticalTable

#endif
