#include "tools/zddevices/scan/access.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>

#include "module/osinfos/systemdevice/deviceNames.h"
#include "tools/zddevices/deviceClass.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::SysDeviceType;

constexpr const char* deviceDirectory = "/dev";

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

/** Those of the names that the library opens for a class, or for all, in no order. */
std::vector<std::string> SelectDeviceFiles(const std::vector<std::string>& names, std::optional<SysDeviceType> type)
{
    std::vector<std::string> found;
    for (const DeviceClass& one : deviceClasses) {
        if (one.type == type.value_or(one.type)) {
            std::vector<std::string> ofClass = ZDSystemDevice::DeviceFileNames(names, one.type);
            std::move(ofClass.begin(), ofClass.end(), std::back_inserter(found));
        }
    }
    return found;
}

/**
 * The names, each once: a directory that changes while it is read may give one twice, and without sg files the
 * generic class takes those of the disks.
 */
std::vector<std::string> InNaturalOrder(std::vector<std::string> names)
{
    std::sort(names.begin(), names.end(), [](const std::string& left, const std::string& right) {
        return strverscmp(left.c_str(), right.c_str()) < 0;
    });
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

bool IsPrivilegeLacking(int error)
{
    return error == EACCES || error == EPERM;
}

/** @param path relative to the open directory. */
bool MayNotReadIn(int directory, const char* path)
{
    // The effective ids and capabilities count, as they do for open(2): a service may run with CAP_DAC_OVERRIDE.
    if (faccessat(directory, path, R_OK, AT_EACCESS) == 0) {
        return false;
    }
    if (errno == EPERM) {
        // Older container filters answer so to the newer of the two system calls, whatever the file is.
        if (faccessat(directory, path, R_OK, 0) == 0) {
            return false;
        }
    }
    return IsPrivilegeLacking(errno);
}

bool IsDirectory(const std::string& path)
{
    struct stat state {};
    return stat(path.c_str(), &state) == 0 && S_ISDIR(state.st_mode);
}

}  // namespace

bool MayNotRead(const std::string& path)
{
    return MayNotReadIn(AT_FDCWD, path.c_str());
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
    return InNaturalOrder(SelectDeviceFiles(names, type));
}

std::vector<DeniedFile> FindDeniedFiles(std::optional<SysDeviceType> type)
{
    const DirectoryStream directory(opendir(deviceDirectory));
    std::vector<std::string> names;
    errno = directory ? 0 : errno;
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        names.emplace_back(entry->d_name);
        errno = 0;
    }
    if (errno != 0) {
        if (IsPrivilegeLacking(errno)) {
            return {{deviceDirectory, OpeningGroup(deviceDirectory)}};
        }
        throw std::system_error(errno, std::generic_category(), std::string(deviceDirectory) + " cannot be listed");
    }
    std::vector<std::string> deniedNames;
    for (std::string& name : SelectDeviceFiles(names, type)) {
        // By the name alone: there may be a thousand of them, none of which needs its directory looked up.
        if (MayNotReadIn(dirfd(directory.get()), name.c_str())) {
            deniedNames.push_back(std::move(name));
        }
    }
    const std::vector<std::string> sorted = InNaturalOrder(std::move(deniedNames));
    std::vector<DeniedFile> denied;
    for (const std::string& name : sorted) {
        const std::string path = std::string(deviceDirectory) + "/" + name;
        if (!IsDirectory(path)) {
            denied.push_back({path, OpeningGroup(path)});
        }
    }
    return denied;
}

}  // namespace ZDDevices
}  // namespace Zendra
