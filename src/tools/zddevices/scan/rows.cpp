#include "tools/zddevices/scan/rows.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "module/osinfos/systemdevice/deviceMerge.h"

namespace Zendra::ZDDevices {

namespace {

using boost::algorithm::trim_copy;
using ZDSystemDevice::SystemDevice;

/** In the order in which an address is written. */
constexpr std::string SystemDevice::*addressParts[] = {&SystemDevice::port, &SystemDevice::bus, &SystemDevice::target,
                                                       &SystemDevice::lun};

/** What the library writes where it found no address. A device may have it, too. */
constexpr const char* noAddress = "0:0:0:0";

std::string AddressOf(const SystemDevice& device)
{
    std::vector<std::string> parts;
    for (std::string SystemDevice::*part : addressParts) {
        parts.push_back(device.*part);
    }
    return boost::algorithm::join(parts, ":");
}

/** @param address empty for none. */
void SetAddress(SystemDevice& device, const std::string& address)
{
    std::vector<std::string> parts;
    boost::algorithm::split(parts, address, [](char c) { return c == ':'; });
    parts.resize(std::size(addressParts));
    for (std::size_t i = 0; i < parts.size(); ++i) {
        device.*addressParts[i] = parts[i];
    }
}

/** The path that was asked; empty where that is not known. */
std::string AskedFile(const StorageDevice& record)
{
    return trim_copy(record.device_files);
}

/** "sda" for "/dev/sda". */
std::string NameOf(const std::string& path)
{
    const std::string directory = "/dev/";
    return path.rfind(directory, 0) == 0 ? path.substr(directory.size()) : path;
}

const KernelDevice* DeviceOf(const StorageDevice& record, const KernelDevices& kernel)
{
    const std::string file = AskedFile(record);
    if (!file.empty()) {
        return kernel.OfFile(file);
    }
    const std::string address = AddressOf(record);
    return address == noAddress ? nullptr : kernel.OfAddress(address);
}

/** What nobody else knows, out of what the library says. */
void CompleteFromItsTexts(StorageDevice& row)
{
    row.type = row.type.empty() ? TypeWord({}, row.device_type) : row.type;
    row.model = row.model.empty() ? trim_copy(row.product) : row.model;
    row.revision = row.revision.empty() ? trim_copy(row.firmware_revision) : row.revision;
}

/** A row of which the kernel knows nothing. */
StorageDevice RowOfItsTexts(StorageDevice record)
{
    record.device = NameOf(AskedFile(record));
    if (AddressOf(record) == noAddress) {
        SetAddress(record, {});
    }
    CompleteFromItsTexts(record);
    return record;
}

/** @param file the one that the row is about; empty for all files of the device. */
void FillFromKernel(StorageDevice& row, const KernelDevice& device, const std::string& file,
                    const KernelDevices& kernel)
{
    SetAddress(row, device.address);
    row.device_files.clear();
    for (const std::string& one : device.files) {
        row.device_files += one + '\n';
    }
    row.device = NameOf(file.empty() ? kernel.FirstFileOf(device) : file);
    const auto disk = device.namespaces.find(file);
    const bool isOneOfSeveral = disk != device.namespaces.end();
    const std::optional<std::uint64_t> size = isOneOfSeveral ? disk->second.sizeBytes : device.sizeBytes;
    row.size_bytes = size ? std::to_string(*size) : "";
    row.wwn = isOneOfSeveral ? disk->second.wwn : device.wwn;
    row.paths = row.wwn.empty() ? "" : std::to_string(kernel.CountPaths(row.wwn));
    row.type = TypeWord(device.scsiType, row.device_type);
    row.transport = device.transport;
    row.state = device.state;
    row.driver = device.driver;
    row.slot = device.slot;
    // What the device itself said goes further: the kernel keeps 16 characters of an ATA model, and 4 of a revision.
    row.model = row.model.empty() ? device.model : row.model;
    row.revision = row.revision.empty() ? device.revision : row.revision;
    CompleteFromItsTexts(row);
}

/** Takes each text that the row does not have from another record of its device. */
void FillFromRecord(StorageDevice& row, const StorageDevice& record)
{
    for (std::string StorageDevice::*text :
         {static_cast<std::string StorageDevice::*>(&StorageDevice::vendor),
          static_cast<std::string StorageDevice::*>(&StorageDevice::product),
          static_cast<std::string StorageDevice::*>(&StorageDevice::device_type),
          static_cast<std::string StorageDevice::*>(&StorageDevice::serial_number),
          static_cast<std::string StorageDevice::*>(&StorageDevice::firmware_revision), &StorageDevice::model,
          &StorageDevice::revision}) {
        if (trim_copy(row.*text).empty()) {
            row.*text = record.*text;
        }
    }
}

/**
 * Appends a row for each NVMe controller all of whose namespaces were asked by files that are taken for another
 * controller's: in a subsystem several controllers may reach a namespace, which has one file. Product and serial number
 * are the subsystem's, the firmware is each controller's own.
 */
void AppendOtherControllers(const KernelDevices& kernel, const std::map<const KernelDevice*, std::size_t>& rowOf,
                            std::vector<StorageDevice>& rows)
{
    for (const KernelDevice& controller : kernel.All()) {
        const auto isAsked = [&](const auto& entry) { return rowOf.count(kernel.OfFile(entry.first)) > 0; };
        const auto asked = std::find_if(controller.namespaces.begin(), controller.namespaces.end(), isAsked);
        if (rowOf.count(&controller) > 0 || asked == controller.namespaces.end()) {
            continue;
        }
        StorageDevice row = rows[rowOf.at(kernel.OfFile(asked->first))];
        row.model = controller.model;
        row.revision = controller.revision;
        row.firmware_revision = controller.revision;
        FillFromKernel(row, controller, {}, kernel);
        rows.push_back(std::move(row));
    }
}

/**
 * Appends the records that the kernel knows nothing of: of those with one address the first, in the library's order of
 * addresses, then those without an address, about which the library knows no more than that they are there.
 */
void AppendMerged(const std::vector<StorageDevice>& records, std::vector<StorageDevice>& rows)
{
    // All that the library looks at is the address; the rest of the record waits here for its number.
    std::vector<SystemDevice> addresses;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (!records[i].port.empty() && AddressOf(records[i]) != noAddress) {
            addresses.push_back(records[i]);
            addresses.back().vendor = std::to_string(i);
        }
    }
    std::vector<SystemDevice> merged;
    ZDSystemDevice::MergeByAddress(std::move(addresses), merged);
    for (const SystemDevice& one : merged) {
        rows.push_back(RowOfItsTexts(records[std::stoul(one.vendor)]));
    }
    for (const StorageDevice& record : records) {
        if (record.port.empty() || AddressOf(record) == noAddress) {
            rows.push_back(RowOfItsTexts(record));
        }
    }
}

}  // namespace

std::vector<StorageDevice> RowsOfDevices(std::vector<StorageDevice> found, const KernelDevices& kernel)
{
    std::vector<StorageDevice> rows;
    std::vector<StorageDevice> unknown;
    std::map<const KernelDevice*, std::size_t> rowOf;
    for (StorageDevice& record : found) {
        const KernelDevice* const device = DeviceOf(record, kernel);
        if (device == nullptr) {
            unknown.push_back(std::move(record));
            continue;
        }
        const auto [place, isNew] = rowOf.try_emplace(device, rows.size());
        if (isNew) {
            rows.push_back(std::move(record));
        } else {
            StorageDevice& row = rows[place->second];
            // Without the sg driver the generic class asks disks' files, and takes the model's first word for the
            // vendor.
            if (row.device_type.empty() && !record.device_type.empty()) {
                std::swap(row, record);
            }
            FillFromRecord(row, record);
        }
    }
    AppendOtherControllers(kernel, rowOf, rows);
    for (const auto& [device, place] : rowOf) {
        FillFromKernel(rows[place], *device, {}, kernel);
    }
    AppendMerged(unknown, rows);
    return rows;
}

std::vector<StorageDevice> RowsOfFiles(std::vector<StorageDevice> found, const KernelDevices& kernel)
{
    for (StorageDevice& record : found) {
        if (const KernelDevice* const device = DeviceOf(record, kernel)) {
            FillFromKernel(record, *device, AskedFile(record), kernel);
        } else {
            record = RowOfItsTexts(std::move(record));
        }
    }
    return found;
}

}  // namespace Zendra::ZDDevices
