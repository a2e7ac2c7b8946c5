/**
 * @file
 * @brief Room in a list before it grows.
 */
#ifndef ZENDRA_COMMON_MAKEROOM_H
#define ZENDRA_COMMON_MAKEROOM_H

#include <algorithm>
#include <cstddef>
#include <new>
#include <vector>

namespace Zendra {

/**
 * Asks for room for so many more; if for any at all, then for no less than a list grows by when it grows by itself.
 * Room only saves time: without the memory for it the list stays as it is, and grows later or fails then.
 */
template <typename Element>
void MakeRoom(std::vector<Element>& list, std::size_t more)
{
    const std::size_t wanted = list.size() + more;
    if (wanted <= list.capacity()) {
        return;
    }
    try {
        list.reserve(std::max(wanted, 2 * list.capacity()));
    } catch (const std::bad_alloc&) {
        return;
    }
}

}  // namespace Zendra

#endif
