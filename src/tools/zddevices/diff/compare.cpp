#include "tools/zddevices/diff/compare.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/arrange.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

namespace {

using Texts = std::set<std::string>;

/** The texts of a member for all paths to a device, each once: without their padding, or as they are shown. */
Texts TextsOf(const Paths& paths, std::string StorageDevice::*member,
              std::string (*shown)(std::string_view text) = LabelText)
{
    Texts texts;
    for (const StorageDevice& path : paths) {
        if (!LabelText(path.*member).empty()) {
            texts.insert(shown(path.*member));
        }
    }
    return texts;
}

Texts AddressesOf(const Paths& paths)
{
    static const Field<StorageDevice>& address = *FieldsOf<StorageDevice>({"ADDRESS"}).at(0);
    Texts addresses;
    for (const StorageDevice& path : paths) {
        addresses.insert(TextOf(path, address));
    }
    addresses.erase("");
    return addresses;
}

/** Whether both are known, and are not the same. */
bool Differ(const Texts& before, const Texts& after)
{
    return !before.empty() && !after.empty() && before != after;
}

bool Differ(const Paths& before, const Paths& after, std::string StorageDevice::*member)
{
    return Differ(TextsOf(before, member), TextsOf(after, member));
}

/** @param seesAll whether a path that is not among the new ones is gone. */
bool HasMoved(const Paths& before, const Paths& after, bool seesAll)
{
    const Texts oldSlots = TextsOf(before, &StorageDevice::slot);
    const Texts newSlots = TextsOf(after, &StorageDevice::slot);
    if (!oldSlots.empty() && !newSlots.empty()) {
        return oldSlots != newSlots;
    }
    const Texts old = AddressesOf(before);
    const Texts now = AddressesOf(after);
    return Differ(old, now) && (seesAll || !std::includes(old.begin(), old.end(), now.begin(), now.end()));
}

/** The longer text where both inventories have it: the short one ends after four characters for some disks. */
bool FirmwareDiffers(const Paths& before, const Paths& after)
{
    const bool bothLong =
        !TextsOf(before, &StorageDevice::revision).empty() && !TextsOf(after, &StorageDevice::revision).empty();
    return Differ(before, after, bothLong ? &StorageDevice::revision : &StorageDevice::firmware_revision);
}

bool IdentityDiffers(const Paths& before, const Paths& after)
{
    using Member = std::string StorageDevice::*;
    const Member members[] = {&StorageDevice::model, &StorageDevice::vendor, &StorageDevice::product,
                              &StorageDevice::serial_number};
    return std::any_of(std::begin(members), std::end(members),
                       [&](Member member) { return Differ(before, after, member); });
}

/** A device with all its paths. */
struct Device {
    /** World-wide name; empty for none. */
    std::string wwn;
    /** Vendor, product and serial number; empty without a serial number. */
    std::string name;
    Paths paths;
    bool matched = false;
};

/** By world-wide name, or by name where there is none: so the order of the rows means nothing. */
using Devices = std::map<std::pair<std::string, std::string>, Device>;

/** Some order of all different rows. */
bool IsLess(const StorageDevice& left, const StorageDevice& right)
{
    for (const Field<StorageDevice>& field : MembersOf<StorageDevice>()) {
        const int order = (left.*field.member).compare(right.*field.member);
        if (order != 0) {
            return order < 0;
        }
    }
    return false;
}

Devices Identify(const std::vector<StorageDevice>& rows, std::size_t& unidentified)
{
    Devices devices;
    for (const StorageDevice& row : rows) {
        const std::string wwn = LabelText(row.wwn);
        const std::string serial = LabelText(row.serial_number);
        const std::string name =
            serial.empty() ? "" : LabelText(row.vendor) + '\n' + LabelText(row.product) + '\n' + serial;
        if (wwn.empty() && name.empty()) {
            ++unidentified;
            continue;
        }
        Device& device = devices[{wwn, wwn.empty() ? name : ""}];
        device.wwn = wwn;
        // One path may give no serial number; of several the first in order stands for all.
        device.name = device.name.empty() || (!name.empty() && name < device.name) ? name : device.name;
        device.paths.push_back(row);
    }
    for (auto& [identity, device] : devices) {
        std::sort(device.paths.begin(), device.paths.end(), IsLess);
    }
    return devices;
}

/** Texts that two devices have in common when they are one, or at one place. */
using KeysOf = Texts (*)(const Device& device);

Texts Identity(const Device& device)
{
    return {device.wwn.empty() ? "name " + device.name : "wwn " + device.wwn};
}

Texts NameWithoutWwn(const Device& device)
{
    return device.wwn.empty() ? Texts{device.name} : Texts();
}

Texts NameBesideWwn(const Device& device)
{
    return device.wwn.empty() || device.name.empty() ? Texts() : Texts{device.name};
}

/** Slots before addresses: they sort so, and tell more. */
Texts Places(const Device& device)
{
    Texts places;
    for (const std::string& slot : TextsOf(device.paths, &StorageDevice::slot)) {
        places.insert("1 slot " + slot);
    }
    for (const std::string& address : AddressesOf(device.paths)) {
        places.insert("2 address " + address);
    }
    return places;
}

/** Finds for the old devices a new one each that has a key in common, and passes the two on. */
template <typename Take>
void Match(Devices& old, Devices& now, KeysOf oldKeys, KeysOf newKeys, Take take)
{
    std::unordered_map<std::string, Device*> byKey;
    for (auto& [identity, device] : now) {
        for (const std::string& key : device.matched ? Texts() : newKeys(device)) {
            byKey.emplace(key, &device);
        }
    }
    for (auto& [identity, device] : old) {
        for (const std::string& key : device.matched ? Texts() : oldKeys(device)) {
            const auto found = byKey.find(key);
            if (found != byKey.end() && !found->second->matched) {
                device.matched = found->second->matched = true;
                take(device.paths, found->second->paths);
                break;
            }
        }
    }
}

void CompareHosts(const std::string& name, const HostInventory& before, const HostInventory& after,
                  Difference& difference)
{
    if (before.selection != after.selection) {
        throw InventoryFileError("the inventories cannot be compared: --type or --filter was not the same for both");
    }
    Devices old = Identify(before.devices, difference.unidentifiedBefore);
    Devices now = Identify(after.devices, difference.unidentifiedAfter);
    const auto add = [&](std::vector<Change> changes, Paths oldPaths, Paths newPaths) {
        difference.devices.push_back({name, std::move(changes), std::move(oldPaths), std::move(newPaths)});
    };
    const auto compare = [&](Paths& oldPaths, Paths& newPaths) {
        std::vector<Change> changes;
        if (HasMoved(oldPaths, newPaths, after.complete)) {
            changes.push_back(Change::Moved);
        }
        if (FirmwareDiffers(oldPaths, newPaths)) {
            changes.push_back(Change::FirmwareChanged);
        }
        if (IdentityDiffers(oldPaths, newPaths)) {
            changes.push_back(Change::IdentityChanged);
        }
        if (changes.empty()) {
            ++difference.unchanged;
        } else {
            add(std::move(changes), std::move(oldPaths), std::move(newPaths));
        }
    };
    Match(old, now, Identity, Identity, compare);
    Match(old, now, NameWithoutWwn, NameBesideWwn, compare);
    Match(old, now, NameBesideWwn, NameWithoutWwn, compare);
    Match(old, now, Places, Places,
          [&](Paths& oldPaths, Paths& newPaths) { add({Change::Replaced}, std::move(oldPaths), std::move(newPaths)); });
    for (auto& [identity, device] : old) {
        if (!device.matched) {
            add({after.complete ? Change::Removed : Change::NotSeen}, std::move(device.paths), {});
        }
    }
    for (auto& [identity, device] : now) {
        if (!device.matched) {
            add({Change::Added}, {}, std::move(device.paths));
        }
    }
}

/** How many devices the inventory tells apart. */
std::size_t CountDevices(const HostInventory& inventory)
{
    std::size_t unidentified = 0;
    const std::size_t identified = Identify(inventory.devices, unidentified).size();
    return identified + unidentified;
}

void CompareFleets(const InventoryFile& before, const InventoryFile& after, Difference& difference)
{
    std::map<std::string, std::pair<const HostInventory*, const HostInventory*>> hosts;
    for (const HostInventory& one : before.hosts) {
        hosts[one.host].first = &one;
    }
    for (const HostInventory& one : after.hosts) {
        hosts[one.host].second = &one;
    }
    for (const auto& [name, inventories] : hosts) {
        const auto& [old, now] = inventories;
        const HostInventory& known = old != nullptr ? *old : *now;
        // A host that a fleet does not have has no device there.
        const HostInventory none = {name, true, true, known.selection};
        const HostInventory& left = old != nullptr ? *old : none;
        const HostInventory& right = now != nullptr ? *now : none;
        if (old == nullptr || now == nullptr) {
            const Change change = old == nullptr ? Change::Added : Change::Removed;
            difference.hosts.push_back({name, change, CountDevices(known)});
        } else if (left.answered != right.answered) {
            const Change change = left.answered ? Change::NotSeen : Change::SeenAgain;
            difference.hosts.push_back({name, change, CountDevices(left.answered ? left : right)});
        }
        if (left.answered && right.answered) {
            CompareHosts(name, left, right, difference);
        }
    }
}

std::string Joined(const Texts& texts)
{
    return texts.empty() ? unknownText : boost::algorithm::join(texts, " ");
}

}  // namespace

std::string WordsOf(Change change)
{
    // In the order of Change.
    static const char* const words[] = {"added", "removed",          "not seen",         "replaced",
                                        "moved", "firmware changed", "identity changed", "seen again"};
    return words[static_cast<std::size_t>(change)];
}

Difference Compare(const InventoryFile& before, const InventoryFile& after)
{
    if (before.isFleet != after.isFleet) {
        throw InventoryFileError("one of the files is the inventory of a host, the other that of a fleet");
    }
    Difference difference;
    if (before.isFleet) {
        CompareFleets(before, after, difference);
    } else {
        CompareHosts("", before.hosts.front(), after.hosts.front(), difference);
    }
    SortByKey(difference.devices, [](const DeviceChange& change) {
        const Paths& paths = change.after.empty() ? change.before : change.after;
        return std::make_pair(OrderKey(change.host), OrderKey(paths.front().device));
    });
    SortByKey(difference.hosts, [](const HostChange& change) { return OrderKey(change.host); });
    return difference;
}

std::string PlaceOf(const Paths& paths)
{
    const Texts slots = TextsOf(paths, &StorageDevice::slot, CellText);
    return Joined(slots.empty() ? AddressesOf(paths) : slots);
}

std::string FirmwareOf(const Paths& paths)
{
    const Texts revisions = TextsOf(paths, &StorageDevice::revision, CellText);
    return Joined(revisions.empty() ? TextsOf(paths, &StorageDevice::firmware_revision, CellText) : revisions);
}

}  // namespace Zendra::ZDDevices
