#include "tools/zddevices/access.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::SysDeviceType;

constexpr const char* deviceDirectory = "/dev";

/** nvme0n1 at most: the library takes controller nodes and partitions by the length of their names. */
constexpr std::size_t nvmeControllerLength = 5;
constexpr std::size_t nvmeDiskLength = 7;

bool IsDeviceFileName(const std::string& name, const std::string& prefix)
{
    if (!boost::algorithm::starts_with(name, prefix)) {
        return false;
    }
    const auto& classic = std::locale::classic();
    if (prefix == "st") {
        return !boost::algorithm::is_alpha(classic)(name.back());  // mode variants; stdin and its like
    }
    if (prefix == "sd") {
        return !boost::algorithm::is_digit(classic)(name.back());  // partitions
    }
    if (prefix == "nvme") {
        return name.size() != nvmeControllerLength && name.size() <= nvmeDiskLength;
    }
    return true;
}

/** Adds the names with the prefix; false when there is none. */
bool AddNames(const std::vector<std::string>& names, const std::string& prefix, std::set<std::string>& found)
{
    bool any = false;
    for (const std::string& name : names) {
        if (IsDeviceFileName(name, prefix)) {
            found.insert(name);
            any = true;
        }
    }
    return any;
}

bool IsDirectory(const std::string& path)
{
    struct stat state {};
    return stat(path.c_str(), &state) == 0 && S_ISDIR(state.st_mode);
}

}  // namespace

bool MayNotRead(const std::string& path)
{
    // The effective ids and capabilities count, as they do for open(2): a service may run with CAP_DAC_OVERRIDE.
    if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0) {
        return false;
    }
    if (errno == EPERM) {
        // Older container filters answer so to the newer of the two system calls, whatever the file is.
        if (access(path.c_str(), R_OK) == 0) {
            return false;
        }
    }
    return errno == EACCES || errno == EPERM;
}

std::string OpeningGroup(const std::string& path)
{
    struct stat state {};
    if (stat(path.c_str(), &state) != 0 || state.st_gid == 0 || (state.st_mode & S_IRGRP) == 0) {
        return {};
    }
    const group* entry = getgrgid(state.st_gid);
    return entry != nullptr ? entry->gr_name : std::to_string(state.st_gid);
}

std::vector<std::string> DeviceFileNames(const std::vector<std::string>& names, std::optional<SysDeviceType> type)
{
    const auto wanted = [&](SysDeviceType one) { return !type || *type == one; };
    std::set<std::string> found;
    if (wanted(ZDSystemDevice::SYS_DEVICE_TAPE) && !AddNames(names, "st", found)) {
        AddNames(names, "nst", found);
    }
    if (wanted(ZDSystemDevice::SYS_DEVICE_SCSI) && !AddNames(names, "sg", found)) {
        AddNames(names, "sd", found);
    }
    if (wanted(ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE)) {
        for (const char* prefix : {"hd", "sd", "nvme"}) {
            AddNames(names, prefix, found);
        }
    }
    if (wanted(ZDSystemDevice::SYS_DEVICE_CDDVD)) {
        AddNames(names, "sr", found);
    }
    std::vector<std::string> sorted(found.begin(), found.end());
    std::sort(sorted.begin(), sorted.end(), [](const std::string& left, const std::string& right) {
        return strverscmp(left.c_str(), right.c_str()) < 0;
    });
    return sorted;
}

std::vector<DeniedFile> FindDeniedFiles(std::optional<SysDeviceType> type)
{
    std::vector<std::string> names;
    try {
        for (const auto& entry : std::filesystem::directory_iterator(deviceDirectory)) {
            names.push_back(entry.path().filename().string());
        }
    } catch (const std::filesystem::filesystem_error& error) {
        if (error.code() == std::errc::permission_denied || error.code() == std::errc::operation_not_permitted) {
            return {{deviceDirectory, OpeningGroup(deviceDirectory)}};
        }
        throw;
    }
    std::vector<DeniedFile> denied;
    for (const std::string& name : DeviceFileNames(names, type)) {
        const std::string path = std::string(deviceDirectory) + "/" + name;
        if (MayNotRead(path) && !IsDirectory(path)) {
            denied.push_back({path, OpeningGroup(path)});
        }
    }
    return denied;
}

std::string DescribeDenied(const std::vector<DeniedFile>& files, bool userIsRoot)
{
    std::vector<std::string> paths;
    std::set<std::string> groups;
    for (const DeniedFile& file : files) {
        paths.push_back(Printable(file.path));
        if (!file.group.empty()) {
            groups.insert(Printable(file.group));
        }
    }
    std::string text = std::to_string(files.size()) + (files.size() == 1 ? " device file" : " device files") +
                       " could not be opened for lack of privilege (" + boost::algorithm::join(paths, ", ") + "); ";
    if (files.size() == 1 && files.front().path == deviceDirectory) {
        text = "the device files could not be listed for lack of privilege (/dev); ";
    }
    if (userIsRoot) {
        return text + "even root may not here: grant this container or service access to the devices";
    }
    text += "run zddevices as root";
    if (!groups.empty()) {
        text += std::string(", or join the ") + (groups.size() == 1 ? "group " : "groups ") +
                boost::algorithm::join(groups, ", ");
    }
    return text;
}

}  // namespace ZDDevices
}  // namespace Zendra
