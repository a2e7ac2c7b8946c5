/**
 * @file
 * @brief Preloaded into every program of a test host: zddevices asks simulated devices there, all others the kernel.
 *
 * The host file is /var/lib/simhost/host; /var/lib/simhost/stuck names device files, one a line, that never answer.
 * Whatever the library should not have done is added to /var/lib/simhost/complaints.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <set>
#include <string>

#include "simhost.h"

namespace {

const std::string directory = "/var/lib/simhost";

/** The process cannot be what it should: better none than one that asks real devices. */
[[noreturn]] void Die(const char* why)
{
    std::fprintf(stderr, "simulated devices: %s\n", why);
    std::_Exit(EXIT_FAILURE);
}

class Devices {
public:
    Devices() : host(SimHost::ReadHost(directory + "/host")), mounted(host, SimHost::MountedHost::Directories::AreThere)
    {
        std::ifstream names(directory + "/stuck");
        for (std::string name; std::getline(names, name);) {
            stuck.insert("/dev/" + name);
        }
    }

    int Ioctl(int descriptor, unsigned request, void* argument)
    {
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        char target[256];
        const ssize_t length = readlink(link.c_str(), target, sizeof target);
        const std::string path(target, length > 0 ? static_cast<std::size_t>(length) : 0);
        if (path.compare(0, 5, "/dev/") != 0) {
            return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
        }
        while (stuck.count(path) > 0) {
            pause();
        }
        const int result = mounted.Ioctl(descriptor, request, argument);
        PassOnComplaints();
        return result;
    }

    int System(const char* command)
    {
        const int result = mounted.System(command);
        PassOnComplaints();
        return result;
    }

    unsigned Sleep(unsigned seconds) { return mounted.Sleep(seconds); }

private:
    void PassOnComplaints()
    {
        const int error = errno;
        for (; passedOn < mounted.Complaints().size(); ++passedOn) {
            const std::string line = mounted.Complaints()[passedOn] + "\n";
            const int file = open((directory + "/complaints").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
            if (file < 0 || write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
                Die(line.c_str());
            }
            close(file);
        }
        errno = error;
    }

    SimHost::Host host;
    SimHost::MountedHost mounted;
    std::set<std::string> stuck;
    std::size_t passedOn = 0;
};

/** The host's devices, in zddevices; nothing in other programs. */
Devices* Here()
{
    if (std::strcmp(program_invocation_short_name, "zddevices") != 0) {
        return nullptr;
    }
    try {
        // Never destroyed: what it would unmount is not its own.
        static auto* const devices = new Devices;
        return devices;
    } catch (const std::exception& error) {
        Die(error.what());
    }
}

}  // namespace

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (Devices* const devices = Here()) {
        return devices->Ioctl(descriptor, static_cast<unsigned>(request), argument);
    }
    return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

extern "C" int system(const char* command)
{
    if (Devices* const devices = Here()) {
        return devices->System(command);
    }
    static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
    return real(command);
}

extern "C" unsigned sleep(unsigned seconds)
{
    if (Devices* const devices = Here()) {
        return devices->Sleep(seconds);
    }
    static const auto real = reinterpret_cast<unsigned (*)(unsigned)>(dlsym(RTLD_NEXT, "sleep"));
    return real(seconds);
}
