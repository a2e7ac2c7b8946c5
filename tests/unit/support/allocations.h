/**
 * @file
 * @brief Replaces the global operator new of the test executable, library included: counts, and fails on demand.
 *
 * Everything here is per thread.
 */
#ifndef ZENDRA_TESTS_SUPPORT_ALLOCATIONS_H
#define ZENDRA_TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>

namespace ZendraTest {
namespace Allocations {

struct Count {
    std::size_t calls = 0;
    std::size_t bytes = 0;
};

/** What this thread has allocated since its start. */
Count SoFar();

/** Allocations of this thread that it has not freed yet (frees of other threads' memory count too). */
long Live();

/** Lets the next allocation of exactly `size` bytes fail with std::bad_alloc; later ones succeed. */
void FailNextOfSize(std::size_t size);

/** Lets the allocation fail that comes after `count` successful ones. */
void FailAfter(std::size_t count);

/** Ends FailNextOfSize and FailAfter. Returns whether an allocation was made to fail. */
bool StopFailing();

/** While one lives, allocations neither fail nor count in SoFar(): for what the fakes do on their own behalf. */
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

/** Remembers the block that the next allocation of exactly `size` bytes yields. */
void WatchNextOfSize(std::size_t size);

/** The block found by WatchNextOfSize; null when there was none or when it was freed since. */
void* Watched();

}  // namespace Allocations
}  // namespace ZendraTest

#endif
