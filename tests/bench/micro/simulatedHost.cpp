#include "simulatedHost.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

namespace ZendraBench {

namespace {

constexpr std::size_t disksPerTarget = 20;
constexpr std::size_t targetsPerHost = 5;
constexpr int firstDescriptor = 100000;

/** Descriptors tell which device is open. */
struct Host {
    std::unordered_map<std::string, int> diskByPath;
    std::vector<dirent> dev;
    std::vector<dirent> block;
    // The library has one directory and one device open at a time.
    const std::vector<dirent>* directory = nullptr;
    std::size_t nextEntry = 0;
};

Host* host = nullptr;

dirent Entry(const std::string& name)
{
    dirent entry{};
    std::strncpy(entry.d_name, name.c_str(), sizeof(entry.d_name) - 1);
    return entry;
}

/** sda to sdz, sdaa, ... as the kernel counts. */
std::string DiskName(std::size_t number)
{
    std::string letters;
    for (std::size_t rest = number + 1; rest > 0; rest = (rest - 1) / 26) {
        letters.insert(letters.begin(), static_cast<char>('a' + (rest - 1) % 26));
    }
    return "sd" + letters;
}

template <class Function>
Function* Next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Answer(unsigned int disk, unsigned long request, void* argument)
{
    const unsigned int hostNumber = static_cast<unsigned int>(disk / (disksPerTarget * targetsPerHost)) + 1;
    const unsigned int target = static_cast<unsigned int>(disk / disksPerTarget % targetsPerHost);
    const unsigned int lun = static_cast<unsigned int>(disk % disksPerTarget);
    switch (request) {
    case SG_GET_VERSION_NUM:
        *static_cast<int*>(argument) = 30536;
        break;
    case SG_IO: {
        auto* const header = static_cast<sg_io_hdr_t*>(argument);
        auto* const data = static_cast<unsigned char*>(header->dxferp);
        header->info = 0;
        if ((header->cmdp[1] & 1U) != 0) {
            FillSerialPage(data);
        } else {
            FillInquiry(data);
        }
        break;
    }
    case SG_GET_SCSI_ID: {
        auto* const address = static_cast<sg_scsi_id*>(argument);
        *address = {};
        address->host_no = static_cast<int>(hostNumber);
        address->scsi_id = static_cast<int>(target);
        address->lun = static_cast<int>(lun);
        break;
    }
    case SCSI_IOCTL_GET_IDLUN:
        *static_cast<std::uint32_t*>(argument) = target | lun << 8U;
        break;
    case SCSI_IOCTL_GET_BUS_NUMBER:
        *static_cast<int*>(argument) = static_cast<int>(hostNumber);
        break;
    default:
        std::fprintf(stderr, "unexpected ioctl 0x%lx\n", request);
        std::abort();
    }
}

}  // namespace

SimulatedHost::SimulatedHost(std::size_t disks)
{
    auto* const made = new Host;
    // What a server's /dev has besides its disks.
    for (int number = 0; number < 64; ++number) {
        made->dev.push_back(Entry("tty" + std::to_string(number)));
        made->dev.push_back(Entry("vcs" + std::to_string(number)));
    }
    for (std::size_t disk = 0; disk < disks; ++disk) {
        const std::string name = DiskName(disk);
        const std::string generic = "sg" + std::to_string(disk);
        made->block.push_back(Entry(name));
        made->dev.push_back(Entry(name));
        made->dev.push_back(Entry(generic));
        made->diskByPath["/dev/" + name] = static_cast<int>(disk);
        made->diskByPath["/dev/" + generic] = static_cast<int>(disk);
    }
    host = made;
}

SimulatedHost::~SimulatedHost()
{
    delete host;
    host = nullptr;
}

void FillInquiry(unsigned char* data)
{
    std::memset(data, 0, 96);
    data[2] = 6;
    data[3] = 2;
    data[4] = 91;
    std::memcpy(data + 8, "HALVARD HX 900 DISK     A1B2", 28);
}

void FillSerialPage(unsigned char* data)
{
    std::memcpy(data, "\0\x80\0\x14HX900-0000-SN-004711", 24);
}

}  // namespace ZendraBench

using ZendraBench::firstDescriptor;
using ZendraBench::host;
using ZendraBench::Next;

extern "C" {

int system(const char* command)
{
    return host != nullptr ? 0 : Next<int(const char*)>("system")(command);
}

DIR* opendir(const char* path)
{
    if (host == nullptr) {
        return Next<DIR*(const char*)>("opendir")(path);
    }
    host->directory = std::strcmp(path, "/dev/") == 0 ? &host->dev : &host->block;
    host->nextEntry = 0;
    return reinterpret_cast<DIR*>(host);
}

dirent* readdir(DIR* directory)
{
    if (reinterpret_cast<void*>(directory) != host) {
        return Next<dirent*(DIR*)>("readdir")(directory);
    }
    if (host->nextEntry == host->directory->size()) {
        return nullptr;
    }
    return const_cast<dirent*>(&(*host->directory)[host->nextEntry++]);
}

int closedir(DIR* directory)
{
    return reinterpret_cast<void*>(directory) == host ? 0 : Next<int(DIR*)>("closedir")(directory);
}

int open(const char* path, int flags, ...)
{
    if (host != nullptr) {
        const auto found = host->diskByPath.find(path);
        if (found != host->diskByPath.end()) {
            return firstDescriptor + found->second;
        }
        errno = ENOENT;
        return -1;
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return Next<int(const char*, int, ...)>("open")(path, flags, mode);
}

int close(int descriptor)
{
    return descriptor >= firstDescriptor ? 0 : Next<int(int)>("close")(descriptor);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (descriptor >= firstDescriptor) {
        ZendraBench::Answer(static_cast<unsigned int>(descriptor - firstDescriptor), request, argument);
        return 0;
    }
    return Next<int(int, unsigned long, ...)>("ioctl")(descriptor, request, argument);
}
}
