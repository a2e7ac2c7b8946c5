/**
 * @file
 * @brief Memory that ends where its size says: the next byte cannot be touched.
 */
#ifndef ZENDRA_TESTS_SUPPORT_GUARDEDBUFFER_H
#define ZENDRA_TESTS_SUPPORT_GUARDEDBUFFER_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>

namespace ZendraTest {

/** `size` bytes, all zero, directly before a page that neither reads nor writes may touch. */
class GuardedBuffer {
public:
    explicit GuardedBuffer(std::size_t size) : length(size)
    {
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        usable = (size + page - 1) / page * page;
        mapped = usable + page;
        base = static_cast<unsigned char*>(
            mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base == MAP_FAILED || mprotect(base + usable, page, PROT_NONE) != 0) {
            throw std::runtime_error("no guarded memory");
        }
    }
    ~GuardedBuffer() { munmap(base, mapped); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    unsigned char* Data() { return base + (usable - length); }
    std::size_t Size() const { return length; }

private:
    std::size_t length;
    std::size_t usable = 0;
    std::size_t mapped = 0;
    unsigned char* base = nullptr;
};

}  // namespace ZendraTest

#endif
