/**
 * @file
 * @brief The system calls that the library makes, taken by whoever wants to answer them.
 *
 * A program that links this defines `ioctl`, `system`, `sleep`, `open`, `close`, `read`, `opendir`, `readdir` and
 * `closedir`. So a shared library's calls come here, and go to the SystemCalls of their thread, else to those of the
 * process, else to the system.
 */
#ifndef ZENDRA_TESTS_KERNEL_SYSTEMCALLS_H
#define ZENDRA_TESTS_KERNEL_SYSTEMCALLS_H

#include <dirent.h>
#include <dlfcn.h>
#include <sys/types.h>

#include <cstddef>

namespace Kernel {

/** Each passes on to the system and returns what the system's own does. */
class SystemCalls {
public:
    SystemCalls() = default;
    virtual ~SystemCalls() = default;
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    virtual int Ioctl(int descriptor, unsigned request, void* argument);
    virtual int System(const char* command);
    virtual unsigned Sleep(unsigned seconds);
    virtual int Open(const char* path, int flags, mode_t mode);
    virtual int Close(int descriptor);
    virtual ssize_t Read(int descriptor, void* buffer, std::size_t size);
    virtual DIR* OpenDirectory(const char* path);
    virtual dirent* ReadDirectory(DIR* directory);
    virtual int CloseDirectory(DIR* directory);
};

/** Who answers this thread. */
SystemCalls& Calls();

/** Who answers this thread from now on; null: whoever answers the process. Returns who did. */
SystemCalls* AnswerThread(SystemCalls* calls);

/** Who answers threads that have nobody of their own; null: the system. */
void AnswerProcess(SystemCalls* calls);

/** The next definition of a function behind the program's own. */
template <class Function>
Function* Next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace Kernel

#endif
