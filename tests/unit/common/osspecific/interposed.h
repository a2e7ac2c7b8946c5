/**
 * @file
 * @brief The libc calls of the library that this test program answers itself, and its count of memory blocks.
 *
 * The program defines these functions, so the dynamic linker gives them to the library too. Without a hook each is
 * what it always is.
 */
#ifndef ZENDRA_TESTS_OSSPECIFIC_INTERPOSED_H
#define ZENDRA_TESTS_OSSPECIFIC_INTERPOSED_H

#include <pwd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <functional>

namespace ZendraTest {

struct Hooks {
    std::function<time_t(time_t*)> time;
    std::function<int(const char*, struct stat*)> stat;
    std::function<int(const char*, mode_t)> mkdir;
    std::function<ssize_t(int, void*, size_t)> read;
    std::function<int(int[2], int)> pipe2;
    std::function<pid_t()> fork;
    std::function<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
    std::function<pid_t(pid_t, int*, int)> waitpid;
    std::function<int(pid_t, int)> kill;
    std::function<int(const char*)> system;
    std::function<int(int, int, int)> socket;
    std::function<int(int, const sockaddr*, socklen_t)> bind;
    std::function<int(int, int, int, const void*, socklen_t)> setsockopt;
    std::function<int(int)> close;
};

/** The hooks in force. */
extern Hooks hooks;

/** Takes all hooks away at the end of a test. */
struct HooksForOneTest {
    HooksForOneTest() { hooks = Hooks(); }
    ~HooksForOneTest() { hooks = Hooks(); }
};

namespace Real {
ssize_t Read(int descriptor, void* buffer, size_t size);
pid_t Fork();
int Select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
pid_t Waitpid(pid_t process, int* status, int options);
int Close(int descriptor);
}  // namespace Real

/** Memory blocks of operator new that are allocated now. */
long LiveBlocks();

/** Memory blocks that forked children have taken from operator new since the last call. */
long BlocksTakenInChildren();

/** Lets the one after the next `count` allocations of this process, or of its children, throw std::bad_alloc. */
void FailAllocationAfter(long count);
void FailAllocationInChildAfter(long count);

/** Ends that; true when it had come to it in this process or a child. */
bool StopFailingAllocations();

}  // namespace ZendraTest

#endif
