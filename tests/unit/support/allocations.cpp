#include "support/allocations.h"

#include <cstdlib>
#include <limits>

#include "kernel/operatorNew.h"

namespace ZendraTest {
namespace Allocations {

namespace {

constexpr std::size_t never = std::numeric_limits<std::size_t>::max();

struct State {
    Count count;
    long live = 0;
    std::size_t failSize = never;
    std::size_t failAfter = never;
    bool failed = false;
    std::size_t watchSize = never;
    void* watched = nullptr;
    int pauses = 0;
};

thread_local State state;

}  // namespace

Count SoFar()
{
    return state.count;
}

long Live()
{
    return state.live;
}

void FailNextOfSize(std::size_t size)
{
    state.failed = false;
    state.failSize = size;
}

void FailAfter(std::size_t count)
{
    state.failed = false;
    state.failAfter = count;
}

bool StopFailing()
{
    state.failSize = never;
    state.failAfter = never;
    return state.failed;
}

Pause::Pause()
{
    ++state.pauses;
}

Pause::~Pause()
{
    --state.pauses;
}

void WatchNextOfSize(std::size_t size)
{
    state.watchSize = size;
    state.watched = nullptr;
}

void* Watched()
{
    return state.watched;
}

}  // namespace Allocations
}  // namespace ZendraTest

using ZendraTest::Allocations::never;
using ZendraTest::Allocations::state;

void* Kernel::Allocate(std::size_t size)
{
    const bool counts = state.pauses == 0;
    if (counts && size == state.failSize) {
        state.failSize = never;
        state.failed = true;
        return nullptr;
    }
    if (counts && state.failAfter != never && state.failAfter-- == 0) {
        state.failAfter = never;
        state.failed = true;
        return nullptr;
    }
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block != nullptr) {
        state.count.calls += counts ? 1 : 0;
        state.count.bytes += counts ? size : 0;
        ++state.live;
        if (counts && size == state.watchSize) {
            state.watchSize = never;
            state.watched = block;
        }
    }
    return block;
}

void Kernel::Release(void* block) noexcept
{
    if (block == nullptr) {
        return;
    }
    --state.live;
    if (block == state.watched) {
        state.watched = nullptr;
    }
    std::free(block);
}
