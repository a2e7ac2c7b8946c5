#include "kernel/memoryHost.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Kernel {

namespace {

/** Away from the numbers that the process really uses, and within what select() can watch. */
constexpr int firstDescriptor = 600;

int Fail(int error)
{
    errno = error;
    return -1;
}

}  // namespace

struct MemoryHost::Directory {
    std::vector<const char*> names = {".", ".."};
    std::size_t next = 0;
    dirent entry{};
};

MemoryHost::MemoryHost(const Host& theHost, const Devices::Complaint& theComplain)
    : host(theHost), complain(theComplain), devices(theComplain)
{
    for (const DevEntry& entry : host.dev) {
        byPath["/dev/" + entry.name] = &entry;
    }
    for (const BlockEntry& entry : host.block) {
        const std::string directory = "/sys/block/" + entry.name + "/device/";
        if (entry.firmwareRev) {
            revisionFiles[directory + "firmware_rev"] = &*entry.firmwareRev;
        }
        if (entry.rev) {
            revisionFiles[directory + "rev"] = &*entry.rev;
        }
    }
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        descriptors[number] = Descriptor();
    }
    if (AnswerThread(this) != nullptr) {
        throw std::logic_error("one host in memory at a time");
    }
}

MemoryHost::~MemoryHost()
{
    AnswerThread(nullptr);
}

void MemoryHost::ComplainOfOpenFiles()
{
    Require(descriptors.size() == 3, "every descriptor is closed");
    Require(openDirectories == 0, "every directory is closed");
}

void MemoryHost::Require(bool holds, const std::string& promise)
{
    if (!holds) {
        complain("does not hold: " + promise);
    }
}

int MemoryHost::Add(const Descriptor& descriptor)
{
    int number = firstDescriptor;
    while (descriptors.count(number) != 0) {
        ++number;
    }
    descriptors.emplace(number, descriptor);
    return number;
}

MemoryHost::Descriptor& MemoryHost::At(int descriptor, const char* call)
{
    const auto found = descriptors.find(descriptor);
    if (found == descriptors.end()) {
        complain(std::string(call) + " of a descriptor that is not open, " + std::to_string(descriptor));
        throw std::logic_error("a complaint that was ignored");
    }
    return found->second;
}

int MemoryHost::Open(const char* path, int flags, mode_t /*mode*/)
{
    const std::string name = path;
    if (name.compare(0, 5, "/dev/") == 0) {
        if (seen.insert(name).second) {
            probed.push_back(name);
        }
        if (flags != (O_RDONLY | O_NONBLOCK)) {
            complain("a device file is opened read-only and non-blocking: " + name);
        }
        const auto device = byPath.find(name);
        if (device == byPath.end()) {
            return Fail(ENOENT);
        }
        switch (device->second->kind) {
        case EntryKind::Node:
        case EntryKind::File:
        case EntryKind::Directory: {
            Descriptor descriptor;
            descriptor.kind = Kind::Device;
            descriptor.device = device->second;
            return Add(descriptor);
        }
        case EntryKind::Unreadable:
            return Fail(EACCES);
        case EntryKind::Unopenable:
            return Fail(ENXIO);
        case EntryKind::Dangling:
            return Fail(ENOENT);
        case EntryKind::Link:
            break;
        }
        complain("a host in memory has no links: " + name);
        return Fail(ENOENT);
    }
    if (name.compare(0, 11, "/sys/block/") != 0) {
        complain("nothing but device files and sysfs is opened: " + name);
    }
    Require((flags & O_ACCMODE) == O_RDONLY, "a file is opened for reading only");
    const auto file = revisionFiles.find(name);
    if (host.blockAbsent || file == revisionFiles.end()) {
        return Fail(ENOENT);
    }
    Descriptor descriptor;
    descriptor.kind = Kind::File;
    descriptor.contents = file->second;
    return Add(descriptor);
}

int MemoryHost::Close(int descriptor)
{
    At(descriptor, "close");
    descriptors.erase(descriptor);
    return 0;
}

ssize_t MemoryHost::Read(int number, void* buffer, std::size_t size)
{
    Descriptor& descriptor = At(number, "read");
    Require(descriptor.kind == Kind::File, "read is called on files");
    const std::size_t length = std::min(size, descriptor.contents->size() - descriptor.position);
    std::copy_n(descriptor.contents->begin() + static_cast<std::ptrdiff_t>(descriptor.position), length,
                static_cast<char*>(buffer));
    descriptor.position += length;
    return static_cast<ssize_t>(length);
}

int MemoryHost::Ioctl(int number, unsigned request, void* argument)
{
    const Descriptor& descriptor = At(number, "ioctl");
    Require(descriptor.kind == Kind::Device, "ioctl is called on device files");
    return devices.Ioctl(*descriptor.device, request, argument);
}

DIR* MemoryHost::OpenDirectory(const char* path)
{
    const std::string name = path;
    const bool isDev = name == "/dev/" || name == "/dev";
    if (!isDev && name != "/sys/block/" && name != "/sys/block") {
        complain("only /dev and /sys/block are listed: " + name);
    }
    if (isDev ? host.devUnreadable : host.blockAbsent) {
        errno = isDev ? EACCES : ENOENT;
        return nullptr;
    }
    auto* const directory = new Directory;
    const auto list = [directory](const auto& entries) {
        for (const auto& entry : entries) {
            directory->names.push_back(entry.name.c_str());
        }
    };
    isDev ? list(host.dev) : list(host.block);
    ++openDirectories;
    return reinterpret_cast<DIR*>(directory);
}

dirent* MemoryHost::ReadDirectory(DIR* opened)
{
    auto* const directory = reinterpret_cast<Directory*>(opened);
    if (directory->next == directory->names.size()) {
        return nullptr;
    }
    const char* const name = directory->names[directory->next++];
    // Behind the name lies what the one before has left, as in a real stream.
    std::copy_n(name, std::strlen(name) + 1, directory->entry.d_name);
    return &directory->entry;
}

int MemoryHost::CloseDirectory(DIR* opened)
{
    Require(openDirectories > 0, "a directory is closed once");
    --openDirectories;
    delete reinterpret_cast<Directory*>(opened);
    return 0;
}

int MemoryHost::System(const char* command)
{
    if (std::string(command) != "modprobe sg >/dev/null 2>&1") {
        complain("unexpected command: " + std::string(command));
    }
    // A new proxy, to which every device answers from the beginning.
    devices.BeginCall();
    return host.modprobeStatus;
}

unsigned MemoryHost::Sleep(unsigned seconds)
{
    Require(seconds == 5, "five seconds between two attempts");
    ++sleeps;
    return 0;
}

}  // namespace Kernel
