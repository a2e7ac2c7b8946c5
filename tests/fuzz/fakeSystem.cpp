#include "fakeSystem.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <setjmp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>

namespace Zendra {
namespace Fuzz {

namespace {

/** Away from the numbers that the process really uses, and within what select() can watch. */
constexpr int firstDescriptor = 600;
constexpr int processId = 424242;
constexpr std::size_t dataLimit = 255;
constexpr std::size_t senseLimit = 32;
constexpr std::size_t ataHeaderLength = 4;
constexpr std::size_t ataIdentifyLength = 512;
constexpr std::size_t nvmeIdentifyLength = 4096;
// <scsi/scsi.h> names them only for the kernel.
constexpr unsigned getIdLun = 0x5382;
constexpr unsigned getBusNumber = 0x5386;

thread_local FakeSystem* current = nullptr;

int Fail(int error)
{
    errno = error;
    return -1;
}

bool IsZero(const void* bytes, std::size_t size)
{
    const auto* first = static_cast<const unsigned char*>(bytes);
    return std::all_of(first, first + size, [](unsigned char byte) { return byte == 0; });
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

/** The next definition of a function of ours, which is the system's. */
template <class Function>
Function* Real(Function* /*ours*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

struct FakeSystem::Directory {
    std::vector<std::string> names;
    std::size_t next = 0;
    dirent entry{};
};

void StopFaking()
{
    current = nullptr;
}

FakeSystem::FakeSystem(const Host& theHost) : host(theHost), expectedSense(senseLimit), expectedData(dataLimit)
{
    Require(current == nullptr, "one fake system at a time");
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        descriptors[number] = Descriptor();
    }
    // The frames of everything that the caller calls lie below its own.
    stackEnd = static_cast<unsigned char*>(__builtin_frame_address(0));
    current = this;
}

FakeSystem::~FakeSystem()
{
    current = nullptr;
    RequireEqual(static_cast<std::int64_t>(descriptors.size()), 3, "every descriptor is closed");
    RequireEqual(static_cast<std::int64_t>(openDirectories), 0, "every directory is closed");
}

template <class Answer>
const Answer* FakeSystem::Next(const std::vector<Answer>& answers)
{
    if (answers.empty()) {
        return nullptr;
    }
    std::size_t& count = given[&answers];
    const Answer& answer = answers[std::min(count, answers.size() - 1)];
    ++count;
    return &answer;
}

int FakeSystem::Add(Descriptor descriptor)
{
    int number = firstDescriptor;
    while (descriptors.count(number) != 0) {
        ++number;
    }
    descriptors.emplace(number, std::move(descriptor));
    return number;
}

FakeSystem::Descriptor& FakeSystem::At(int descriptor, const char* call)
{
    const auto found = descriptors.find(descriptor);
    if (found == descriptors.end()) {
        Require(false,
                std::string(call) + " is called on a descriptor that is open, not on " + std::to_string(descriptor));
    }
    return found->second;
}

int FakeSystem::Open(const char* path, int flags)
{
    const std::string name = path;
    const std::string devices = "/dev/";
    const std::string blocks = "/sys/block/";
    if (name.compare(0, devices.size(), devices) == 0) {
        if (std::find(probed.begin(), probed.end(), name) == probed.end()) {
            probed.push_back(name);
        }
        Require(flags == (O_RDONLY | O_NONBLOCK), "a device file is opened read-only and non-blocking");
        for (const Device& device : host.dev) {
            if (device.name == name.substr(devices.size())) {
                Descriptor descriptor;
                descriptor.kind = Kind::Device;
                descriptor.device = &device;
                return device.openFailure != 0 ? Fail(device.openFailure) : Add(descriptor);
            }
        }
        return Fail(ENOENT);
    }
    Require(name.compare(0, blocks.size(), blocks) == 0, "nothing but device files and sysfs is opened: " + name);
    Require((flags & O_ACCMODE) == O_RDONLY, "a file is opened for reading only");
    for (const BlockEntry& entry : host.block) {
        for (const auto& [file, contents] :
             {std::make_pair("/device/firmware_rev", &entry.firmwareRev), std::make_pair("/device/rev", &entry.rev)}) {
            if (*contents && !host.blockAbsent && name == blocks + entry.name + file) {
                Descriptor descriptor;
                descriptor.kind = Kind::File;
                descriptor.contents = **contents;
                return Add(descriptor);
            }
        }
    }
    return Fail(ENOENT);
}

int FakeSystem::Close(int descriptor)
{
    At(descriptor, "close");
    descriptors.erase(descriptor);
    return 0;
}

long FakeSystem::Read(int number, void* buffer, std::size_t size)
{
    Descriptor& descriptor = At(number, "read");
    std::string text;
    if (descriptor.kind == Kind::File) {
        text = descriptor.contents.substr(descriptor.position, size);
        descriptor.position += text.size();
    } else {
        Require(descriptor.kind == Kind::PipeRead, "read is called on files and pipes");
        while (text.empty() && outputGiven < child.output.size()) {
            std::string& piece = child.output[outputGiven];
            text = piece.substr(0, size);
            piece.erase(0, text.size());
            if (piece.empty()) {
                ++outputGiven;
            }
        }
    }
    std::copy(text.begin(), text.end(), static_cast<char*>(buffer));
    return static_cast<long>(text.size());
}

int FakeSystem::Ioctl(int number, unsigned request, void* argument)
{
    Descriptor& descriptor = At(number, "ioctl");
    Require(descriptor.kind == Kind::Device, "ioctl is called on device files");
    const Device& device = *descriptor.device;
    const auto answerPlain = [&](const PlainAnswer* answer, std::size_t size) {
        Require(IsZero(argument, size), "an ioctl's argument is zero before it is called");
        if (answer == nullptr || answer->failure != 0) {
            return Fail(answer == nullptr ? ENOTTY : answer->failure);
        }
        std::copy_n(answer->data.begin(), std::min(size, answer->data.size()), static_cast<unsigned char*>(argument));
        return 0;
    };
    switch (request) {
    case SG_GET_VERSION_NUM:
        // A new command, with buffers of its own.
        expectedSense.assign(senseLimit, 0);
        expectedData.assign(dataLimit, 0);
        return answerPlain(&device.version, sizeof(int));
    case SG_GET_SCSI_ID:
        return answerPlain(&device.scsiId, sizeof(sg_scsi_id));
    case getIdLun:
        return answerPlain(&device.idLun, 2 * sizeof(int));
    case getBusNumber:
        return answerPlain(&device.busNumber, sizeof(int));
    case SG_IO:
        return Scsi(device, argument);
    case HDIO_DRIVE_CMD: {
        auto* buffer = static_cast<unsigned char*>(argument);
        const Bytes identify = {0xec, 0, 0, 1};
        Require(std::equal(identify.begin(), identify.end(), buffer), "IDENTIFY DEVICE is the only ATA command");
        argument = buffer + ataHeaderLength;
        const int result = answerPlain(Next(device.ataIdentify), ataIdentifyLength);
        if (result == 0) {
            const Bytes finished = {0x50, 0, 0, 0};
            std::copy(finished.begin(), finished.end(), buffer);
        }
        return result;
    }
    case NVME_IOCTL_ADMIN_CMD: {
        nvme_admin_cmd command{};
        std::memcpy(&command, argument, sizeof command);
        nvme_admin_cmd required{};
        required.opcode = 0x06;
        required.addr = command.addr;
        required.data_len = nvmeIdentifyLength;
        required.cdw10 = 1;
        Require(command.addr != 0 && std::memcmp(&command, &required, sizeof command) == 0,
                "Identify Controller is the only NVMe command");
        argument = reinterpret_cast<void*>(static_cast<std::uintptr_t>(command.addr));
        return answerPlain(Next(device.nvmeIdentify), nvmeIdentifyLength);
    }
    default:
        Require(false, "ioctl " + std::to_string(request) + " is none that the library needs");
        return -1;
    }
}

int FakeSystem::Scsi(const Device& device, void* argument)
{
    ++scsiCommands;
    auto& header = *static_cast<sg_io_hdr*>(argument);
    Require(header.interface_id == 'S' && header.dxfer_direction == SG_DXFER_FROM_DEV && header.cmdp != nullptr &&
                (header.cmd_len == 6 || header.cmd_len == 10) && header.mx_sb_len == senseLimit &&
                header.iovec_count == 0 && header.dxfer_len == dataLimit && header.dxferp != nullptr &&
                header.sbp != nullptr && header.timeout == 20000 && header.flags == 0 && header.pack_id == 0 &&
                header.usr_ptr == nullptr,
            "the SG_IO header asks for 255 bytes of data and 32 of sense within 20 seconds");
    Require(header.status == 0 && header.masked_status == 0 && header.msg_status == 0 && header.sb_len_wr == 0 &&
                header.host_status == 0 && header.driver_status == 0 && header.resid == 0 && header.duration == 0 &&
                header.info == 0,
            "the answer's part of the SG_IO header is zero before it is sent");
    Require(header.cmdp[7] == 0x00 && header.cmdp[8] == 0xff, "bytes 7 and 8 of a command are 00 and ff");
    auto* data = static_cast<unsigned char*>(header.dxferp);
    Require(std::equal(expectedSense.begin(), expectedSense.end(), header.sbp),
            "the sense buffer is zero at first and is left alone between attempts");
    Require(std::equal(expectedData.begin(), expectedData.end(), data),
            "the data buffer is zero at first and is left alone between attempts");

    const Bytes inquiry = {0x12, 0x00, 0x00, 0x00, 0x80, 0x00};
    const Bytes serial = {0x12, 0x01, 0x80, 0x00, 0xff, 0x00};
    const bool isSerial = std::equal(serial.begin(), serial.end(), header.cmdp);
    Require(isSerial || header.cmd_len == 10 || std::equal(inquiry.begin(), inquiry.end(), header.cmdp),
            "INQUIRY, with or without the serial number page, is the only 6-byte command");
    const ScsiAnswer* answer = Next(isSerial ? device.serial : device.inquiry);
    if (answer == nullptr || answer->failure != 0) {
        return Fail(answer == nullptr ? ENOTTY : answer->failure);
    }
    const std::size_t dataLength = std::min(answer->data.size(), dataLimit);
    std::copy_n(answer->data.begin(), dataLength, data);
    std::copy_n(answer->data.begin(), dataLength, expectedData.begin());
    const std::size_t senseLength = std::min(answer->sense.size(), senseLimit);
    std::copy_n(answer->sense.begin(), senseLength, header.sbp);
    std::copy_n(answer->sense.begin(), senseLength, expectedSense.begin());
    header.info = answer->info;
    header.status = answer->status;
    header.masked_status = answer->maskedStatus;
    header.sb_len_wr = answer->senseLengthWritten;
    header.host_status = answer->hostStatus;
    header.driver_status = answer->driverStatus;
    header.resid = static_cast<int>(dataLimit - dataLength);
    return 0;
}

void* FakeSystem::OpenDirectory(const char* path)
{
    const std::string name = path;
    const bool isDev = name == "/dev/" || name == "/dev";
    Require(isDev || name == "/sys/block/" || name == "/sys/block", "only /dev and /sys/block are listed: " + name);
    if (isDev ? host.devUnreadable : host.blockAbsent) {
        errno = isDev ? EACCES : ENOENT;
        return nullptr;
    }
    auto* directory = new Directory;
    directory->names = {".", ".."};
    if (isDev) {
        for (const Device& device : host.dev) {
            directory->names.push_back(device.name);
        }
    } else {
        for (const BlockEntry& entry : host.block) {
            directory->names.push_back(entry.name);
        }
    }
    ++openDirectories;
    return directory;
}

void* FakeSystem::ReadDirectory(void* opened)
{
    auto* directory = static_cast<Directory*>(opened);
    if (directory->next == directory->names.size()) {
        return nullptr;
    }
    const std::string& name = directory->names[directory->next++];
    // Behind the name lies what the one before has left, as in a real stream.
    std::copy_n(name.c_str(), name.size() + 1, directory->entry.d_name);
    return &directory->entry;
}

int FakeSystem::CloseDirectory(void* opened)
{
    Require(openDirectories > 0, "a directory is closed once");
    --openDirectories;
    delete static_cast<Directory*>(opened);
    return 0;
}

int FakeSystem::System(const char* command)
{
    RequireEqual(command, "modprobe sg >/dev/null 2>&1", "the only command for the shell");
    // A new proxy, to which every device answers from the beginning.
    given.clear();
    return host.modprobeStatus;
}

void FakeSystem::Sleep(unsigned seconds)
{
    RequireEqual(seconds, 5, "seconds between two attempts");
    ++sleeps;
}

int FakeSystem::Pipe(int* ends, int flags)
{
    if (!host.children.empty()) {
        child = host.children[std::min(childrenStarted, host.children.size() - 1)];
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
    Require(command == F_SETFD, "fcntl sets flags of descriptors only");
    At(number, "fcntl").closeOnExec = (argument & FD_CLOEXEC) != 0;
    return 0;
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
    const int result = current != nullptr ? current->Fork(stack) : Zendra::Fuzz::Real(&fork, "fork")();
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

// The calls that are taken from the library. The declarations are the system headers'.

extern "C" {

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return current != nullptr ? current->Open(path, flags)
                              : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int close(int descriptor)
{
    return current != nullptr ? current->Close(descriptor) : static_cast<int>(syscall(SYS_close, descriptor));
}

ssize_t read(int descriptor, void* buffer, size_t size)
{
    return current != nullptr ? current->Read(descriptor, buffer, size) : syscall(SYS_read, descriptor, buffer, size);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return current != nullptr ? current->Ioctl(descriptor, static_cast<unsigned>(request), argument)
                              : static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

DIR* opendir(const char* path)
{
    return current != nullptr ? static_cast<DIR*>(current->OpenDirectory(path))
                              : Zendra::Fuzz::Real(&opendir, "opendir")(path);
}

dirent* readdir(DIR* directory)
{
    return current != nullptr ? static_cast<dirent*>(current->ReadDirectory(directory))
                              : Zendra::Fuzz::Real(&readdir, "readdir")(directory);
}

int closedir(DIR* directory)
{
    return current != nullptr ? current->CloseDirectory(directory)
                              : Zendra::Fuzz::Real(&closedir, "closedir")(directory);
}

int system(const char* command)
{
    return current != nullptr ? current->System(command) : Zendra::Fuzz::Real(&system, "system")(command);
}

unsigned sleep(unsigned seconds)
{
    if (current == nullptr) {
        return Zendra::Fuzz::Real(&sleep, "sleep")(seconds);
    }
    current->Sleep(seconds);
    return 0;
}

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
                              : Zendra::Fuzz::Real(&execvp, "execvp")(path, arguments);
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
        Zendra::Fuzz::Real(&perror, "perror")(text);
    }
}
}
