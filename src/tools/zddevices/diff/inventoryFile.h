/**
 * @file
 * @brief Reads inventories that were kept: the JSON document of one host, or of a fleet of hosts.
 *
 * Files may come from anywhere: whatever they hold, reading ends with an inventory, with a sentence that says what is
 * wrong, or with std::bad_alloc. What a newer program may add to a document is passed over.
 */
#ifndef ZENDRA_ZDDEVICES_INVENTORYFILE_H
#define ZENDRA_ZDDEVICES_INVENTORYFILE_H

#include <stdexcept>
#include <string>
#include <vector>

#include "tools/zddevices/records/storageDevice.h"

namespace Zendra::ZDDevices {

/** The devices of one host at one moment. */
struct HostInventory {
    /** In a fleet the name in its list of hosts, otherwise the host's own. */
    std::string host;
    /** False when the host did not answer at all. */
    bool answered = false;
    /** False when devices may be missing. */
    bool complete = false;
    /** What was asked for when it was not everything: the class and the filters. */
    std::vector<std::string> selection = {};
    std::vector<StorageDevice> devices = {};
};

/** What a file holds. */
struct InventoryFile {
    /** Whether it is a fleet's; otherwise it has exactly one host. */
    bool isFleet = false;
    /** RFC 3339, UTC; empty when the file does not say. */
    std::string collectedAt;
    std::vector<HostInventory> hosts;
};

/** A file that cannot be read as an inventory; the message names the file and says why. It may hold any bytes. */
class InventoryFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** @throws InventoryFileError, std::bad_alloc. */
InventoryFile ReadInventoryFile(const std::string& path);

/** The same from the file's contents; the message does not name the file. */
InventoryFile ParseInventory(const std::string& contents);

}  // namespace Zendra::ZDDevices

#endif
