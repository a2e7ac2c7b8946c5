/**
 * @file
 * @brief Namespaces of a test's own: an ordinary user gets them too, where the kernel lets him have a user namespace.
 */
#ifndef ZENDRA_TESTS_KERNEL_NAMESPACES_H
#define ZENDRA_TESTS_KERNEL_NAMESPACES_H

#include <string>

namespace Kernel {

/**
 * @brief Moves the calling thread to new namespaces; mounts that it makes from then on are seen by nobody else.
 *
 * Who is not root becomes root of a user namespace in which there is no other user; he must be the process's only
 * thread.
 *
 * @param kinds CLONE_NEWNS, CLONE_NEWNET or both.
 * @return why they cannot be had; empty when they can.
 */
std::string EnterNamespaces(int kinds);

/** Whether EnterNamespaces() would do it, tried in a process of its own: why not, or empty. */
std::string NamespacesRefused(int kinds);

}  // namespace Kernel

#endif
