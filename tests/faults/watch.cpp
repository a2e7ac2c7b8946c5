#include "watch.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>

// Sanitizers bring a malloc of their own, which a second one must not cover.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define FAULTS_OWN_MALLOC
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#undef FAULTS_OWN_MALLOC
#endif
#endif

#ifdef FAULTS_OWN_MALLOC
extern "C" void* __libc_malloc(std::size_t size);  // NOLINT
#endif

namespace Faults {

namespace {

/** More than any operation on a host of these tests has calls to make. */
constexpr unsigned long mostInjected = 10000;

/** Stands in front of every block of operator new. */
struct alignas(std::max_align_t) Header {
    Header* previous;
    Header* next;
    std::size_t size;
    unsigned long number;
};

thread_local Watch* active = nullptr;
thread_local int pauses = 0;
thread_local SimHost::MountedHost* hostOfThread = nullptr;
/** The ring of watched blocks; its own `next` is null until it is first used. */
thread_local Header ring{nullptr, nullptr, 0, 0};

template <class Function>
Function* Real(const char* name)
{
    auto* const found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (found == nullptr) {
        std::abort();
    }
    return found;
}

void* RealMalloc(std::size_t size)
{
#ifdef FAULTS_OWN_MALLOC
    return __libc_malloc(size);
#else
    return std::malloc(size);
#endif
}

Header& Ring()
{
    if (ring.next == nullptr) {
        ring.next = &ring;
        ring.previous = &ring;
    }
    return ring;
}

void Unlink(Header& header)
{
    header.previous->next = header.next;
    header.next->previous = header.previous;
}

/** Null when it has to fail. */
void* Allocate(std::size_t size)
{
    Watch* const watch = Watch::Current();
    if (watch != nullptr && watch->Fails(Call::New)) {
        return nullptr;
    }
    auto* const header = static_cast<Header*>(RealMalloc(sizeof(Header) + size));
    if (header == nullptr) {
        return nullptr;
    }
    *header = Header{nullptr, nullptr, size, 0};
    if (watch != nullptr) {
        header->number = watch->CountOf(Call::New);
        Header& head = Ring();
        header->previous = head.previous;
        header->next = &head;
        head.previous->next = header;
        head.previous = header;
    }
    return header + 1;
}

void Release(void* block)
{
    if (block == nullptr) {
        return;
    }
    Header* const header = static_cast<Header*>(block) - 1;
    if (header->next != nullptr) {
        Unlink(*header);
        if (active != nullptr) {
            active->Deleted(header->number);
        }
    }
    std::free(header);
}

/** Runs `real` unless the call has to fail, and records how it went. `describe` fills the event. */
template <class Result, class RealCall, class Describe>
Result Run(Call call, Result failure, RealCall real, Describe describe)
{
    Watch* const watch = Watch::Current();
    if (watch == nullptr) {
        return real();
    }
    const bool fails = watch->Fails(call);
    const int error = errno;
    const Pause pause;
    Result result = failure;
    if (!fails) {
        result = real();
    }
    const int after = fails ? error : errno;
    Event event;
    event.call = call;
    event.succeeded = result != failure;
    event.injected = fails;
    describe(event, result);
    watch->Record(std::move(event));
    errno = after;
    return result;
}

int OpenWith(int (*real)(const char*, int, ...), const char* path, int flags, mode_t mode)
{
    return Run(
        Call::Open, -1, [&] { return real(path, flags, mode); },
        [&](Event& event, int result) {
            event.text = path;
            event.descriptor = result;
            if (result >= 0) {
                active->Opened(result, path);
            }
        });
}

template <class Entry>
Entry* ReadDirWith(Entry* (*real)(DIR*), DIR* directory)
{
    return Run(
        Call::ReadDir, static_cast<Entry*>(nullptr), [&] { return real(directory); },
        [&](Event& event, const Entry* entry) { event.text = entry != nullptr ? entry->d_name : ""; });
}

FILE* OpenStreamWith(FILE* (*real)(const char*, const char*), const char* path, const char* mode)
{
    return Run(
        Call::FileStream, static_cast<FILE*>(nullptr), [&] { return real(path, mode); },
        [&](Event& event, const FILE*) { event.text = path; });
}

}  // namespace

const char* NameOf(Call call)
{
    static const std::array<const char*, callKinds> names = {"open",     "close",   "ioctl",  "opendir",      "readdir",
                                                             "closedir", "fopen",   "read",   "pipe",         "fork",
                                                             "select",   "waitpid", "system", "operator new", "malloc"};
    return names.at(static_cast<std::size_t>(call));
}

const std::array<Call, callKinds>& AllCalls()
{
    static const auto all = [] {
        std::array<Call, callKinds> calls{};
        for (std::size_t i = 0; i < calls.size(); ++i) {
            calls.at(i) = static_cast<Call>(i);
        }
        return calls;
    }();
    return all;
}

bool CanFailMalloc()
{
#ifdef FAULTS_OWN_MALLOC
    return true;
#else
    return false;
#endif
}

Watch::Watch(const std::optional<Fault>& what) : fault(what)
{
    if (active != nullptr) {
        throw std::logic_error("one watch at a time");
    }
    active = this;
}

Watch::~Watch()
{
    Stop();
}

void Watch::Stop()
{
    if (active == this) {
        active = nullptr;
    }
}

Watch* Watch::Current()
{
    return pauses == 0 ? active : nullptr;
}

bool Watch::Fails(Call call)
{
    const unsigned long number = ++counts[static_cast<std::size_t>(call)];
    if (!fault || fault->call != call || (fault->fromThenOn ? number < fault->number : number != fault->number)) {
        return false;
    }
    if (++injected > mostInjected) {
        // It would for ever.
        std::fputs("the library makes a call that fails again and again\n", stderr);
        std::abort();
    }
    errno = fault->error;
    return true;
}

void Watch::Record(Event event)
{
    if (event.call == Call::System) {
        newsBeforeSystem.push_back(CountOf(Call::New));
    }
    trace.push_back(std::move(event));
}

void Watch::Misuse(const std::string& what)
{
    misuses.push_back(what);
}

void Watch::Opened(int descriptor, const char* path)
{
    paths[descriptor] = path;
}

void Watch::Closed(int descriptor)
{
    paths.erase(descriptor);
}

std::string Watch::PathOf(int descriptor) const
{
    const auto found = paths.find(descriptor);
    return found == paths.end() ? "" : found->second;
}

void Watch::Deleted(unsigned long number)
{
    const Pause pause;
    if (newsBeforeDelete.size() <= number) {
        newsBeforeDelete.resize(number + 1);
    }
    newsBeforeDelete[number] = CountOf(Call::New);
}

unsigned long Watch::NewsBeforeDelete(unsigned long number) const
{
    return number < newsBeforeDelete.size() ? newsBeforeDelete[number] : 0;
}

Pause::Pause()
{
    ++pauses;
}

Pause::~Pause()
{
    --pauses;
}

void SetHost(SimHost::MountedHost* host)
{
    hostOfThread = host;
}

std::vector<Block> LiveBlocks()
{
    std::vector<Block> blocks;
    for (const Header* header = Ring().next; header != &Ring(); header = header->next) {
        blocks.push_back({header->size, header->number});
    }
    return blocks;
}

void FreeLiveBlocks()
{
    while (Ring().next != &Ring()) {
        Header* const header = Ring().next;
        Unlink(*header);
        std::free(header);
    }
}

std::map<int, std::string> OpenDescriptors()
{
    std::map<int, std::string> descriptors;
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        throw std::runtime_error("cannot read /proc/self/fd");
    }
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || std::stoi(name) == dirfd(directory)) {
            continue;
        }
        std::array<char, 256> target{};
        const std::string link = "/proc/self/fd/" + name;
        const ssize_t length = readlink(link.c_str(), target.data(), target.size());
        descriptors[std::stoi(name)] = std::string(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    closedir(directory);
    return descriptors;
}

}  // namespace Faults

using Faults::Call;
using Faults::Event;
using Faults::Pause;
using Faults::Run;
using Faults::Watch;

extern "C" int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static const auto real = Faults::Real<int(const char*, int, ...)>("open");
    return Faults::OpenWith(real, path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static const auto real = Faults::Real<int(const char*, int, ...)>("open64");
    return Faults::OpenWith(real, path, flags, mode);
}

// Like the kernel's, a close that fails has closed the descriptor all the same.
extern "C" int close(int descriptor)
{
    static const auto real = Faults::Real<int(int)>("close");
    Watch* const watch = Watch::Current();
    if (watch == nullptr) {
        return real(descriptor);
    }
    const bool fails = watch->Fails(Call::Close);
    const int error = errno;
    const Pause pause;
    const int result = real(descriptor);
    const int after = fails ? error : errno;
    if (result != 0) {
        watch->Misuse("closes descriptor " + std::to_string(descriptor) + ", which is not open");
    }
    Event event;
    event.call = Call::Close;
    event.succeeded = !fails;
    event.descriptor = descriptor;
    event.text = watch->PathOf(descriptor);
    watch->Closed(descriptor);
    watch->Record(std::move(event));
    errno = after;
    return fails ? -1 : result;
}

extern "C" DIR* opendir(const char* path)
{
    // Not under a pause, which would hide the malloc in it.
    Watch* const watch = Watch::Current();
    static const auto real = Faults::Real<DIR*(const char*)>("opendir");
    if (watch == nullptr) {
        return real(path);
    }
    DIR* const directory = watch->Fails(Call::OpenDir) ? nullptr : real(path);
    const int after = errno;
    const Pause pause;
    Event event;
    event.call = Call::OpenDir;
    event.succeeded = directory != nullptr;
    event.text = path;
    watch->Record(std::move(event));
    errno = after;
    return directory;
}

extern "C" dirent* readdir(DIR* directory)
{
    static const auto real = Faults::Real<dirent*(DIR*)>("readdir");
    return Faults::ReadDirWith(real, directory);
}

extern "C" dirent64* readdir64(DIR* directory)
{
    static const auto real = Faults::Real<dirent64*(DIR*)>("readdir64");
    return Faults::ReadDirWith(real, directory);
}

extern "C" int closedir(DIR* directory)
{
    static const auto real = Faults::Real<int(DIR*)>("closedir");
    Watch* const watch = Watch::Current();
    if (watch == nullptr) {
        return real(directory);
    }
    const bool fails = watch->Fails(Call::CloseDir);
    const int error = errno;
    const Pause pause;
    const int result = real(directory);
    const int after = fails ? error : errno;
    if (result != 0) {
        watch->Misuse("closes a directory that is not open");
    }
    Event event;
    event.call = Call::CloseDir;
    event.succeeded = !fails;
    watch->Record(std::move(event));
    errno = after;
    return fails ? -1 : result;
}

extern "C" FILE* fopen(const char* path, const char* mode)
{
    static const auto real = Faults::Real<FILE*(const char*, const char*)>("fopen");
    return Faults::OpenStreamWith(real, path, mode);
}

extern "C" FILE* fopen64(const char* path, const char* mode)
{
    static const auto real = Faults::Real<FILE*(const char*, const char*)>("fopen64");
    return Faults::OpenStreamWith(real, path, mode);
}

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size)
{
    static const auto real = Faults::Real<ssize_t(int, void*, std::size_t)>("read");
    return Run(
        Call::Read, static_cast<ssize_t>(-1), [&] { return real(descriptor, buffer, size); },
        [&](Event& event, ssize_t result) {
            event.descriptor = descriptor;
            if (result > 0) {
                event.text.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(result));
            }
        });
}

extern "C" int pipe2(int* ends, int flags) noexcept
{
    static const auto real = Faults::Real<int(int*, int)>("pipe2");
    return Run(
        Call::Pipe, -1, [&] { return real(ends, flags); },
        [&](Event& event, int result) { event.descriptor = result == 0 ? ends[0] : -1; });
}

extern "C" pid_t fork() noexcept
{
    static const auto real = Faults::Real<pid_t()>("fork");
    const pid_t child = Run(
        Call::Fork, static_cast<pid_t>(-1), [] { return real(); }, [](Event&, pid_t) {});
    if (child == 0) {
        // The child is on its own.
        Faults::active = nullptr;
    }
    return child;
}

extern "C" int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* limit)
{
    Watch* const watch = Watch::Current();
    static const auto real = Faults::Real<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select");
    if (watch == nullptr) {
        return real(count, readable, writable, exceptional, limit);
    }
    const bool fails = watch->Fails(Call::Select);
    const int error = errno;
    const Pause pause;
    int result = 0;
    if (!fails) {
        result = real(count, readable, writable, exceptional, limit);
    } else {
        result = error == 0 ? 0 : -1;
        FD_ZERO(readable);
    }
    const int after = fails ? error : errno;
    Event event;
    event.call = Call::Select;
    event.succeeded = result > 0;
    watch->Record(std::move(event));
    errno = after;
    return result;
}

extern "C" pid_t waitpid(pid_t child, int* status, int options)
{
    static const auto real = Faults::Real<pid_t(pid_t, int*, int)>("waitpid");
    return Run(
        Call::WaitPid, static_cast<pid_t>(-1), [&] { return real(child, status, options); }, [](Event&, pid_t) {});
}

// The requests of the library: those of simhost.cpp give way to these.

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto real = [&] {
        return Faults::hostOfThread != nullptr
                   ? Faults::hostOfThread->Ioctl(descriptor, static_cast<unsigned>(request), argument)
                   : static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
    };
    return Run(Call::Ioctl, -1, real, [&](Event& event, int) {
        event.descriptor = descriptor;
        event.request = static_cast<unsigned>(request);
        event.text = Faults::active->PathOf(descriptor);
    });
}

extern "C" int system(const char* command)
{
    const auto real = [&] {
        return Faults::hostOfThread != nullptr ? Faults::hostOfThread->System(command)
                                               : Faults::Real<int(const char*)>("system")(command);
    };
    Watch* const watch = Watch::Current();
    if (watch == nullptr) {
        return real();
    }
    const bool fails = watch->Fails(Call::System);
    const int error = errno;
    const Pause pause;
    const int result = fails ? -1 : real();
    Event event;
    event.call = Call::System;
    event.succeeded = result == 0;
    event.text = command;
    watch->Record(std::move(event));
    errno = error;
    return result;
}

extern "C" unsigned sleep(unsigned seconds)
{
    const Pause pause;
    return Faults::hostOfThread != nullptr ? Faults::hostOfThread->Sleep(seconds)
                                           : Faults::Real<unsigned(unsigned)>("sleep")(seconds);
}

#ifdef FAULTS_OWN_MALLOC
extern "C" void* malloc(std::size_t size) noexcept
{
    Watch* const watch = Watch::Current();
    if (watch != nullptr && watch->Fails(Call::Malloc)) {
        return nullptr;
    }
    return __libc_malloc(size);
}
#endif

void* operator new(std::size_t size)
{
    void* const block = Faults::Allocate(size);
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
    return Faults::Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Faults::Allocate(size);
}

void operator delete(void* block) noexcept
{
    Faults::Release(block);
}

void operator delete[](void* block) noexcept
{
    Faults::Release(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    Faults::Release(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
    Faults::Release(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    Faults::Release(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    Faults::Release(block);
}
