/**
 * @file
 * @brief The JSON library as a parcel uses it: with memory that is there and sizes that it can count.
 */
#ifndef ZENDRA_ZDDEVICES_PARCELMEMORY_H
#define ZENDRA_ZDDEVICES_PARCELMEMORY_H

#include <rapidjson/encodings.h>
#include <rapidjson/rapidjson.h>
#include <rapidjson/stringbuffer.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace Zendra {
namespace ZDDevices {

/** Where the library takes its memory from; it does not ask whether it got any, so this throws std::bad_alloc. */
class JsonMemory {
public:
    static const bool kNeedFree = true;

    static void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
    static void* Realloc(void* memory, std::size_t /*oldSize*/, std::size_t size)
    {
        if (size == 0) {
            Free(memory);
            return nullptr;
        }
        void* const moved = std::realloc(memory, size);
        if (moved == nullptr) {
            throw std::bad_alloc();
        }
        return moved;
    }
    static void Free(void* memory) { std::free(memory); }
};

/** JSON that grows in memory. */
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, JsonMemory>;

/**
 * @brief The size of a text that is to be written.
 * @throws std::length_error for one that the library cannot count once each of its bytes is escaped.
 */
inline rapidjson::SizeType JsonSize(std::size_t size)
{
    constexpr std::size_t largestText = 256UL * 1024 * 1024;
    if (size > largestText) {
        throw std::length_error("a text is too long for JSON");
    }
    return static_cast<rapidjson::SizeType>(size);
}

}  // namespace ZDDevices
}  // namespace Zendra

#endif
