/**
 * @file
 * @brief Room in a list before it grows.
 */
#ifndef ZENDRA_COMMON_MAKEROOM_H
#define ZENDRA_COMMON_MAKEROOM_H

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Zendra {

/** For so many more; if any at all, then no less than a list grows by when it grows by itself. */
template <typename Element>
void MakeRoom(std::vector<Element>& list, std::size_t more)
{
    const std::size_t wanted = list.size() + more;
    if (wanted > list.capacity()) {
        list.reserve(std::max(wanted, 2 * list.capacity()));
    }
}

}  // namespace Zendra

#endif
