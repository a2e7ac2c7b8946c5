#include "watch.h"

#include <dirent.h>
#include <sys/select.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "kernel/operatorNew.h"

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

FILE* OpenStreamWith(FILE* (*real)(const char*, const char*), const char* path, const char* mode)
{
    return Run(
        Call::FileStream, static_cast<FILE*>(nullptr), [&] { return real(path, mode); },
        [&](Event& event, const FILE*) { event.text = path; });
}

/** Stands in front of the host, or of the system where there is none. */
class Watched : public Kernel::SystemCalls {
public:
    int Open(const char* path, int flags, mode_t mode) override
    {
        return Run(
            Call::Open, -1, [&] { return SystemCalls::Open(path, flags, mode); },
            [&](Event& event, int result) {
                event.text = path;
                event.descriptor = result;
                if (result >= 0) {
                    active->Opened(result, path);
                }
            });
    }

    // Like the kernel's, a close that fails has closed the descriptor all the same.
    int Close(int descriptor) override
    {
        return RunAnyway(
            Call::Close, [&] { return SystemCalls::Close(descriptor); }, "closes a descriptor that is not open",
            [&](Event& event) {
                event.descriptor = descriptor;
                event.text = active->PathOf(descriptor);
                active->Closed(descriptor);
            });
    }

    DIR* OpenDirectory(const char* path) override
    {
        // Not under a pause, which would hide the malloc in it.
        Watch* const watch = Watch::Current();
        if (watch == nullptr) {
            return SystemCalls::OpenDirectory(path);
        }
        DIR* const directory = watch->Fails(Call::OpenDir) ? nullptr : SystemCalls::OpenDirectory(path);
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

    dirent* ReadDirectory(DIR* directory) override
    {
        return Run(
            Call::ReadDir, static_cast<dirent*>(nullptr), [&] { return SystemCalls::ReadDirectory(directory); },
            [&](Event& event, const dirent* entry) { event.text = entry != nullptr ? entry->d_name : ""; });
    }

    int CloseDirectory(DIR* directory) override
    {
        return RunAnyway(
            Call::CloseDir, [&] { return SystemCalls::CloseDirectory(directory); },
            "closes a directory that is not open", [](Event&) {});
    }

    ssize_t Read(int descriptor, void* buffer, std::size_t size) override
    {
        return Run(
            Call::Read, static_cast<ssize_t>(-1), [&] { return SystemCalls::Read(descriptor, buffer, size); },
            [&](Event& event, ssize_t result) {
                event.descriptor = descriptor;
                if (result > 0) {
                    event.text.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(result));
                }
            });
    }

    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        return Run(
            Call::Ioctl, -1,
            [&] {
                return hostOfThread != nullptr ? hostOfThread->Ioctl(descriptor, request, argument)
                                               : SystemCalls::Ioctl(descriptor, request, argument);
            },
            [&](Event& event, int) {
                event.descriptor = descriptor;
                event.request = request;
                event.text = active->PathOf(descriptor);
            });
    }

    int System(const char* command) override
    {
        const auto real = [&] {
            return hostOfThread != nullptr ? hostOfThread->System(command) : SystemCalls::System(command);
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

    unsigned Sleep(unsigned seconds) override
    {
        const Pause pause;
        return hostOfThread != nullptr ? hostOfThread->Sleep(seconds) : SystemCalls::Sleep(seconds);
    }

private:
    /** What is made to fail happens all the same; that it really fails is a misuse. */
    template <class RealCall, class Describe>
    static int RunAnyway(Call call, RealCall real, const char* misuse, Describe describe)
    {
        Watch* const watch = Watch::Current();
        if (watch == nullptr) {
            return real();
        }
        const bool fails = watch->Fails(call);
        const int error = errno;
        const Pause pause;
        const int result = real();
        const int after = fails ? error : errno;
        if (result != 0) {
            watch->Misuse(misuse);
        }
        Event event;
        event.call = call;
        event.succeeded = !fails;
        describe(event);
        watch->Record(std::move(event));
        errno = after;
        return fails ? -1 : result;
    }
};

Watched watched;

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
    before = Kernel::AnswerThread(&watched);
}

Watch::~Watch()
{
    Stop();
}

void Watch::Stop()
{
    if (active == this) {
        active = nullptr;
        Kernel::AnswerThread(before);
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

extern "C" FILE* fopen(const char* path, const char* mode)
{
    static const auto real = Kernel::Next<FILE*(const char*, const char*)>("fopen");
    return Faults::OpenStreamWith(real, path, mode);
}

extern "C" FILE* fopen64(const char* path, const char* mode)
{
    static const auto real = Kernel::Next<FILE*(const char*, const char*)>("fopen64");
    return Faults::OpenStreamWith(real, path, mode);
}

extern "C" int pipe2(int* ends, int flags) noexcept
{
    static const auto real = Kernel::Next<int(int*, int)>("pipe2");
    return Run(
        Call::Pipe, -1, [&] { return real(ends, flags); },
        [&](Event& event, int result) { event.descriptor = result == 0 ? ends[0] : -1; });
}

extern "C" pid_t fork() noexcept
{
    static const auto real = Kernel::Next<pid_t()>("fork");
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
    static const auto real = Kernel::Next<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select");
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
    static const auto real = Kernel::Next<pid_t(pid_t, int*, int)>("waitpid");
    return Run(
        Call::WaitPid, static_cast<pid_t>(-1), [&] { return real(child, status, options); }, [](Event&, pid_t) {});
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

void* Kernel::Allocate(std::size_t size)
{
    Watch* const watch = Watch::Current();
    if (watch != nullptr && watch->Fails(Call::New)) {
        return nullptr;
    }
    auto* const header = static_cast<Faults::Header*>(Faults::RealMalloc(sizeof(Faults::Header) + size));
    if (header == nullptr) {
        return nullptr;
    }
    *header = Faults::Header{nullptr, nullptr, size, 0};
    if (watch != nullptr) {
        header->number = watch->CountOf(Call::New);
        Faults::Header& head = Faults::Ring();
        header->previous = head.previous;
        header->next = &head;
        head.previous->next = header;
        head.previous = header;
    }
    return header + 1;
}

void Kernel::Release(void* block) noexcept
{
    if (block == nullptr) {
        return;
    }
    Faults::Header* const header = static_cast<Faults::Header*>(block) - 1;
    if (header->next != nullptr) {
        Faults::Unlink(*header);
        if (Faults::active != nullptr) {
            Faults::active->Deleted(header->number);
        }
    }
    std::free(header);
}
