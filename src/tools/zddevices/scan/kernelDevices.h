/**
 * @file
 * @brief What the kernel itself says of the storage devices: which device files lead to one device, and what it is.
 *
 * Read from sysfs, which needs no running udev. No device is asked and no device file opened,
 * so a device that hangs costs nothing here. What is missing in sysfs is missing here: the fields stay empty.
 */
#ifndef ZENDRA_ZDDEVICES_KERNELDEVICES_H
#define ZENDRA_ZDDEVICES_KERNELDEVICES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Zendra::ZDDevices {

/** A namespace of an NVMe controller: a disk of its own to the rest of the system. */
struct NvmeNamespace {
    std::optional<std::uint64_t> sizeBytes;
    /** "eui.0025385971b2b2c4"; empty when not known. */
    std::string wwn;
};

/** A SCSI device, or an NVMe controller with its namespaces. */
struct KernelDevice {
    /**
     * All its device files, as paths: the one that a person uses first (sda, sr0, st0, nvme0n1, else sg4). Partitions
     * are not among them.
     */
    std::vector<std::string> files;
    /** "host:channel:target:lun"; empty for NVMe. */
    std::string address;
    /** SPC peripheral device type (INQUIRY byte 0, bits 0 to 4); none for NVMe. */
    std::optional<unsigned int> scsiType;
    /**
     * Whether a unit is connected there (INQUIRY byte 0, bits 5 to 7 are 0). A disk array answers at addresses without
     * one, too; no driver takes these.
     */
    bool isConnected = true;
    /** Whether a driver for its type has it (sd, sr, st, ch, ses). Always for NVMe. */
    bool hasDriver = false;
    /** Of a disk or an optical medium; of an NVMe controller that of all its namespaces together. */
    std::optional<std::uint64_t> sizeBytes;
    /** By their device files. */
    std::map<std::string, NvmeNamespace> namespaces;
    /** In lsblk's words: "sata", "sas", "usb", "nvme", "fc", "iscsi", "spi" and so on. */
    std::string transport;
    /** "0x5000c500a1b2c3d4" (NAA), "eui.0025385971b2b2c4"; of an NVMe controller that of its first namespace. */
    std::string wwn;
    /** "running", "offline", "live" and so on. */
    std::string state;
    /** Of the host adapter: "ahci", "mpt3sas", "nvme". */
    std::string driver;
    /** Enclosure and bay: "6:0:5:0/Slot 03", or the enclosure's SAS address in place of its SCSI address. */
    std::string slot;
    /** As the kernel keeps it, without the blanks that fill it up. */
    std::string model;
    std::string revision;
};

/** All devices that the kernel knows, as they were at one moment. */
class KernelDevices {
public:
    explicit KernelDevices(std::vector<KernelDevice> all);

    /** @throws std::bad_alloc. A host without sysfs has no device. */
    static KernelDevices Read();

    const std::vector<KernelDevice>& All() const { return devices; }

    /**
     * @brief The device of a device file ("/dev/sda"); null for a file that the kernel ties to none.
     *
     * It is the device whose number the file has, whatever its name: a container may have made it under another one.
     */
    const KernelDevice* OfFile(const std::string& path) const;

    /**
     * The first of its files that no device before it has; empty for none. Several NVMe controllers may reach one
     * namespace.
     */
    std::string FirstFileOf(const KernelDevice& device) const;

    /** The device with this address that has any file; null when there is none. */
    const KernelDevice* OfAddress(const std::string& address) const;

    /** How many devices have this world-wide name, or a namespace that has it: the ways to one disk. */
    std::size_t CountPaths(const std::string& wwn) const;

private:
    const KernelDevice* Find(const std::map<std::string, std::size_t>& places, const std::string& key) const;

    std::vector<KernelDevice> devices;
    std::map<std::string, std::size_t> deviceByFile;
    std::map<std::string, std::size_t> deviceByAddress;
    std::map<std::string, std::size_t> pathsByWwn;
};

}  // namespace Zendra::ZDDevices

#endif
