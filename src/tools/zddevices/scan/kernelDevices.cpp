#include "tools/zddevices/scan/kernelDevices.h"

#include <libudev.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <system_error>
#include <utility>

namespace Zendra::ZDDevices {

namespace {

constexpr const char* deviceDirectory = "/dev/";

namespace fs = std::filesystem;
using boost::algorithm::contains;
using boost::algorithm::starts_with;

struct Unref {
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(udev_enumerate* enumeration) const { udev_enumerate_unref(enumeration); }
};
using Udev = std::unique_ptr<udev, Unref>;
using UdevDevice = std::unique_ptr<udev_device, Unref>;

/** Calls `take` for each device of a subsystem. One that goes away meanwhile is passed over. */
void ForEach(udev* context, const char* subsystem, const std::function<void(udev_device&)>& take)
{
    const std::unique_ptr<udev_enumerate, Unref> enumeration(udev_enumerate_new(context));
    if (!enumeration) {
        throw std::bad_alloc();
    }
    udev_enumerate_add_match_subsystem(enumeration.get(), subsystem);
    udev_enumerate_scan_devices(enumeration.get());
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumeration.get()))
    {
        const UdevDevice device(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        if (device) {
            take(*device);
        }
    }
}

/** An attribute without the white space around it; empty when the device has no such attribute. */
std::string Attribute(udev_device& device, const char* name)
{
    const char* const value = udev_device_get_sysattr_value(&device, name);
    return value == nullptr ? std::string() : boost::algorithm::trim_copy(std::string(value));
}

template <typename Number>
std::optional<Number> NumberIn(const std::string& text)
{
    Number number{};
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional<Number>(number) : std::nullopt;
}

std::optional<std::uint64_t> SizeBytes(const std::string& sectors)
{
    constexpr std::uint64_t sectorLength = 512;
    const std::optional<std::uint64_t> count = NumberIn<std::uint64_t>(sectors);
    return count ? std::optional(*count * sectorLength) : std::nullopt;
}

/** The names in a directory, sg2 before sg10 and st0 before nst0; none when there is no such directory. */
std::vector<std::string> NamesIn(const fs::path& directory)
{
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    std::sort(names.begin(), names.end(), [](const std::string& left, const std::string& right) {
        const bool leftRewinds = starts_with(left, "st");
        if (leftRewinds != starts_with(right, "st")) {
            return leftRewinds;
        }
        return strverscmp(left.c_str(), right.c_str()) < 0;
    });
    return names;
}

bool Exists(const fs::path& path)
{
    std::error_code error;
    return fs::exists(path, error);
}

/** A directory in a SCSI device's directory whose entries are device files, and where those stand in /dev. */
struct FileClass {
    const char* directory;
    const char* place;
};

/** The file that a person uses is found first. A medium changer is used by its sg file. */
constexpr std::array<FileClass, 5> fileClasses = {{{"block", "/dev/"},
                                                   {"scsi_tape", "/dev/"},
                                                   {"scsi_generic", "/dev/"},
                                                   {"scsi_changer", "/dev/"},
                                                   {"bsg", "/dev/bsg/"}}};

/** An attribute of the host adapter that a class of the kernel's keeps for it. */
std::string HostAttribute(udev_device& host, const char* hostClass, const char* name)
{
    return Attribute(host, (std::string(hostClass) + "/" + udev_device_get_sysname(&host) + "/" + name).c_str());
}

/** The name that the driver of a host adapter gives itself; where it gives none, that of what the adapter hangs on. */
std::string HostDriver(udev_device& host)
{
    std::string name = HostAttribute(host, "scsi_host", "proc_name");
    if (!name.empty() && name != "(null)" && name != "<NULL>") {
        return name;
    }
    const char* driver = nullptr;
    for (udev_device* parent = udev_device_get_parent(&host); parent != nullptr && driver == nullptr;
         parent = udev_device_get_parent(parent)) {
        driver = udev_device_get_driver(parent);
    }
    return driver == nullptr ? std::string() : driver;
}

/** lsblk's words, and its order of looking. */
std::string Transport(udev_device& device, udev_device& host)
{
    const fs::path directory = udev_device_get_syspath(&device);
    const fs::path hostDirectory = udev_device_get_syspath(&host);
    const auto hostIs = [&](const char* type) { return Exists(hostDirectory / (std::string(type) + "_host")); };
    if (hostIs("spi")) {
        return "spi";
    }
    if (hostIs("fc")) {
        return contains(HostAttribute(host, "fc_host", "symbolic_name"), " over ") ? "fcoe" : "fc";
    }
    if (hostIs("sas") || Exists(directory / "sas_device")) {
        return "sas";
    }
    if (Exists(directory / "ieee1394_id")) {
        return "sbp";
    }
    if (hostIs("iscsi")) {
        return "iscsi";
    }
    if (contains(directory.native(), "usb")) {
        return "usb";
    }
    const std::string driver = HostDriver(host);
    if (driver == "ahci" || driver == "sata") {
        return "sata";
    }
    return contains(driver, "ata") ? "ata" : "";
}

/** The kernel's name for the world-wide name of a unit; a T10 vendor's text is none. */
std::string Wwn(const std::string& kernelsName)
{
    const std::string naa = "naa.";
    if (starts_with(kernelsName, naa)) {
        return "0x" + kernelsName.substr(naa.size());
    }
    return starts_with(kernelsName, "t10.") ? "" : kernelsName;
}

/** The bay that a SAS expander tells of an end device, for devices that no enclosure driver knows. */
std::string SasBay(udev_device& device)
{
    udev_device* const end = udev_device_get_parent_with_subsystem_devtype(&device, "scsi", "scsi_target");
    udev_device* const endDevice = end != nullptr ? udev_device_get_parent(end) : nullptr;
    if (endDevice == nullptr) {
        return {};
    }
    const std::string place = "sas_device/" + std::string(udev_device_get_sysname(endDevice)) + "/";
    const std::string enclosure = Attribute(*endDevice, (place + "enclosure_identifier").c_str());
    const std::string bay = Attribute(*endDevice, (place + "bay_identifier").c_str());
    return enclosure.empty() || bay.empty() ? "" : enclosure + "/" + bay;
}

/** Slots by the directory of the device in them, as the enclosure driver knows them. */
std::map<std::string, std::string> Slots(udev* context)
{
    std::map<std::string, std::string> slots;
    ForEach(context, "enclosure", [&](udev_device& component) {
        std::error_code error;
        const fs::path directory = udev_device_get_syspath(&component);
        const fs::path device = fs::canonical(directory / "device", error);
        udev_device* const enclosure = udev_device_get_parent(&component);
        // The enclosure itself has a "device" as well: the SCSI device that answers for it.
        if (!error && enclosure != nullptr && Exists(directory / "slot")) {
            slots[device.string()] =
                std::string(udev_device_get_sysname(enclosure)) + "/" + udev_device_get_sysname(&component);
        }
    });
    return slots;
}

bool IsConnected(const fs::path& scsiDevice)
{
    constexpr unsigned int qualifierShift = 5;
    std::ifstream inquiry(scsiDevice / "inquiry", std::ios::binary);
    const int first = inquiry.get();
    return first == std::ifstream::traits_type::eof() || static_cast<unsigned int>(first) >> qualifierShift == 0;
}

std::optional<KernelDevice> ScsiDevice(udev_device& device, const std::map<std::string, std::string>& slots)
{
    const char* const kind = udev_device_get_devtype(&device);
    udev_device* const host = udev_device_get_parent_with_subsystem_devtype(&device, "scsi", "scsi_host");
    if (kind == nullptr || std::string(kind) != "scsi_device" || host == nullptr) {
        return std::nullopt;
    }
    KernelDevice found;
    const fs::path directory = udev_device_get_syspath(&device);
    for (const FileClass& fileClass : fileClasses) {
        for (const std::string& name : NamesIn(directory / fileClass.directory)) {
            found.files.push_back(fileClass.place + name);
            if (std::string(fileClass.directory) == "block") {
                found.sizeBytes = SizeBytes(Attribute(device, ("block/" + name + "/size").c_str()));
            }
        }
    }
    found.address = udev_device_get_sysname(&device);
    found.scsiType = NumberIn<unsigned int>(Attribute(device, "type"));
    found.isConnected = IsConnected(directory);
    found.hasDriver = udev_device_get_driver(&device) != nullptr;
    found.transport = Transport(device, *host);
    found.wwn = Wwn(Attribute(device, "wwid"));
    found.state = Attribute(device, "state");
    found.driver = HostDriver(*host);
    const auto slot = slots.find(directory.string());
    found.slot = slot != slots.end() ? slot->second : SasBay(device);
    found.model = Attribute(device, "model");
    found.revision = Attribute(device, "rev");
    return found;
}

/** Whether a name is the beginning, a number, "n" and a number: nvme0n1, ng0n1. */
bool IsNamespace(const std::string& name, const char* beginning)
{
    int controller = 0;
    int number = 0;
    int length = 0;
    const std::string pattern = std::string(beginning) + "%dn%d%n";
    return std::sscanf(name.c_str(), pattern.c_str(), &controller, &number, &length) == 2 &&
           static_cast<std::size_t>(length) == name.size();
}

KernelDevice NvmeController(udev_device& controller)
{
    KernelDevice found;
    const std::string name = udev_device_get_sysname(&controller);
    std::vector<fs::path> places = {udev_device_get_syspath(&controller)};
    // Namespaces that several controllers may reach stand in the directory of their subsystem.
    const fs::path subsystems = "/sys/class/nvme-subsystem";
    for (const std::string& subsystem : NamesIn(subsystems)) {
        if (Exists(subsystems / subsystem / name)) {
            places.push_back(subsystems / subsystem);
        }
    }
    std::vector<std::string> genericFiles;
    for (const fs::path& place : places) {
        for (const std::string& entry : NamesIn(place)) {
            if (IsNamespace(entry, "ng")) {
                genericFiles.push_back(deviceDirectory + entry);
            }
            if (!IsNamespace(entry, "nvme")) {
                continue;
            }
            const UdevDevice disk(
                udev_device_new_from_subsystem_sysname(udev_device_get_udev(&controller), "block", entry.c_str()));
            NvmeNamespace& one = found.namespaces[found.files.emplace_back(deviceDirectory + entry)];
            if (disk) {
                one = {SizeBytes(Attribute(*disk, "size")), Attribute(*disk, "wwid")};
            }
            if (one.sizeBytes) {
                found.sizeBytes = found.sizeBytes.value_or(0) + *one.sizeBytes;
            }
        }
    }
    if (!found.files.empty()) {
        found.wwn = found.namespaces[found.files.front()].wwn;
    }
    found.files.push_back(deviceDirectory + name);
    found.files.insert(found.files.end(), genericFiles.begin(), genericFiles.end());
    found.hasDriver = true;
    found.transport = "nvme";
    found.driver = "nvme";
    found.state = Attribute(controller, "state");
    found.model = Attribute(controller, "model");
    found.revision = Attribute(controller, "firmware_rev");
    return found;
}

/** What the kernel calls the device whose number the file has; the file's own name where it has none. */
std::string KernelsNameOf(const std::string& path)
{
    struct stat file {};
    if (stat(path.c_str(), &file) == 0 && (S_ISBLK(file.st_mode) || S_ISCHR(file.st_mode))) {
        const std::string number = std::to_string(major(file.st_rdev)) + ":" + std::to_string(minor(file.st_rdev));
        std::error_code error;
        const fs::path link =
            fs::read_symlink((S_ISBLK(file.st_mode) ? "/sys/dev/block/" : "/sys/dev/char/") + number, error);
        if (!error) {
            return link.filename();
        }
    }
    return fs::path(path).filename();
}

}  // namespace

KernelDevices::KernelDevices(std::vector<KernelDevice> all) : devices(std::move(all))
{
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const KernelDevice& device = devices[i];
        for (const std::string& file : device.files) {
            deviceByFile.try_emplace(file, i);
        }
        if (!device.address.empty() && !device.files.empty()) {
            deviceByAddress.try_emplace(device.address, i);
        }
        std::set<std::string> names = {device.wwn};
        for (const auto& [file, one] : device.namespaces) {
            names.insert(one.wwn);
        }
        for (const std::string& name : names) {
            ++pathsByWwn[name];
        }
    }
}

KernelDevices KernelDevices::Read()
{
    const Udev context(udev_new());
    if (!context) {
        throw std::bad_alloc();
    }
    std::vector<KernelDevice> found;
    const std::map<std::string, std::string> slots = Slots(context.get());
    ForEach(context.get(), "scsi", [&](udev_device& device) {
        if (std::optional<KernelDevice> scsiDevice = ScsiDevice(device, slots)) {
            found.push_back(std::move(*scsiDevice));
        }
    });
    ForEach(context.get(), "nvme", [&](udev_device& controller) { found.push_back(NvmeController(controller)); });
    return KernelDevices(std::move(found));
}

const KernelDevice* KernelDevices::OfFile(const std::string& path) const
{
    return Find(deviceByFile, deviceDirectory + KernelsNameOf(path));
}

const KernelDevice* KernelDevices::OfAddress(const std::string& address) const
{
    return Find(deviceByAddress, address);
}

std::size_t KernelDevices::CountPaths(const std::string& wwn) const
{
    const auto found = pathsByWwn.find(wwn);
    return found == pathsByWwn.end() ? 0 : found->second;
}

const KernelDevice* KernelDevices::Find(const std::map<std::string, std::size_t>& places, const std::string& key) const
{
    const auto found = places.find(key);
    return found == places.end() ? nullptr : &devices[found->second];
}

}  // namespace Zendra::ZDDevices
