/**
 * @file
 * @brief The process whose standard error the tests of the default sink watch: does what its argument names.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/logger/log.h"

namespace {

using Zendra::Log;

void Write(const std::string& message)
{
    Log(4, "src/child.cpp", 7).Stream() << message;
}

int Redirect(const char* path)
{
    const int target = open(path, O_WRONLY);
    return target >= 0 && dup2(target, STDERR_FILENO) == STDERR_FILENO && close(target) == 0 ? 0 : 1;
}

int Plain(const char*)
{
    Write("first");
    Write("second");
    return 0;
}

int OddTexts(const char*)
{
    Write("");
    Write(std::string("a\0b", 3));
    Write("two\nlines");
    Write("ends with a line end\n");
    Write("\xff\x80\x1b[0m");
    Write(std::string(100000, 'x'));
    return 0;
}

int Numbers(const char*)
{
    Log(1, "src/one.cpp", 1234567).Stream() << "one";
    Log(3, "src/three.cpp", 3).Stream() << "three";
    Log(4294967295U, "src/max.cpp", 1).Stream() << "max";
    return 0;
}

int RedirectedBeforeFirstMessage(const char* elsewhere)
{
    if (Redirect(elsewhere) != 0) {
        return 1;
    }
    Write("to the new standard error");
    return 0;
}

int ClosedLater(const char* path)
{
    // The file takes the number of standard error, close-on-exec as a careful program opens its files.
    close(STDERR_FILENO);
    Write("nobody can read this");
    const int file = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file != STDERR_FILENO) {
        return 1;
    }
    Write("nobody may read this");
    return 0;
}

int ClosedAndReused(const char* path)
{
    // Started without descriptor 2: the file takes its number, and no message may end up in it.
    const int file = open(path, O_WRONLY | O_APPEND);
    if (file != STDERR_FILENO) {
        return 1;
    }
    Write("nobody may read this");
    return 0;
}

int Execute(const char* program)
{
    Write("before exec");
    execl(program, program, static_cast<char*>(nullptr));
    return 1;
}

int CountOwn(const char*)
{
    // On standard output: how many descriptors lead where descriptor 2 leads.
    Write("a message");
    struct stat own {};
    fstat(STDERR_FILENO, &own);
    int count = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        struct stat other {};
        if (fstat(descriptor, &other) == 0 && other.st_dev == own.st_dev && other.st_ino == own.st_ino) {
            ++count;
        }
    }
    std::printf("%d", count);
    return 0;
}

int SinkAndBack(const char*)
{
    Log::SetSink([](unsigned, const char*, int, const std::string&) {});
    Write("to the sink");
    Log::SetSink(nullptr);
    Write("to standard error");
    return 0;
}

int FourThreads(const char*)
{
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([number] {
            for (int i = 0; i < 500; ++i) {
                Log(4, "src/thread.cpp", number).Stream()
                    << "begin " << number << ' ' << i << ' ' << std::string(static_cast<std::size_t>(150 + i % 50), 'x')
                    << " end";
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}

int KeepsErrno(const char*)
{
    errno = ENOENT;
    Write("a message");
    return errno == ENOENT ? 0 : 1;
}

int BrokenStandardError(const char*)
{
    // The reader of our standard error is gone; the test ignores SIGPIPE for us.
    Write("into the void");
    return 0;
}

int LateMessage(const char*)
{
    // Written after main() has returned, by which time other statics may be gone.
    static const struct Late {
        ~Late() { Write("after main"); }
    } late;
    return 0;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    const std::map<std::string, std::function<int(const char*)>> deeds = {
        {"plain", Plain},
        {"oddTexts", OddTexts},
        {"numbers", Numbers},
        {"redirected", RedirectedBeforeFirstMessage},
        {"closedLater", ClosedLater},
        {"closedAndReused", ClosedAndReused},
        {"execute", Execute},
        {"countOwn", CountOwn},
        {"sinkAndBack", SinkAndBack},
        {"fourThreads", FourThreads},
        {"keepsErrno", KeepsErrno},
        {"brokenStandardError", BrokenStandardError},
        {"lateMessage", LateMessage},
    };
    if (argumentCount < 2 || deeds.count(arguments[1]) == 0) {
        return 99;
    }
    return deeds.at(arguments[1])(argumentCount > 2 ? arguments[2] : nullptr);
}
