#include "tools/zddevices/scan/kernelDevices.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <libudev.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <charconv>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/descriptor.h"

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

/**
 * @name Parts of sysfs, by their path or beneath an open directory: a thousand devices have long paths.
 * @{
 */
/** What a file holds; empty when it cannot be read. */
std::string TextIn(const std::string& file, int directory = AT_FDCWD)
{
    constexpr std::size_t longest = 4096;
    std::array<char, longest> text;
    const Descriptor descriptor(openat(directory, file.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t length = descriptor.IsOpen() ? read(descriptor.Get(), text.data(), text.size()) : 0;
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

/** An attribute without the white space around it; empty when there is no such attribute. */
std::string Attribute(const std::string& file, int directory = AT_FDCWD)
{
    return boost::algorithm::trim_copy(TextIn(file, directory));
}

bool Exists(const std::string& path, int directory = AT_FDCWD)
{
    return faccessat(directory, path.c_str(), F_OK, 0) == 0;
}

/** The names in a directory, sg2 before sg10 and st0 before nst0; none when there is no such directory. */
std::vector<std::string> NamesIn(const std::string& path)
{
    std::vector<std::string> names;
    Descriptor descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(descriptor.IsOpen() ? fdopendir(descriptor.Get()) : nullptr,
                                                     &closedir);
    if (!stream) {
        return names;
    }
    descriptor.Release();
    while (const dirent* const entry = readdir(stream.get())) {
        if (!starts_with(entry->d_name, ".")) {
            names.emplace_back(entry->d_name);
        }
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
/** @} */

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

/** The directory that a link leads to; empty when there is no such link. All of sysfs' own begin at its root. */
std::string Linked(const std::string& link)
{
    std::array<char, PATH_MAX> text;
    const ssize_t length = readlink(link.c_str(), text.data(), text.size());
    const std::string target(text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    const std::string up = "../";
    const std::size_t climb = target.rfind(up);
    return climb == std::string::npos ? target : "/sys/" + target.substr(climb + up.size());
}

/** A class of devices that are files of a SCSI device, and where those stand in /dev. */
struct FileClass {
    const char* name;
    const char* place;
};

/** The file that a person uses is found first. A medium changer is used by its sg file. */
constexpr std::array<FileClass, 5> fileClasses = {{{"block", "/dev/"},
                                                   {"scsi_tape", "/dev/"},
                                                   {"scsi_generic", "/dev/"},
                                                   {"scsi_changer", "/dev/"},
                                                   {"bsg", "/dev/bsg/"}}};

/** Names of device files, class by class, by the directories of the SCSI devices that they lead to. */
using FilesOfDevices = std::map<std::string, std::array<std::vector<std::string>, fileClasses.size()>>;

/** From the classes, which takes a tenth of what looking into the directory of each device takes. */
FilesOfDevices ReadFilesOfDevices()
{
    FilesOfDevices files;
    for (std::size_t i = 0; i < fileClasses.size(); ++i) {
        const std::string place = std::string("/sys/class/") + fileClasses[i].name + "/";
        for (std::string& name : NamesIn(place)) {
            // .../2:0:0:0/block/sda
            const std::string directory = Linked(place + name);
            const std::string end = std::string("/") + fileClasses[i].name + "/" + name;
            if (boost::algorithm::ends_with(directory, end)) {
                files[directory.substr(0, directory.size() - end.size())][i].push_back(std::move(name));
            }
        }
    }
    return files;
}

/** What all devices behind a host adapter share. */
struct Host {
    std::string driver;
    /** lsblk's word for the transport that the kernel keeps the adapter's attributes under; empty for none. */
    std::string transport;
};

/** The name that the driver of a host adapter gives itself; where it gives none, that of what the adapter hangs on. */
std::string HostDriver(udev* context, const fs::path& host)
{
    std::string name = Attribute(host / "scsi_host" / host.filename() / "proc_name");
    if (!name.empty() && name != "(null)" && name != "<NULL>") {
        return name;
    }
    const UdevDevice device(udev_device_new_from_syspath(context, host.c_str()));
    const char* driver = nullptr;
    for (udev_device* parent = device ? udev_device_get_parent(device.get()) : nullptr;
         parent != nullptr && driver == nullptr; parent = udev_device_get_parent(parent)) {
        driver = udev_device_get_driver(parent);
    }
    return driver == nullptr ? std::string() : driver;
}

/** In lsblk's order of looking. */
std::string HostTransport(const fs::path& host)
{
    for (const char* transport : {"spi", "fc", "sas", "iscsi"}) {
        const fs::path attributes = host / (std::string(transport) + "_host");
        if (Exists(attributes)) {
            return contains(Attribute(attributes / host.filename() / "symbolic_name"), " over ") ? "fcoe" : transport;
        }
    }
    return {};
}

/** lsblk's words, and its order of looking. */
std::string Transport(const std::string& path, int directory, const Host& host)
{
    if (!host.transport.empty() && host.transport != "iscsi") {
        return host.transport;
    }
    if (Exists("sas_device", directory)) {
        return "sas";
    }
    if (Exists("ieee1394_id", directory)) {
        return "sbp";
    }
    if (!host.transport.empty()) {
        return host.transport;
    }
    if (contains(path, "usb")) {
        return "usb";
    }
    if (host.driver == "ahci" || host.driver == "sata") {
        return "sata";
    }
    return contains(host.driver, "ata") ? "ata" : "";
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
std::string SasBay(const fs::path& directory)
{
    const fs::path endDevice = directory.parent_path().parent_path();
    const fs::path place = endDevice / "sas_device" / endDevice.filename();
    const std::string enclosure = Attribute(place / "enclosure_identifier");
    // Without an enclosure drivers give 0; of some, which fail instead, the kernel passes on zero bytes.
    constexpr std::string_view none("0x\0", 3);
    if (enclosure.find_first_not_of(none) == std::string::npos) {
        return {};
    }
    const std::string bay = Attribute(place / "bay_identifier");
    return bay.empty() ? "" : enclosure + "/" + bay;
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

bool IsConnected(int scsiDevice)
{
    constexpr unsigned int qualifierShift = 5;
    const std::string inquiry = TextIn("inquiry", scsiDevice);
    return inquiry.empty() || static_cast<unsigned char>(inquiry.front()) >> qualifierShift == 0;
}

KernelDevice ScsiDevice(const fs::path& path, const Host& host, const FilesOfDevices& files,
                        const std::map<std::string, std::string>& slots)
{
    KernelDevice found;
    const Descriptor opened(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const int directory = opened.Get();
    const auto own = files.find(path.native());
    for (std::size_t i = 0; own != files.end() && i < fileClasses.size(); ++i) {
        for (const std::string& name : own->second[i]) {
            found.files.push_back(fileClasses[i].place + name);
        }
    }
    if (own != files.end() && !own->second.front().empty()) {
        found.sizeBytes = SizeBytes(Attribute("block/" + own->second.front().front() + "/size", directory));
    }
    found.address = path.filename();
    found.scsiType = NumberIn<unsigned int>(Attribute("type", directory));
    found.hasDriver = Exists("driver", directory);
    found.isConnected = found.hasDriver || IsConnected(directory);
    found.transport = Transport(path.native(), directory, host);
    found.wwn = Wwn(Attribute("wwid", directory));
    found.state = Attribute("state", directory);
    found.driver = host.driver;
    const auto slot = slots.find(path.native());
    if (slot != slots.end()) {
        found.slot = slot->second;
    } else if (found.transport == "sas") {
        found.slot = SasBay(path);
    }
    found.model = Attribute("model", directory);
    found.revision = Attribute("rev", directory);
    return found;
}

/**
 * Appends all SCSI devices. Without libudev, which makes every one of a thousand devices, and each device above it, out
 * of its path anew: that takes ten times as long.
 */
void AppendScsiDevices(udev* context, std::vector<KernelDevice>& found)
{
    const std::string place = "/sys/bus/scsi/devices/";
    const FilesOfDevices files = ReadFilesOfDevices();
    const std::map<std::string, std::string> slots = Slots(context);
    std::map<std::string, Host> hosts;
    for (const std::string& address : NamesIn(place)) {
        if (address.find_first_not_of("0123456789:") != std::string::npos) {
            continue;  // an adapter or a target
        }
        const std::string directory = Linked(place + address);
        const std::size_t begin = directory.find("/host" + address.substr(0, address.find(':')) + "/");
        if (begin == std::string::npos) {
            continue;  // gone meanwhile
        }
        const std::string host = directory.substr(0, directory.find('/', begin + 1));
        const auto [entry, isNew] = hosts.try_emplace(host);
        if (isNew) {
            entry->second = {HostDriver(context, host), HostTransport(host)};
        }
        found.push_back(ScsiDevice(directory, entry->second, files, slots));
    }
}

/** "0n1" for "nvme0n1", and for "nvme0c2n1", the way to it through another controller of its subsystem; else empty. */
std::string NamespaceOf(const std::string& entry)
{
    if (fnmatch("nvme+([0-9])?(c+([0-9]))n+([0-9])", entry.c_str(), FNM_EXTMATCH) != 0) {
        return {};
    }
    std::string numbers = entry.substr(std::string("nvme").size());
    const std::size_t controller = numbers.find('c');
    return controller == std::string::npos ? numbers : numbers.erase(controller, numbers.find('n') - controller);
}

KernelDevice NvmeController(udev_device& controller)
{
    KernelDevice found;
    const std::string name = udev_device_get_sysname(&controller);
    const fs::path directory = udev_device_get_syspath(&controller);
    std::vector<std::string> genericFiles;
    for (const std::string& entry : NamesIn(directory)) {
        const std::string numbers = NamespaceOf(entry);
        const fs::path disk = "/sys/class/block/nvme" + numbers;
        if (numbers.empty() || !Exists(disk)) {
            continue;
        }
        NvmeNamespace& one = found.namespaces[found.files.emplace_back(deviceDirectory + ("nvme" + numbers))];
        one = {SizeBytes(Attribute(disk / "size")), Attribute(disk / "wwid")};
        if (one.sizeBytes) {
            found.sizeBytes = found.sizeBytes.value_or(0) + *one.sizeBytes;
        }
        if (Exists("/sys/class/nvme-generic/ng" + numbers)) {
            genericFiles.push_back(deviceDirectory + ("ng" + numbers));
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
    found.state = Attribute(directory / "state");
    found.model = Attribute(directory / "model");
    found.revision = Attribute(directory / "firmware_rev");
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
    AppendScsiDevices(context.get(), found);
    ForEach(context.get(), "nvme", [&](udev_device& controller) { found.push_back(NvmeController(controller)); });
    return KernelDevices(std::move(found));
}

const KernelDevice* KernelDevices::OfFile(const std::string& path) const
{
    return Find(deviceByFile, deviceDirectory + KernelsNameOf(path));
}

std::string KernelDevices::FirstFileOf(const KernelDevice& device) const
{
    const auto own = std::find_if(device.files.begin(), device.files.end(),
                                  [&](const std::string& file) { return Find(deviceByFile, file) == &device; });
    return own == device.files.end() ? std::string() : *own;
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
