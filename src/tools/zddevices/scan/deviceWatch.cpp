#include "tools/zddevices/scan/deviceWatch.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace Zendra {
namespace ZDDevices {

/**
 * Shared memory. The scan may be killed at any point, so nothing here can be waited for: an odd version says that the
 * rest is being written, or never was to its end.
 */
struct DeviceWatch::Page {
    static constexpr std::size_t longestName = 255;
    std::atomic<std::uint32_t> version{0};
    std::atomic<std::int64_t> since{0};
    std::array<std::atomic<char>, longestName + 1> device{};

    std::string Device() const
    {
        std::string text;
        for (const std::atomic<char>& character : device) {
            const char value = character.load();
            if (value == '\0') {
                break;
            }
            text += value;
        }
        return text;
    }
};

void DeviceWatch::Unmap::operator()(Page* mapped) const
{
    munmap(mapped, sizeof(Page));
}

DeviceWatch::DeviceWatch()
{
    static_assert(std::atomic<std::int64_t>::is_always_lock_free, "a lock would be of one process only");
    void* const memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    page.reset(new (memory) Page);
}

void DeviceWatch::Note(const std::string& message) noexcept
{
    static constexpr char start[] = "Enter DataOperator::OpenDriveFile() driveName = ";
    constexpr std::size_t startLength = sizeof(start) - 1;
    if (message.compare(0, startLength, start) != 0) {
        return;
    }
    const std::size_t length = std::min(message.size() - startLength, Page::longestName);
    std::size_t same = 0;
    while (same < length && page->device[same].load() == message[startLength + same]) {
        ++same;
    }
    if (same == length && page->device[length].load() == '\0') {
        return;
    }
    page->version.fetch_add(1);
    for (std::size_t i = 0; i < length; ++i) {
        page->device[i].store(message[startLength + i]);
    }
    page->device[length].store('\0');
    page->since.store(std::chrono::steady_clock::now().time_since_epoch().count());
    page->version.fetch_add(1);
}

Sighting DeviceWatch::Look() const
{
    constexpr int attempts = 10;
    for (int i = 0; i < attempts; ++i) {
        const std::uint32_t before = page->version.load();
        Sighting sighting;
        sighting.device = page->Device();
        sighting.since = std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(page->since.load()));
        if (before % 2 == 0 && page->version.load() == before) {
            return sighting;
        }
    }
    return {};
}

}  // namespace ZDDevices
}  // namespace Zendra
