#include "kernel/systemCalls.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdarg>
#include <new>

namespace Kernel {

namespace {

// Where offsets have 64 bits by choice, the names without a number stand for the others.
#ifdef __USE_FILE_OFFSET64
constexpr char openName[] = "open64";
constexpr char readdirName[] = "readdir64";
#else
constexpr char openName[] = "open";
constexpr char readdirName[] = "readdir";
#endif

thread_local SystemCalls* ofThread = nullptr;
SystemCalls* ofProcess = nullptr;

}  // namespace

SystemCalls& Calls()
{
    // Never destroyed, because calls come until the process has ended, and not from operator new, which tests count.
    alignas(SystemCalls) static unsigned char room[sizeof(SystemCalls)];
    static auto* const system = new (room) SystemCalls;
    return ofThread != nullptr ? *ofThread : ofProcess != nullptr ? *ofProcess : *system;
}

SystemCalls* AnswerThread(SystemCalls* calls)
{
    SystemCalls* const before = ofThread;
    ofThread = calls;
    return before;
}

void AnswerProcess(SystemCalls* calls)
{
    ofProcess = calls;
}

int SystemCalls::Ioctl(int descriptor, unsigned request, void* argument)
{
    static auto* const real = Next<int(int, unsigned long, ...)>("ioctl");
    return real(descriptor, request, argument);
}

int SystemCalls::System(const char* command)
{
    static auto* const real = Next<int(const char*)>("system");
    return real(command);
}

unsigned SystemCalls::Sleep(unsigned seconds)
{
    static auto* const real = Next<unsigned(unsigned)>("sleep");
    return real(seconds);
}

int SystemCalls::Open(const char* path, int flags, mode_t mode)
{
    static auto* const real = Next<int(const char*, int, ...)>(openName);
    return real(path, flags, mode);
}

int SystemCalls::Close(int descriptor)
{
    static auto* const real = Next<int(int)>("close");
    return real(descriptor);
}

ssize_t SystemCalls::Read(int descriptor, void* buffer, std::size_t size)
{
    static auto* const real = Next<ssize_t(int, void*, std::size_t)>("read");
    return real(descriptor, buffer, size);
}

DIR* SystemCalls::OpenDirectory(const char* path)
{
    static auto* const real = Next<DIR*(const char*)>("opendir");
    return real(path);
}

dirent* SystemCalls::ReadDirectory(DIR* directory)
{
    static auto* const real = Next<dirent*(DIR*)>(readdirName);
    return real(directory);
}

int SystemCalls::CloseDirectory(DIR* directory)
{
    static auto* const real = Next<int(DIR*)>("closedir");
    return real(directory);
}

}  // namespace Kernel

// The declarations are the system headers'.
extern "C" {

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    // A request number kept in an int comes sign-extended; the kernel looks at 32 bits.
    return Kernel::Calls().Ioctl(descriptor, static_cast<unsigned>(request), argument);
}

int system(const char* command)
{
    return Kernel::Calls().System(command);
}

unsigned sleep(unsigned seconds)
{
    return Kernel::Calls().Sleep(seconds);
}

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Kernel::Calls().Open(path, flags, mode);
}

#ifndef __USE_FILE_OFFSET64
int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Kernel::Calls().Open(path, flags, mode);
}
#endif

int close(int descriptor)
{
    return Kernel::Calls().Close(descriptor);
}

ssize_t read(int descriptor, void* buffer, size_t size)
{
    return Kernel::Calls().Read(descriptor, buffer, size);
}

DIR* opendir(const char* path)
{
    return Kernel::Calls().OpenDirectory(path);
}

dirent* readdir(DIR* directory)
{
    return Kernel::Calls().ReadDirectory(directory);
}

#ifndef __USE_FILE_OFFSET64
dirent64* readdir64(DIR* directory)
{
    static_assert(sizeof(dirent) == sizeof(dirent64));
    return reinterpret_cast<dirent64*>(Kernel::Calls().ReadDirectory(directory));
}
#endif

int closedir(DIR* directory)
{
    return Kernel::Calls().CloseDirectory(directory);
}
}
