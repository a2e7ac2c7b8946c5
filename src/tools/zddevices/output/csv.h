/**
 * @file
 * @brief Tables for spreadsheets: comma-separated values as RFC 4180 describes them, in UTF-8.
 */
#ifndef ZENDRA_ZDDEVICES_CSV_H
#define ZENDRA_ZDDEVICES_CSV_H

#include <string>

#include "tools/zddevices/output/table.h"

namespace Zendra::ZDDevices {

/**
 * @brief The table, each line ended by CR and LF.
 *
 * A cell that a spreadsheet would take for a formula has an apostrophe before it: what a device sends is not to be
 * carried out. That protects where commas separate the cells, and not where a person has the spreadsheet split them at
 * another character.
 *
 * @param table its cells come from LabelText(): the file is the same whatever the locale is.
 */
std::string RenderCsv(const Table& table, Headings headings);

}  // namespace Zendra::ZDDevices

#endif
