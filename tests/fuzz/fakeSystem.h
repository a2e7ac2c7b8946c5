/**
 * @file
 * @brief A host in memory that answers the library's system calls.
 *
 * kernel/memoryHost.h answers for device files and directories; this plays the processes that the library starts. The
 * program that links it defines `fork`, `pipe2`, `dup2`, `fcntl`, the functions of exec, `_exit`, `select`, `waitpid`
 * and `perror` as well. While a FakeSystem exists in their thread these calls come here; at other times, and in other
 * threads, they go to the system. Nothing is forked and nobody sleeps.
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
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "check.h"
#include "kernel/memoryHost.h"

namespace Zendra {
namespace Fuzz {

/**
 * Gives a device file an answer to everything: the last answer of a sequence again and again, the version of the driver
 * in today's kernels, and otherwise an error.
 */
void Complete(Kernel::Node& node);

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

struct Host : Kernel::Host {
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
class FakeSystem : public Kernel::MemoryHost {
public:
    /** `theHost` must outlive this. */
    explicit FakeSystem(const Host& theHost);

    /** Requires that no descriptor and no directory is left open. */
    ~FakeSystem() override;

    std::vector<Execution> executions;
    /** Exit codes of children that did not become another program. */
    std::vector<int> exits;

    // What the system calls do while this exists. Failing ones set errno and return what the real ones do.
    ssize_t Read(int descriptor, void* buffer, std::size_t size) override;
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
    [[noreturn]] void BecomeParent();

    const std::vector<Child>& children;
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
