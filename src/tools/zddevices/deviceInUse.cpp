#include "tools/zddevices/deviceInUse.h"

#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace Zendra {
namespace ZDDevices {

namespace {

constexpr const char* deviceDirectory = "/dev/";

bool IsStorageDevice(const std::string& path)
{
    static const std::array<const char*, 7> prefixes = {"st", "nst", "sg", "sd", "hd", "nvme", "sr"};
    if (!boost::algorithm::starts_with(path, deviceDirectory)) {
        return false;
    }
    const std::string name = path.substr(std::char_traits<char>::length(deviceDirectory));
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const char* prefix) { return boost::algorithm::starts_with(name, prefix); });
}

std::string ProcessDirectory(pid_t process)
{
    return "/proc/" + std::to_string(process);
}

std::string OpenDevice(pid_t process)
{
    std::error_code error;
    for (std::filesystem::directory_iterator entry(ProcessDirectory(process) + "/fd", error), end;
         !error && entry != end; entry.increment(error)) {
        std::error_code closedMeanwhile;
        const std::string path = std::filesystem::read_symlink(entry->path(), closedMeanwhile).string();
        const std::string number = entry->path().filename().string();
        const bool isStandard = number == "0" || number == "1" || number == "2";
        if (!closedMeanwhile && !isStandard && IsStorageDevice(path)) {
            return path;
        }
    }
    return {};
}

/** The text at an address of the process; up to the end of its page, which is enough for the name of a device. */
std::string TextAt(pid_t process, std::uintptr_t address)
{
    const auto pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    std::array<char, PATH_MAX> text{};
    iovec here{text.data(), std::min<std::size_t>(text.size() - 1, pageSize - address % pageSize)};
    iovec there{reinterpret_cast<void*>(address), here.iov_len};  // NOLINT: an address in another process
    return process_vm_readv(process, &here, 1, &there, 1, 0) > 0 ? text.data() : std::string();
}

/** Opening may be what hangs: a disk is asked for its medium, a tape for its position. */
std::string DeviceBeingOpened(pid_t process)
{
    std::ifstream state(ProcessDirectory(process) + "/syscall");
    long number = -1;
    std::uintptr_t directory = 0;
    std::uintptr_t path = 0;
    if (!(state >> number >> std::hex >> directory >> path)) {
        return {};
    }
#ifdef SYS_open
    if (number == SYS_open) {
        path = directory;
        number = SYS_openat;
    }
#endif
    const std::string text = number == SYS_openat ? TextAt(process, path) : std::string();
    return IsStorageDevice(text) ? text : std::string();
}

}  // namespace

std::string DeviceInUse(pid_t process)
{
    const std::string device = OpenDevice(process);
    return device.empty() ? DeviceBeingOpened(process) : device;
}

}  // namespace ZDDevices
}  // namespace Zendra
