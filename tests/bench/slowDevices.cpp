/**
 * @file
 * @brief What sharing the devices among workers gains on a host whose devices take their time.
 *
 * Usage: benchSlowDevices DISKS MILLISECONDS [ROUNDS]. Each disk has an sd and an sg node, and each ioctl takes so
 * long. Prints how long one GetAllDevice takes and how long the program's scan takes, in seconds, and their ratio: of
 * the least times of all rounds, since what else the machine does can only add to a time.
 */
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "micro/simulatedHost.h"
#include "simhost.h"
#include "tools/zddevices/scan/library.h"
#include "tools/zddevices/scan/questions.h"

namespace {

using namespace Zendra::ZDDevices;

class SlowHost : public SimHost::MountedHost {
public:
    SlowHost(const SimHost::Host& whole, double milliseconds)
        : MountedHost(whole), delay(static_cast<useconds_t>(milliseconds * 1000))
    {
    }

    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        if (delay > 0) {
            usleep(delay);
        }
        return MountedHost::Ioctl(descriptor, request, argument);
    }

private:
    useconds_t delay;
};

template <typename Work>
double Seconds(Work work)
{
    const auto begun = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "Usage: benchSlowDevices DISKS MILLISECONDS [ROUNDS]\n");
        return 2;
    }
    const std::string reason = SimHost::EnterPrivateNamespace();
    if (!reason.empty()) {
        std::fprintf(stderr, "%s\n", reason.c_str());
        return 1;
    }
    SimHost::Host host;
    static_cast<Kernel::Host&>(host) = ZendraBench::HostOf(std::strtoul(argv[1], nullptr, 10));
    const SlowHost mounted(host, std::strtod(argv[2], nullptr));
    std::size_t listed = 0;
    std::size_t rows = 0;
    double facade = std::numeric_limits<double>::infinity();
    double program = facade;
    const unsigned long rounds = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 1;
    for (unsigned long round = 0; round < rounds; ++round) {
        facade = std::min(facade, Seconds([&] { listed = AskForDevices(std::nullopt).records.size(); }));
        program = std::min(program, Seconds([&] { rows = TakeInventory({}, nullptr).devices.value().size(); }));
    }
    std::printf("GetAllDevice %.3f s, %zu devices; zddevices %.3f s, %zu devices; ratio %.3f\n", facade, listed,
                program, rows, program / facade);
    return listed == rows ? 0 : 1;
}
