/**
 * @file
 * @brief Who gives memory to operator new, the library's included.
 *
 * A program that compiles operatorNew.cpp defines both functions.
 */
#ifndef ZENDRA_TESTS_KERNEL_OPERATORNEW_H
#define ZENDRA_TESTS_KERNEL_OPERATORNEW_H

#include <cstddef>

namespace Kernel {

/** Null: there is no memory. */
void* Allocate(std::size_t size);

/** `block` may be null. */
void Release(void* block) noexcept;

}  // namespace Kernel

#endif
