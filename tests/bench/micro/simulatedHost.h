/**
 * @file
 * @brief A host of disks that cost next to nothing to ask: what remains is the library's own work.
 */
#ifndef ZENDRA_TESTS_BENCH_SIMULATEDHOST_H
#define ZENDRA_TESTS_BENCH_SIMULATEDHOST_H

#include <cstddef>

#include "kernel/memoryHost.h"

namespace ZendraBench {

/** A host with so many disks, each as /dev/sd* and /dev/sg*, and whatever else /dev has. */
Kernel::Host HostOf(std::size_t disks);

/** While it lives, this thread sees such a host. */
class SimulatedHost {
public:
    explicit SimulatedHost(std::size_t disks);

private:
    Kernel::Host host;
    Kernel::MemoryHost memory;
};

/** SPC standard INQUIRY data of a disk; 255 bytes. */
void FillInquiry(unsigned char* data);

/** SPC VPD page 0x80 with a serial number of 20 characters; 255 bytes. */
void FillSerialPage(unsigned char* data);

}  // namespace ZendraBench

#endif
