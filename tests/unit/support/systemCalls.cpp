#include "support/systemCalls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

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

template <class Function>
Function* Next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
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

int OpenWith(const char* name, const char* path, int flags, mode_t mode)
{
    const Allocations::Pause pause;
    SystemCalls& calls = Calls();
    if (calls.onOpen && !HoldsLineCounts(path)) {
        return calls.onOpen(path, flags);
    }
    if (BeginsWith(path, "/dev/")) {
        ADD_FAILURE() << "unexpected open of " << path;
        errno = ENOENT;
        return -1;
    }
    return Next<int(const char*, int, ...)>(name)(path, flags, mode);
}

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
    return Next<int(const char*, int, ...)>("open")(path, flags, 0);
}

int RealClose(int descriptor)
{
    return Next<int(int)>("close")(descriptor);
}

int OpenDescriptors()
{
    int count = 0;
    DIR* stream = Next<DIR*(const char*)>("opendir")("/proc/self/fd");
    if (stream == nullptr) {
        ADD_FAILURE() << "/proc/self/fd: " << std::strerror(errno);
        return -1;
    }
    while (const dirent* entry = Next<dirent*(DIR*)>("readdir")(stream)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    Next<int(DIR*)>("closedir")(stream);
    return count - 1;
}

std::string PathOfDescriptor(int descriptor)
{
    char target[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

}  // namespace ZendraTest

using ZendraTest::Calls;
using ZendraTest::Next;
using ZendraTest::Allocations::Pause;

extern "C" {

int system(const char* command)
{
    const Pause pause;
    if (!Calls().onSystem) {
        ADD_FAILURE() << "unexpected shell command: " << (command != nullptr ? command : "(null)");
        return -1;
    }
    return Calls().onSystem(command);
}

unsigned int sleep(unsigned int seconds)
{
    const Pause pause;
    if (!Calls().onSleep) {
        ADD_FAILURE() << "unexpected sleep of " << seconds << " seconds";
        return 0;
    }
    Calls().onSleep(seconds);
    return 0;
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    const Pause pause;
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!Calls().onIoctl) {
        // The output of the test framework itself may ask its terminal.
        if (descriptor <= STDERR_FILENO) {
            return ZendraTest::Next<int(int, unsigned long, ...)>("ioctl")(descriptor, request, argument);
        }
        ADD_FAILURE() << "unexpected ioctl 0x" << std::hex << request;
        errno = ENOTTY;
        return -1;
    }
    return Calls().onIoctl(descriptor, static_cast<unsigned>(request), argument);
}

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return ZendraTest::OpenWith("open", path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return ZendraTest::OpenWith("open64", path, flags, mode);
}

int close(int descriptor)
{
    const Pause pause;
    return Calls().onClose ? Calls().onClose(descriptor) : ZendraTest::RealClose(descriptor);
}

int execvp(const char* program, char* const arguments[]) noexcept
{
    if (!Calls().onExecute) {
        return Next<int(const char*, char* const*)>("execvp")(program, arguments);
    }
    std::vector<std::string> texts;
    for (char* const* argument = arguments; *argument != nullptr; ++argument) {
        texts.emplace_back(*argument);
    }
    Calls().onExecute(program, texts);
    _exit(97);
}

DIR* opendir(const char* path)
{
    const Pause pause;
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
        return Next<DIR*(const char*)>("opendir")(path);
    }
    if (Calls().onOpenDirectory) {
        Calls().onOpenDirectory(name);
    }
    if (script->second.openError != 0) {
        errno = script->second.openError;
        return nullptr;
    }
    DIR* const stream = Next<DIR*(const char*)>("opendir")("/");
    if (stream == nullptr) {
        return nullptr;
    }
    ZendraTest::OpenScripts()[stream].names = script->second.names;
    ++Calls().directoriesOpened;
    return stream;
}

dirent* readdir(DIR* stream)
{
    const Pause pause;
    const auto open = ZendraTest::OpenScripts().find(stream);
    if (open == ZendraTest::OpenScripts().end()) {
        return Next<dirent*(DIR*)>("readdir")(stream);
    }
    ZendraTest::OpenScript& script = open->second;
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

dirent64* readdir64(DIR* stream)
{
    if (ZendraTest::OpenScripts().count(stream) == 0) {
        return Next<dirent64*(DIR*)>("readdir64")(stream);
    }
    static_assert(sizeof(dirent) == sizeof(dirent64));
    return reinterpret_cast<dirent64*>(readdir(stream));
}

int closedir(DIR* stream)
{
    const Pause pause;
    if (ZendraTest::OpenScripts().erase(stream) == 1) {
        ++Calls().directoriesClosed;
    }
    return Next<int(DIR*)>("closedir")(stream);
}

}  // extern "C"
