/**
 * @file
 * @brief Stands between the library and the system: records its calls, fails the ones it is told to fail.
 *
 * It answers the calls that kernel/systemCalls.h takes, and the program that links watch.cpp defines fopen, pipe2,
 * fork, select, waitpid and the allocation functions besides, so that a shared library's calls come here. While a Watch
 * lives, the calls of its thread are counted, recorded, and failed as asked; calls that the test's own code makes
 * meanwhile (the simulated host, a log sink) are let through under a Pause.
 */
#ifndef ZENDRA_TESTS_FAULTS_WATCH_H
#define ZENDRA_TESTS_FAULTS_WATCH_H

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "simhost.h"

namespace Faults {

/** What can be made to fail. FileStream is fopen, New operator new, Malloc any other malloc (opendir's, say). */
enum class Call {
    Open,
    Close,
    Ioctl,
    OpenDir,
    ReadDir,
    CloseDir,
    FileStream,
    Read,
    Pipe,
    Fork,
    Select,
    WaitPid,
    System,
    New,
    Malloc
};

constexpr std::size_t callKinds = static_cast<std::size_t>(Call::Malloc) + 1;

const char* NameOf(Call call);

/** All kinds, in the order of the enumeration. */
const std::array<Call, callKinds>& AllCalls();

/** Whether this build can fail mallocs: not where a sanitizer has its own. */
bool CanFailMalloc();

/** What is to fail. */
struct Fault {
    Call call = Call::Open;
    /** The first call of the kind is 1. */
    unsigned long number = 1;
    /** errno; for Select 0 means that the time runs out. */
    int error = 0;
    /** Not only that call, but also all of the kind that follow it. */
    bool fromThenOn = false;
};

/** One call that the library has made. */
struct Event {
    Call call = Call::Open;
    bool succeeded = false;
    /** Whether it was made to fail. */
    bool injected = false;
    /** What the call was about, or has made; -1 where there is none. */
    int descriptor = -1;
    /** Of Ioctl. */
    unsigned request = 0;
    /** The path; of ReadDir the name, empty at the end; of Read the bytes. */
    std::string text;
};

/** One block that operator new has given and that nobody has given back. */
struct Block {
    std::size_t size = 0;
    /** Which allocation of the watch it was, beginning with 1. */
    unsigned long number = 0;
};

/** Counts, records and fails the calls of this thread while it lives. One at a time. */
class Watch {
public:
    explicit Watch(const std::optional<Fault>& what = std::nullopt);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /** Counts no more; what was counted stays. */
    void Stop();

    /** Every call but the allocations, in order. */
    const std::vector<Event>& Trace() const { return trace; }

    unsigned long CountOf(Call call) const { return counts[static_cast<std::size_t>(call)]; }

    /** How many calls were failed. */
    unsigned long Injected() const { return injected; }

    /** Calls that nobody may make, such as closing what is not open. */
    const std::vector<std::string>& Misuses() const { return misuses; }

    /** How many allocations had been made before each call of system(). */
    const std::vector<unsigned long>& NewsBeforeSystem() const { return newsBeforeSystem; }

    /** How many allocations had been made when that one was given back; 0 while it was not. */
    unsigned long NewsBeforeDelete(unsigned long number) const;

    // For the definitions in watch.cpp.

    /** The one that counts now, or null. */
    static Watch* Current();
    /** Whether this call, which is counted here, has to fail; sets errno then. */
    bool Fails(Call call);
    void Record(Event event);
    void Misuse(const std::string& what);
    void Opened(int descriptor, const char* path);
    void Closed(int descriptor);
    std::string PathOf(int descriptor) const;
    void Deleted(unsigned long number);

private:
    std::optional<Fault> fault;
    std::vector<Event> trace;
    std::array<unsigned long, callKinds> counts{};
    unsigned long injected = 0;
    std::vector<std::string> misuses;
    std::vector<unsigned long> newsBeforeSystem;
    std::vector<unsigned long> newsBeforeDelete;
    std::map<int, std::string> paths;
    /** Who answered this thread before. */
    Kernel::SystemCalls* before = nullptr;
};

/** The calls of this thread are the test's own while this lives. */
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

/** The host that answers this thread's requests; null for none. */
void SetHost(SimHost::MountedHost* host);

/** The blocks that were allocated under a Watch of this thread and are still there, oldest first. */
std::vector<Block> LiveBlocks();

/** Gives all of them back. */
void FreeLiveBlocks();

/** The descriptors of this process and what they lead to. */
std::map<int, std::string> OpenDescriptors();

}  // namespace Faults

#endif
