#include "support/systemCalls.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "kernel/systemCalls.h"
#include "support/allocations.h"

namespace ZendraTest {

namespace {

struct OpenScript {
    std::vector<std::string> names;
    std::size_t next = 0;
    dirent entry{};
};

// Real streams stand behind the scripted ones, so that whatever else is done with them stays defined.
std::map<DIR*, OpenScript>& OpenScripts()
{
    static std::map<DIR*, OpenScript> scripts;
    return scripts;
}

bool BeginsWith(const char* text, const char* beginning)
{
    return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

/** Where a program that counts its lines writes them; a child does so while the test's calls are in force. */
bool HoldsLineCounts(const std::string& path)
{
    const std::string ending = ".gcda";
    return path.size() > ending.size() && path.compare(path.size() - ending.size(), ending.size(), ending) == 0;
}

/** Asks the running test, and the system for what no test need provide. */
class Scripted : public Kernel::SystemCalls {
public:
    Scripted() { Kernel::AnswerProcess(this); }
    /** Files are closed behind the last test, too. */
    ~Scripted() override { Kernel::AnswerProcess(nullptr); }
    Scripted(const Scripted&) = delete;
    Scripted& operator=(const Scripted&) = delete;

    int System(const char* command) override
    {
        const Allocations::Pause pause;
        if (!Calls().onSystem) {
            ADD_FAILURE() << "unexpected shell command: " << (command != nullptr ? command : "(null)");
            return -1;
        }
        return Calls().onSystem(command);
    }

    unsigned Sleep(unsigned seconds) override
    {
        const Allocations::Pause pause;
        if (!Calls().onSleep) {
            ADD_FAILURE() << "unexpected sleep of " << seconds << " seconds";
            return 0;
        }
        Calls().onSleep(seconds);
        return 0;
    }

    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        const Allocations::Pause pause;
        if (Calls().onIoctl) {
            return Calls().onIoctl(descriptor, request, argument);
        }
        // The output of the test framework itself may ask its terminal.
        if (descriptor <= STDERR_FILENO) {
            return SystemCalls::Ioctl(descriptor, request, argument);
        }
        ADD_FAILURE() << "unexpected ioctl 0x" << std::hex << request;
        errno = ENOTTY;
        return -1;
    }

    int Open(const char* path, int flags, mode_t mode) override
    {
        const Allocations::Pause pause;
        if (Calls().onOpen && !HoldsLineCounts(path)) {
            return Calls().onOpen(path, flags);
        }
        if (BeginsWith(path, "/dev/")) {
            ADD_FAILURE() << "unexpected open of " << path;
            errno = ENOENT;
            return -1;
        }
        return SystemCalls::Open(path, flags, mode);
    }

    int Close(int descriptor) override
    {
        const Allocations::Pause pause;
        return Calls().onClose ? Calls().onClose(descriptor) : SystemCalls::Close(descriptor);
    }

    DIR* OpenDirectory(const char* path) override
    {
        const Allocations::Pause pause;
        std::string name = path;
        if (name.empty() || name.back() != '/') {
            name += '/';
        }
        const auto script = Calls().directories.find(name);
        if (script == Calls().directories.end()) {
            if (name == "/dev/" || name == "/sys/block/") {
                ADD_FAILURE() << "unexpected scan of " << name;
                errno = ENOENT;
                return nullptr;
            }
            return SystemCalls::OpenDirectory(path);
        }
        if (Calls().onOpenDirectory) {
            Calls().onOpenDirectory(name);
        }
        if (script->second.openError != 0) {
            errno = script->second.openError;
            return nullptr;
        }
        DIR* const stream = SystemCalls::OpenDirectory("/");
        if (stream != nullptr) {
            OpenScripts()[stream].names = script->second.names;
            ++Calls().directoriesOpened;
        }
        return stream;
    }

    dirent* ReadDirectory(DIR* stream) override
    {
        const Allocations::Pause pause;
        const auto open = OpenScripts().find(stream);
        if (open == OpenScripts().end()) {
            return SystemCalls::ReadDirectory(stream);
        }
        OpenScript& script = open->second;
        if (script.next == script.names.size()) {
            return nullptr;
        }
        const std::string& name = script.names[script.next++];
        script.entry = dirent{};
        script.entry.d_ino = static_cast<ino_t>(script.next);
        script.entry.d_reclen = sizeof script.entry;
        script.entry.d_type = DT_UNKNOWN;
        std::strncpy(script.entry.d_name, name.c_str(), sizeof script.entry.d_name - 1);
        return &script.entry;
    }

    int CloseDirectory(DIR* stream) override
    {
        const Allocations::Pause pause;
        if (OpenScripts().erase(stream) == 1) {
            ++Calls().directoriesClosed;
        }
        return SystemCalls::CloseDirectory(stream);
    }
};

Scripted scripted;

}  // namespace

SystemCalls& Calls()
{
    static SystemCalls calls;
    return calls;
}

void ResetCalls()
{
    Calls() = SystemCalls();
}

int RealOpen(const char* path, int flags)
{
    return scripted.Kernel::SystemCalls::Open(path, flags, 0);
}

int RealClose(int descriptor)
{
    return scripted.Kernel::SystemCalls::Close(descriptor);
}

int OpenDescriptors()
{
    int count = 0;
    DIR* stream = scripted.Kernel::SystemCalls::OpenDirectory("/proc/self/fd");
    if (stream == nullptr) {
        ADD_FAILURE() << "/proc/self/fd: " << std::strerror(errno);
        return -1;
    }
    while (const dirent* entry = scripted.Kernel::SystemCalls::ReadDirectory(stream)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    scripted.Kernel::SystemCalls::CloseDirectory(stream);
    return count - 1;
}

std::string PathOfDescriptor(int descriptor)
{
    char target[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

}  // namespace ZendraTest

extern "C" int execvp(const char* program, char* const arguments[]) noexcept
{
    if (!ZendraTest::Calls().onExecute) {
        return Kernel::Next<int(const char*, char* const*)>("execvp")(program, arguments);
    }
    std::vector<std::string> texts;
    for (char* const* argument = arguments; *argument != nullptr; ++argument) {
        texts.emplace_back(*argument);
    }
    ZendraTest::Calls().onExecute(program, texts);
    _exit(97);
}
