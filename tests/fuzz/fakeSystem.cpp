#include "fakeSystem.h"

#include <fcntl.h>
#include <setjmp.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace Zendra {
namespace Fuzz {

namespace {

constexpr int processId = 424242;
thread_local FakeSystem* current = nullptr;

int Fail(int error)
{
    errno = error;
    return -1;
}

std::vector<std::string> Strings(char* const* array)
{
    std::vector<std::string> strings;
    for (; *array != nullptr; ++array) {
        strings.emplace_back(*array);
    }
    return strings;
}

/** Without a look at the shadow memory: between the variables of a stack lie poisoned bytes. */
void CopyStack(unsigned char* to, const unsigned char* from, std::size_t size)
{
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
}

}  // namespace

void Complete(Kernel::Node& node)
{
    constexpr std::int32_t version = 30536;
    if (!node.sgVersion) {
        node.sgVersion = Kernel::PlainAnswer{0, {version}, 0};
    }
    for (auto* plain : {&node.scsiId, &node.idLun, &node.busNumber}) {
        if (!*plain) {
            *plain = Kernel::PlainAnswer{ENOTTY, {}, 0};
        }
    }
    for (auto* sequence : {&node.inquiry, &node.serial, &node.ataIdentify, &node.nvmeIdentify}) {
        if (sequence->empty()) {
            sequence->emplace_back().failure = ENOTTY;
        }
        sequence->back().anyTimes = true;
    }
}

void StopFaking()
{
    current = nullptr;
    Kernel::AnswerThread(nullptr);
}

FakeSystem::FakeSystem(const Host& theHost)
    : MemoryHost(theHost, [](const std::string& what) { Fuzz::Require(false, what); }), children(theHost.children)
{
    Answers().AllowLongCommands();
    // The frames of everything that the caller calls lie below its own.
    stackEnd = static_cast<unsigned char*>(__builtin_frame_address(0));
    current = this;
}

FakeSystem::~FakeSystem()
{
    current = nullptr;
    ComplainOfOpenFiles();
}

ssize_t FakeSystem::Read(int number, void* buffer, std::size_t size)
{
    if (At(number, "read").kind != Kind::PipeRead) {
        return MemoryHost::Read(number, buffer, size);
    }
    std::string text;
    while (text.empty() && outputGiven < child.output.size()) {
        std::string& piece = child.output[outputGiven];
        text = piece.substr(0, size);
        piece.erase(0, text.size());
        if (piece.empty()) {
            ++outputGiven;
        }
    }
    std::copy(text.begin(), text.end(), static_cast<char*>(buffer));
    return static_cast<ssize_t>(text.size());
}

int FakeSystem::Pipe(int* ends, int flags)
{
    if (!children.empty()) {
        child = children[std::min(childrenStarted, children.size() - 1)];
    } else {
        child = Child();
    }
    ++childrenStarted;
    outputGiven = 0;
    if (child.pipeFails) {
        return Fail(EMFILE);
    }
    Descriptor descriptor;
    descriptor.closeOnExec = (flags & O_CLOEXEC) != 0;
    descriptor.kind = Kind::PipeRead;
    ends[0] = Add(descriptor);
    descriptor.kind = Kind::PipeWrite;
    ends[1] = Add(descriptor);
    return 0;
}

int FakeSystem::Fork(unsigned char* stack)
{
    Require(!inChild, "a child starts no child");
    if (child.forkFails) {
        // Nobody writes, and nobody but the caller holds the writing end.
        child.output.clear();
        child.end = Child::End::WaitFails;
        return Fail(EAGAIN);
    }
    stackStart = stack;
    stackCopy.resize(static_cast<std::size_t>(stackEnd - stackStart));
    CopyStack(stackCopy.data(), stackStart, stackCopy.size());
    parentsDescriptors = descriptors;
    inChild = true;
    return 0;
}

int FakeSystem::Duplicate(int from, int to)
{
    Require(inChild, "only a child changes where its output goes");
    Descriptor copy = At(from, "dup2");
    copy.closeOnExec = false;
    descriptors[to] = copy;
    return to;
}

int FakeSystem::ControlDescriptor(int number, int command, int argument)
{
    Descriptor& descriptor = At(number, "fcntl");
    if (command == F_GETFD) {
        return descriptor.closeOnExec ? FD_CLOEXEC : 0;
    }
    RequireEqual(command, F_DUPFD_CLOEXEC, "fcntl asks for flags, or for a copy that is close-on-exec");
    RequireEqual(argument, STDERR_FILENO + 1, "the copy leaves the standard descriptors alone");
    Descriptor copy = descriptor;
    copy.closeOnExec = true;
    return Add(copy);
}

int FakeSystem::Execute(const char* path, char* const* arguments, char* const* environment)
{
    Require(inChild, "only a child becomes another program");
    {
        Execution execution{path, Strings(arguments), std::nullopt};
        if (environment != nullptr) {
            execution.environment = Strings(environment);
        }
        executions.push_back(std::move(execution));
    }
    std::size_t inherited = 0;
    for (const auto& entry : descriptors) {
        inherited += entry.second.closeOnExec ? 0U : 1U;
    }
    RequireEqual(static_cast<std::int64_t>(inherited), 3, "a program inherits three descriptors");
    for (const int number : {STDOUT_FILENO, STDERR_FILENO}) {
        Require(At(number, "exec").kind == Kind::PipeWrite, "a program writes into the pipe");
    }
    if (child.execFailure != 0) {
        child.output.clear();
        return Fail(child.execFailure);
    }
    exitStatus = child.status;
    BecomeParent();
}

void FakeSystem::Exit(int code)
{
    Require(inChild, "only a child ends");
    exits.push_back(code);
    exitStatus = (code & 0xff) << 8;
    BecomeParent();
}

int FakeSystem::Select(int count, void* readable, void* writable, void* exceptional, const void* timeout)
{
    Require(writable == nullptr && exceptional == nullptr, "only input is waited for");
    fd_set pipe;
    FD_ZERO(&pipe);
    for (const auto& [number, descriptor] : descriptors) {
        if (descriptor.kind == Kind::PipeRead) {
            Require(number < count, "select looks as far as the pipe's number");
            FD_SET(number, &pipe);
        }
    }
    Require(std::memcmp(&pipe, readable, sizeof pipe) == 0, "the pipe's reading end is waited for, and nothing else");
    if (timeout != nullptr && static_cast<const timeval*>(timeout)->tv_sec < 0) {
        return Fail(EINVAL);
    }
    const bool hasOutput = std::any_of(child.output.begin() + static_cast<std::ptrdiff_t>(outputGiven),
                                       child.output.end(), [](const std::string& piece) { return !piece.empty(); });
    if (!hasOutput) {
        if (child.end == Child::End::SelectFails) {
            return Fail(EINTR);
        }
        if (child.end == Child::End::Silence && timeout != nullptr) {
            return 0;
        }
        for (const auto& entry : descriptors) {
            Require(entry.second.kind != Kind::PipeWrite,
                    "the pipe's writing end is closed before its end is waited for");
        }
    }
    return 1;
}

int FakeSystem::Wait(int process, int* status, int options)
{
    RequireEqual(options, 0, "options of waitpid");
    if (child.end == Child::End::WaitFails) {
        return Fail(ECHILD);
    }
    RequireEqual(process, processId, "the process that is waited for");
    *status = exitStatus;
    return processId;
}

void FakeSystem::PrintError(const char* text)
{
    Require(inChild, "only a child writes to standard error");
    Require(At(STDERR_FILENO, "perror").kind == Kind::PipeWrite, "the reason goes into the pipe");
    child.output.push_back(std::string(text) + ": " + std::strerror(errno) + "\n");
}

}  // namespace Fuzz
}  // namespace Zendra

using Zendra::Fuzz::current;

extern "C" {

/** Where the parent goes on. */
__attribute__((visibility("hidden"))) sigjmp_buf zendraFuzzForkPoint;

/** What fork() returns at once, or `pretend`. */
__attribute__((visibility("hidden"), used)) long zendraFuzzFork(unsigned char* stack)
{
    constexpr long pretend = 1L << 40;
    const int result = current != nullptr ? current->Fork(stack) : Kernel::Next<decltype(fork)>("fork")();
    return current != nullptr && result == 0 ? pretend : static_cast<long>(static_cast<unsigned>(result));
}
}

// fork(): with a fake system, setjmp() in the name of the caller, whose frame, unlike one of ours, still stands when
// the child has come to its end. It returns 0, to the child, and later what longjmp() is given, to the parent.
__asm__(R"(
    .text
    .globl fork
    .type fork, @function
fork:
    .cfi_startproc
    leaq 8(%rsp), %rdi
    subq $8, %rsp
    .cfi_adjust_cfa_offset 8
    call zendraFuzzFork
    addq $8, %rsp
    .cfi_adjust_cfa_offset -8
    btq $40, %rax
    jc 1f
    ret
1:  leaq zendraFuzzForkPoint(%rip), %rdi
    xorl %esi, %esi
    jmp __sigsetjmp@PLT
    .cfi_endproc
    .size fork, . - fork
)");

namespace Zendra {
namespace Fuzz {

void FakeSystem::BecomeParent()
{
    descriptors = parentsDescriptors;
    inChild = false;
    // The child may have used, for its own variables, room in which the parent keeps its.
    CopyStack(stackStart, stackCopy.data(), stackCopy.size());
    siglongjmp(zendraFuzzForkPoint, processId);
}

}  // namespace Fuzz
}  // namespace Zendra

// The calls of processes. The declarations are the system headers'.

extern "C" {

int pipe2(int* ends, int flags) noexcept
{
    return current != nullptr ? current->Pipe(ends, flags) : static_cast<int>(syscall(SYS_pipe2, ends, flags));
}

int dup2(int from, int to) noexcept
{
    return current != nullptr ? current->Duplicate(from, to) : static_cast<int>(syscall(SYS_dup2, from, to));
}

int fcntl(int descriptor, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return current != nullptr ? current->ControlDescriptor(descriptor, command, static_cast<int>(argument))
                              : static_cast<int>(syscall(SYS_fcntl, descriptor, command, argument));
}

int execvp(const char* path, char* const* arguments) noexcept
{
    return current != nullptr ? current->Execute(path, arguments, nullptr)
                              : Kernel::Next<decltype(execvp)>("execvp")(path, arguments);
}

int execve(const char* path, char* const* arguments, char* const* environment) noexcept
{
    return current != nullptr ? current->Execute(path, arguments, environment)
                              : static_cast<int>(syscall(SYS_execve, path, arguments, environment));
}

void _exit(int code)
{
    if (current != nullptr) {
        current->Exit(code);
    }
    for (;;) {
        syscall(SYS_exit_group, code);
    }
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    return current != nullptr ? current->Select(count, readable, writable, exceptional, timeout)
                              : static_cast<int>(syscall(SYS_select, count, readable, writable, exceptional, timeout));
}

pid_t waitpid(pid_t process, int* status, int options)
{
    return current != nullptr ? current->Wait(process, status, options)
                              : static_cast<pid_t>(syscall(SYS_wait4, process, status, options, nullptr));
}

void perror(const char* text)
{
    if (current != nullptr) {
        current->PrintError(text);
    } else {
        Kernel::Next<decltype(perror)>("perror")(text);
    }
}
}
