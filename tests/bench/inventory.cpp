/**
 * @file
 * @brief GetAllDevice once, and nothing around it.
 *
 *     benchInventory DEVICES        fails unless so many were found
 */
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "module/osinfos/systemdevice/deviceCollector.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: benchInventory DEVICES\n", stderr);
        return 2;
    }
    std::vector<Zendra::ZDSystemDevice::SystemDevice> devices;
    Zendra::ZDSystemDevice::DeviceCollector().GetAllDevice(devices);
    const std::size_t wanted = std::strtoul(argv[1], nullptr, 10);
    if (devices.size() != wanted) {
        std::fprintf(stderr, "benchInventory: %zu devices instead of %zu\n", devices.size(), wanted);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
