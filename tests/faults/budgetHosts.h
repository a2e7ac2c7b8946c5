/**
 * @file
 * @brief Simulated hosts of any size, as host files: so many devices of a class, each saying something of its own.
 */
#ifndef ZENDRA_TESTS_FAULTS_BUDGETHOSTS_H
#define ZENDRA_TESTS_FAULTS_BUDGETHOSTS_H

#include <string>
#include <vector>

namespace Faults {

/** The kinds of devices, each with the call that lists it. */
const std::vector<std::string>& DeviceKinds();

/**
 * The text of a host file with `count` devices (at most 26) of this kind and `otherBlocks` more entries in /sys/block.
 * `tag` (at most two characters) stands in every text that a device says.
 */
std::string HostText(const std::string& kind, unsigned count, unsigned otherBlocks = 0, const std::string& tag = "");

}  // namespace Faults

#endif
