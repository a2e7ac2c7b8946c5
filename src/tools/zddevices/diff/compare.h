/**
 * @file
 * @brief What has changed between two inventories, device by device.
 *
 * A device is known again by its world-wide name, or, where one of the inventories has none of it, by vendor, product
 * and serial number. Its device file means nothing: disks change their letters at every boot. Several rows of one
 * device are its paths.
 */
#ifndef ZENDRA_ZDDEVICES_COMPARE_H
#define ZENDRA_ZDDEVICES_COMPARE_H

#include <cstddef>
#include <string>
#include <vector>

#include "tools/zddevices/diff/inventoryFile.h"
#include "tools/zddevices/records/storageDevice.h"

namespace Zendra::ZDDevices {

/** What has become of a device or a host. */
enum class Change {
    Added,
    Removed,
    /** Not in the new inventory, which is not complete: it may be there. */
    NotSeen,
    /** Another device is where this one was, in its slot or at its address. */
    Replaced,
    /** The same device in another slot, or, where the slots are not known, at other addresses. */
    Moved,
    FirmwareChanged,
    /** Vendor, product, model or serial number differ although the world-wide name is the same. */
    IdentityChanged,
    /** A host that did not answer before: what changed there is not known. */
    SeenAgain
};

/** "added", "not seen", "firmware changed". */
std::string WordsOf(Change change);

/** All rows of one device. */
using Paths = std::vector<StorageDevice>;

/** What happened to one device. */
struct DeviceChange {
    /** Empty where the inventories are those of one host. */
    std::string host;
    /** At least one; more than one only of a device that is in both inventories. */
    std::vector<Change> changes;
    /** In the old inventory; none when it was added. */
    Paths before;
    /** In the new inventory; of the other device when this one was replaced. */
    Paths after;
};

/** What happened to one host of a fleet: added, removed, not seen, seen again. */
struct HostChange {
    std::string host;
    Change change;
    /** How many devices the inventory that has the host knows of it. */
    std::size_t devices;
};

/** Everything that differs. */
struct Difference {
    /** By host and device, as people count. */
    std::vector<HostChange> hosts;
    std::vector<DeviceChange> devices;
    /** Devices that nothing changed about. */
    std::size_t unchanged = 0;
    /** Devices with neither world-wide name nor serial number, which cannot be known again. */
    std::size_t unidentifiedBefore = 0;
    std::size_t unidentifiedAfter = 0;

    bool IsEmpty() const { return hosts.empty() && devices.empty() && unidentifiedBefore == unidentifiedAfter; }
};

/**
 * @brief Compares host by host those of two fleets, or two single hosts, whatever their names are.
 * @throws InventoryFileError when the two cannot be compared: a fleet with a host, or other devices were asked for.
 */
Difference Compare(const InventoryFile& before, const InventoryFile& after);

/** Slot, or addresses, of a device, separated by blanks and fit to be printed; "-" where neither is known. */
std::string PlaceOf(const Paths& paths);

/** The firmware revision of a device as long as it is known, fit to be printed. */
std::string FirmwareOf(const Paths& paths);

}  // namespace Zendra::ZDDevices

#endif
