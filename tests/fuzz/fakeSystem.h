/**
 * @file
 * @brief A host in memory that answers the library's system calls.
 *
 * The program that links this defines `open`, `ioctl`, `opendir`, `fork` and whatever else the library asks the
 * system for, so that a shared library's calls come here while a FakeSystem exists in their thread; at other times,
 * and in other threads, they go to the system. Nothing is mounted, nothing is forked and nobody sleeps, so that a
 * whole host takes microseconds.
 *
 * The fake is strict: a request that is not as the device file operator has to send it, a descriptor closed twice, one
 * left open or one that was never opened ends the process (check.h).
 *
 * A process that the library starts runs its own code between fork and exec on the parent's stack, which is put back
 * afterwards: `fork` returns twice, first as the child, then, when the child has reached exec or _exit, as the parent.
 */
#ifndef ZENDRA_TESTS_FUZZ_FAKESYSTEM_H
#define ZENDRA_TESTS_FUZZ_FAKESYSTEM_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "check.h"

namespace Zendra {
namespace Fuzz {

/** An answer to SG_IO. Nothing follows from anything else: a driver may lie about all of it. */
struct ScsiAnswer {
    /** The errno of an SG_IO that fails and writes nothing; 0: it succeeds. */
    int failure = 0;
    std::uint8_t info = 0;
    std::uint8_t status = 0;
    std::uint8_t maskedStatus = 0;
    std::uint8_t senseLengthWritten = 0;
    std::uint16_t hostStatus = 0;
    std::uint16_t driverStatus = 0;
    /** At most 32 bytes reach the sense buffer. */
    Bytes sense;
    /** At most 255 bytes reach the data buffer. */
    Bytes data;
};

/** An answer to any other ioctl: what it writes over its argument. */
struct PlainAnswer {
    /** The errno of an ioctl that fails and writes nothing; 0: it succeeds. */
    int failure = 0;
    Bytes data;
};

/** One device file. The last answer of a sequence is given again and again; an empty one fails with ENOTTY. */
struct Device {
    std::string name;
    /** The errno of open; 0: it can be opened. */
    int openFailure = 0;
    PlainAnswer version{0, {0x48, 0x77, 0, 0}};  // 30536, of the driver in today's kernels
    PlainAnswer scsiId{25, {}};
    PlainAnswer idLun{25, {}};
    PlainAnswer busNumber{25, {}};
    std::vector<ScsiAnswer> inquiry;
    std::vector<ScsiAnswer> serial;
    /** 512 bytes behind the header. */
    std::vector<PlainAnswer> ataIdentify;
    /** 4096 bytes. */
    std::vector<PlainAnswer> nvmeIdentify;
};

/** One entry of /sys/block. */
struct BlockEntry {
    std::string name;
    std::optional<std::string> firmwareRev;
    std::optional<std::string> rev;
};

/** How a process that the library starts goes. */
struct Child {
    bool pipeFails = false;
    bool forkFails = false;
    /** The errno of an exec that fails; 0: the program runs. */
    int execFailure = 0;
    /** What the program writes; one piece is what one read sees, cut at what the reader asks for. */
    std::vector<std::string> output;
    enum class End { Normal, Silence, SelectFails, WaitFails };
    /** What comes behind the output: its end, silence for as long as the reader waits, or a failing system call. */
    End end = End::Normal;
    /** The status word of a program that ran, as waitpid has it. */
    int status = 0;
};

struct Host {
    /** What loading the sg module answers. */
    int modprobeStatus = 0;
    bool devUnreadable = false;
    std::vector<Device> dev;
    bool blockAbsent = false;
    std::vector<BlockEntry> block;
    /** Answers in this order; the last one again and again. */
    std::vector<Child> children;
};

/** A program that was to be run. */
struct Execution {
    std::string path;
    std::vector<std::string> arguments;
    /** Of execve only. */
    std::optional<std::vector<std::string>> environment;
};

/** From here on this thread's calls go to the system. For reports; the FakeSystem is of no use afterwards. */
void StopFaking();

/** Takes the calls of this thread until it is destroyed. One at a time. */
class FakeSystem {
public:
    /** `host` must outlive this. */
    explicit FakeSystem(const Host& host);

    /** Requires that no descriptor and no directory is left open. */
    ~FakeSystem();

    FakeSystem(const FakeSystem&) = delete;
    FakeSystem& operator=(const FakeSystem&) = delete;

    /** The device files that were opened, in the order of the first attempt, each once. */
    std::vector<std::string> probed;
    std::vector<Execution> executions;
    /** Exit codes of children that did not become another program. */
    std::vector<int> exits;
    unsigned sleeps = 0;
    unsigned scsiCommands = 0;

    // What the system calls do while this exists. Failing ones set errno and return what the real ones do.
    int Open(const char* path, int flags);
    int Close(int descriptor);
    long Read(int descriptor, void* buffer, std::size_t size);
    int Ioctl(int descriptor, unsigned request, void* argument);
    void* OpenDirectory(const char* path);
    void* ReadDirectory(void* directory);
    int CloseDirectory(void* directory);
    int System(const char* command);
    void Sleep(unsigned seconds);
    int Pipe(int* ends, int flags);
    int Fork(unsigned char* stack);
    int Duplicate(int from, int to);
    int ControlDescriptor(int descriptor, int command, int argument);
    int Execute(const char* path, char* const* arguments, char* const* environment);
    [[noreturn]] void Exit(int code);
    int Select(int count, void* readable, void* writable, void* exceptional, const void* timeout);
    int Wait(int process, int* status, int options);
    void PrintError(const char* text);

private:
    enum class Kind { Terminal, Device, File, PipeRead, PipeWrite };
    struct Descriptor {
        Kind kind = Kind::Terminal;
        const Device* device = nullptr;
        std::string contents;
        std::size_t position = 0;
        bool closeOnExec = false;
    };
    struct Directory;

    int Add(Descriptor descriptor);
    Descriptor& At(int descriptor, const char* call);
    int Scsi(const Device& device, void* argument);
    [[noreturn]] void BecomeParent();

    template <class Answer>
    const Answer* Next(const std::vector<Answer>& answers);

    const Host& host;
    std::map<int, Descriptor> descriptors;
    std::size_t openDirectories = 0;
    /** How many answers of a sequence were given since the last proxy was made. */
    std::map<const void*, std::size_t> given;
    Bytes expectedSense;
    Bytes expectedData;

    std::size_t childrenStarted = 0;
    Child child;
    bool inChild = false;
    std::size_t outputGiven = 0;
    int exitStatus = 0;
    std::map<int, Descriptor> parentsDescriptors;
    unsigned char* stackStart = nullptr;
    unsigned char* stackEnd = nullptr;
    Bytes stackCopy;
};

}  // namespace Fuzz
}  // namespace Zendra

#endif
