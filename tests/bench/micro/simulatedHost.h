/**
 * @file
 * @brief A host of disks that cost next to nothing to ask: what remains is the library's own work.
 *
 * The program that links this defines the system calls that the library makes; they answer for the host while one is
 * there and pass everything else on.
 */
#ifndef ZENDRA_TESTS_BENCH_SIMULATEDHOST_H
#define ZENDRA_TESTS_BENCH_SIMULATEDHOST_H

#include <cstddef>

namespace ZendraBench {

/** While it lives, this process sees so many disks, each as /dev/sd* and /dev/sg*, and whatever else /dev has. */
class SimulatedHost {
public:
    explicit SimulatedHost(std::size_t disks);
    ~SimulatedHost();
    SimulatedHost(const SimulatedHost&) = delete;
    SimulatedHost& operator=(const SimulatedHost&) = delete;
};

/** SPC standard INQUIRY data of a disk; 255 bytes. */
void FillInquiry(unsigned char* data);

/** SPC VPD page 0x80 with a serial number of 20 characters; 255 bytes. */
void FillSerialPage(unsigned char* data);

}  // namespace ZendraBench

#endif
