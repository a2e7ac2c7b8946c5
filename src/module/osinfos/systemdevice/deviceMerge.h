/**
 * @file
 * @brief Makes one list of the lists of the classes, in which each device stands once.
 *
 * Of no use to callers of the library, which have DeviceCollector::GetAllDevice(); not installed. It stands apart for
 * programs of this tree that have asked each class by themselves.
 */
#ifndef ZENDRA_SYSTEMDEVICE_DEVICEMERGE_H
#define ZENDRA_SYSTEMDEVICE_DEVICEMERGE_H

#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice {

/**
 * Appends to `devices` each device of `accumulated` once, ordered by address. Of several records with one address the
 * first is kept. Those without an address are all kept, with empty address fields. DeviceCollector::GetAllDevice() says
 * which order that is.
 * @param accumulated the records of the classes behind each other: tape, generic SCSI, disk, optical.
 * @param devices     the caller's list; what it holds already stays in front.
 * @throws std::bad_alloc when memory runs out; what was appended stays.
 */
void MergeByAddress(std::vector<SystemDevice> accumulated, std::vector<SystemDevice>& devices);

}  // namespace Zendra::ZDSystemDevice

#endif
