/**
 * @file
 * @brief A difference of inventories in words and as a JSON document.
 */
#ifndef ZENDRA_ZDDEVICES_DIFFREPORT_H
#define ZENDRA_ZDDEVICES_DIFFREPORT_H

#include <cstddef>
#include <string>

#include "tools/zddevices/diff/compare.h"
#include "tools/zddevices/diff/inventoryFile.h"
#include "tools/zddevices/output/table.h"

namespace Zendra::ZDDevices {

/**
 * @brief For people: a table of what changed, and sentences about what a table cannot show. Fit for a terminal; empty
 *        when nothing differs.
 * @param width the columns of the terminal; 0 for no limit.
 */
std::string RenderDifference(const Difference& difference, const InventoryFile& before, std::size_t width,
                             Headings headings);

/** For programs: schema zddevices-diff/1, ASCII, ended by a line end. */
std::string RenderDifferenceJson(const Difference& difference, const InventoryFile& before, const InventoryFile& after);

}  // namespace Zendra::ZDDevices

#endif
