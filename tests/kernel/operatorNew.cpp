#include "kernel/operatorNew.h"

#include <new>

using Kernel::Allocate;
using Kernel::Release;

void* operator new(std::size_t size)
{
    void* const block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}

void operator delete(void* block) noexcept
{
    Release(block);
}

void operator delete[](void* block) noexcept
{
    Release(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    Release(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
    Release(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    Release(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    Release(block);
}
