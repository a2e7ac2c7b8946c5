#include "interposed.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernel/operatorNew.h"

namespace ZendraTest {

Hooks hooks;

namespace {

/** The C library's name for a function of the headers: with 32 bits, those with wide offsets or times have another. */
const char* LinkedName(const char* name)
{
#if __SIZEOF_POINTER__ == 4
    static const char* const names[][2] = {
        {"select", "__select64"},
        {"setsockopt", "__setsockopt64"},
        {"stat", "__stat64_time64"},
        {"time", "__time64"},
    };
    for (const auto& pair : names) {
        if (std::strcmp(pair[0], name) == 0) {
            return pair[1];
        }
    }
#endif
    return name;
}

template <typename Function>
Function* Next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, LinkedName(name)));
}

/** Shared with forked children. */
struct Tally {
    std::atomic<long> takenInChildren{0};
    std::atomic<long> failAfter{-1};
    std::atomic<bool> failInChild{false};
    std::atomic<bool> failed{false};
};

Tally& SharedTally()
{
    static Tally* const tally =
        new (mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Tally;
    return *tally;
}

std::atomic<long> liveBlocks{0};
const pid_t testProcess = getpid();
/** Set once constructors have run: allocations before that belong to nobody. */
const bool counting = (SharedTally(), true);

}  // namespace

long LiveBlocks()
{
    return liveBlocks;
}

long BlocksTakenInChildren()
{
    return SharedTally().takenInChildren.exchange(0);
}

void FailAllocationAfter(long count)
{
    SharedTally().failed = false;
    SharedTally().failInChild = false;
    SharedTally().failAfter = count;
}

void FailAllocationInChildAfter(long count)
{
    SharedTally().failed = false;
    SharedTally().failInChild = true;
    SharedTally().failAfter = count;
}

bool StopFailingAllocations()
{
    SharedTally().failAfter = -1;
    return SharedTally().failed.exchange(false);
}

namespace Real {

ssize_t Read(int descriptor, void* buffer, size_t size)
{
    static const auto next = Next<ssize_t(int, void*, size_t)>("read");
    return next(descriptor, buffer, size);
}

pid_t Fork()
{
    static const auto next = Next<pid_t()>("fork");
    return next();
}

int Select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    static const auto next = Next<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select");
    return next(count, readable, writable, exceptional, timeout);
}

pid_t Waitpid(pid_t process, int* status, int options)
{
    static const auto next = Next<pid_t(pid_t, int*, int)>("waitpid");
    return next(process, status, options);
}

int Close(int descriptor)
{
    static const auto next = Next<int(int)>("close");
    return next(descriptor);
}

}  // namespace Real

}  // namespace ZendraTest

using namespace ZendraTest;

void* Kernel::Allocate(std::size_t size)
{
    if (counting) {
        Tally& tally = SharedTally();
        const bool inChild = getpid() != testProcess;
        if (inChild) {
            ++tally.takenInChildren;
        }
        if (tally.failInChild == inChild && tally.failAfter >= 0 && tally.failAfter-- == 0) {
            tally.failed = true;
            return nullptr;
        }
    }
    void* const block = std::malloc(size != 0 ? size : 1);
    liveBlocks += block != nullptr ? 1 : 0;
    return block;
}

void Kernel::Release(void* block) noexcept
{
    if (block != nullptr) {
        --liveBlocks;
        std::free(block);
    }
}

extern "C" {

time_t time(time_t* result) noexcept
{
    static const auto next = Next<time_t(time_t*)>("time");
    return hooks.time ? hooks.time(result) : next(result);
}

int stat(const char* path, struct stat* status) noexcept
{
    static const auto next = Next<int(const char*, struct stat*)>("stat");
    return hooks.stat ? hooks.stat(path, status) : next(path, status);
}

int mkdir(const char* path, mode_t mode) noexcept
{
    static const auto next = Next<int(const char*, mode_t)>("mkdir");
    return hooks.mkdir ? hooks.mkdir(path, mode) : next(path, mode);
}

ssize_t read(int descriptor, void* buffer, size_t size)
{
    return hooks.read ? hooks.read(descriptor, buffer, size) : Real::Read(descriptor, buffer, size);
}

int pipe2(int ends[2], int flags) noexcept
{
    static const auto next = Next<int(int*, int)>("pipe2");
    return hooks.pipe2 ? hooks.pipe2(ends, flags) : next(ends, flags);
}

pid_t fork() noexcept
{
    return hooks.fork ? hooks.fork() : Real::Fork();
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    return hooks.select ? hooks.select(count, readable, writable, exceptional, timeout)
                        : Real::Select(count, readable, writable, exceptional, timeout);
}

pid_t waitpid(pid_t process, int* status, int options)
{
    return hooks.waitpid ? hooks.waitpid(process, status, options) : Real::Waitpid(process, status, options);
}

int kill(pid_t process, int number) noexcept
{
    static const auto next = Next<int(pid_t, int)>("kill");
    return hooks.kill ? hooks.kill(process, number) : next(process, number);
}

int system(const char* command)
{
    static const auto next = Next<int(const char*)>("system");
    return hooks.system ? hooks.system(command) : next(command);
}

int socket(int domain, int type, int protocol) noexcept
{
    static const auto next = Next<int(int, int, int)>("socket");
    return hooks.socket ? hooks.socket(domain, type, protocol) : next(domain, type, protocol);
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept
{
    static const auto next = Next<int(int, const sockaddr*, socklen_t)>("bind");
    return hooks.bind ? hooks.bind(descriptor, address, length) : next(descriptor, address, length);
}

int setsockopt(int descriptor, int level, int name, const void* value, socklen_t length) noexcept
{
    static const auto next = Next<int(int, int, int, const void*, socklen_t)>("setsockopt");
    return hooks.setsockopt ? hooks.setsockopt(descriptor, level, name, value, length)
                            : next(descriptor, level, name, value, length);
}

int close(int descriptor)
{
    return hooks.close ? hooks.close(descriptor) : Real::Close(descriptor);
}

}  // extern "C"
