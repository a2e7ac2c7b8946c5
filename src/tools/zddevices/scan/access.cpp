#include "tools/zddevices/scan/access.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "module/osinfos/systemdevice/deviceNames.h"
#include "tools/zddevices/deviceClass.h"

namespace Zendra::ZDDevices {

namespace {

using ZDSystemDevice::SysDeviceType;

constexpr const char* deviceDirectory = "/dev";

}  // namespace

std::vector<std::string> ListDeviceDirectory()
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(deviceDirectory), &closedir);
    if (directory) {
        errno = 0;
        while (const dirent* const entry = readdir(directory.get())) {
            names.emplace_back(entry->d_name);
        }
    }
    if (errno != 0) {
        throw std::system_error(errno, std::generic_category(), std::string(deviceDirectory) + " cannot be listed");
    }
    return names;
}

std::vector<std::string> DeviceFileNames(const std::vector<std::string>& names, std::optional<SysDeviceType> type)
{
    std::vector<std::string> found;
    for (const DeviceClass& one : deviceClasses) {
        if (one.type == type.value_or(one.type)) {
            const std::vector<std::string> ofClass = ZDSystemDevice::DeviceFileNames(names, one.type);
            found.insert(found.end(), ofClass.begin(), ofClass.end());
        }
    }
    std::sort(found.begin(), found.end(), [](const std::string& left, const std::string& right) {
        return strverscmp(left.c_str(), right.c_str()) < 0;
    });
    // A directory that changes while it is read may give a name twice, and without sg files the generic class takes
    // those of the disks.
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

std::vector<std::string> DeviceFilesOf(SysDeviceType type)
{
    std::vector<std::string> files;
    try {
        files = ZDSystemDevice::DeviceFileNames(ListDeviceDirectory(), type);
    } catch (const std::system_error& error) {
        if (!IsPrivilegeLacking(error.code().value())) {
            throw;
        }
    }
    for (std::string& name : files) {
        name.insert(0, std::string(deviceDirectory) + "/");
    }
    return files;
}

bool IsPrivilegeLacking(int error)
{
    return error == EACCES || error == EPERM;
}

bool MayNotRead(const std::string& path)
{
    // The effective ids and capabilities count, as they do for open(2): a service may run with CAP_DAC_OVERRIDE.
    int result = faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS);
    if (result != 0 && errno == EPERM) {
        // Older container filters answer so to the newer of the two system calls, whatever the file is.
        result = access(path.c_str(), R_OK);
    }
    return result != 0 && IsPrivilegeLacking(errno);
}

bool IsDirectory(const std::string& path)
{
    struct stat state {};
    return stat(path.c_str(), &state) == 0 && S_ISDIR(state.st_mode);
}

DeniedFile DeniedFileAt(const std::string& path)
{
    struct stat state {};
    if (stat(path.c_str(), &state) != 0 || state.st_gid == 0 || (state.st_mode & S_IRGRP) == 0) {
        return {path, {}};
    }
    const group* entry = getgrgid(state.st_gid);
    return {path, entry != nullptr ? entry->gr_name : std::to_string(state.st_gid)};
}

std::vector<DeniedFile> FindDeniedFiles(std::optional<SysDeviceType> type)
{
    std::vector<std::string> names;
    try {
        names = ListDeviceDirectory();
    } catch (const std::system_error& error) {
        if (IsPrivilegeLacking(error.code().value())) {
            return {DeniedFileAt(deviceDirectory)};
        }
        throw;
    }
    std::vector<DeniedFile> denied;
    for (const std::string& name : DeviceFileNames(names, type)) {
        const std::string path = std::string(deviceDirectory) + "/" + name;
        if (MayNotRead(path) && !IsDirectory(path)) {
            denied.push_back(DeniedFileAt(path));
        }
    }
    return denied;
}

}  // namespace Zendra::ZDDevices
