/**
 * @file
 * @brief makeDevices HOSTFILE PROGRAM [ARGUMENT ...]: makes a host's directories, then becomes the program.
 *
 * For a process that has a mount namespace and a root directory of its own.
 */
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "simhost.h"

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: makeDevices HOSTFILE PROGRAM [ARGUMENT ...]\n");
        return 2;
    }
    try {
        // The directories stay for the program; both live as long as the process.
        static const SimHost::Host host = SimHost::ReadHost(argv[1]);
        static const SimHost::MountedHost mounted(host);
        execvp(argv[2], argv + 2);
        std::perror(argv[2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "makeDevices: %s\n", error.what());
    }
    return 1;
}
