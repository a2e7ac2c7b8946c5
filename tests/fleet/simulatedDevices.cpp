/**
 * @file
 * @brief Preloaded into every program of a test host: zddevices asks simulated devices there, all others the kernel.
 *
 * The host file is /var/lib/simhost/host; /var/lib/simhost/stuck names device files, one a line, that never answer.
 * Whatever the library should not have done is added to /var/lib/simhost/complaints.
 */
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

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

class Devices : public Kernel::SystemCalls {
public:
    Devices() : host(SimHost::ReadHost(directory + "/host")), mounted(host, SimHost::MountedHost::Directories::AreThere)
    {
        std::ifstream names(directory + "/stuck");
        for (std::string name; std::getline(names, name);) {
            stuck.insert("/dev/" + name);
        }
    }

    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        char target[256];
        const ssize_t length = readlink(link.c_str(), target, sizeof target);
        const std::string path(target, length > 0 ? static_cast<std::size_t>(length) : 0);
        if (path.compare(0, 5, "/dev/") != 0) {
            return SystemCalls::Ioctl(descriptor, request, argument);
        }
        while (stuck.count(path) > 0) {
            pause();
        }
        const int result = mounted.Ioctl(descriptor, request, argument);
        PassOnComplaints();
        return result;
    }

    int System(const char* command) override
    {
        const int result = mounted.System(command);
        PassOnComplaints();
        return result;
    }

    unsigned Sleep(unsigned seconds) override { return mounted.Sleep(seconds); }

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

/** Who answers: the host's devices in zddevices, the system in other programs. */
Kernel::SystemCalls& Here()
{
    static Kernel::SystemCalls system;
    if (std::strcmp(program_invocation_short_name, "zddevices") != 0) {
        return system;
    }
    try {
        // Never destroyed: what it would unmount is not its own.
        static auto* const devices = new Devices;
        return *devices;
    } catch (const std::exception& error) {
        Die(error.what());
    }
}

/** Reads the host when a program makes the first call that may concern it. */
class FirstCall : public Kernel::SystemCalls {
public:
    FirstCall() { Kernel::AnswerProcess(this); }
    ~FirstCall() override { Kernel::AnswerProcess(nullptr); }
    FirstCall(const FirstCall&) = delete;
    FirstCall& operator=(const FirstCall&) = delete;
    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        return Here().Ioctl(descriptor, request, argument);
    }
    int System(const char* command) override { return Here().System(command); }
    unsigned Sleep(unsigned seconds) override { return Here().Sleep(seconds); }
};

FirstCall firstCall;

}  // namespace
