/**
 * @file
 * @brief What the tests of the operating-system services share: recorded log lines, temporary files, forked
 *        test bodies, private namespaces.
 */
#ifndef ZENDRA_TESTS_OSSPECIFIC_SUPPORT_H
#define ZENDRA_TESTS_OSSPECIFIC_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kernel/namespaces.h"

/**
 * Ends the test where it cannot run here: as skipped, with the reason; as failed where CI=true, since nothing may
 * be missing there.
 */
#define ZENDRA_NEEDS(condition, reason)                                                                                \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            if (ZendraTest::InCi()) {                                                                                  \
                FAIL() << "cannot run: " << (reason);                                                                  \
            }                                                                                                          \
            GTEST_SKIP() << (reason);                                                                                  \
        }                                                                                                              \
    } while (false)

/** Ends the test in the same way where it cannot get namespaces (CLONE_NEWNS, CLONE_NEWNET). */
#define ZENDRA_NEEDS_NAMESPACES(kinds)                                                                                 \
    do {                                                                                                               \
        const std::string refused = Kernel::NamespacesRefused(kinds);                                                  \
        ZENDRA_NEEDS(refused.empty(), "a namespace " + refused);                                                       \
    } while (false)

namespace ZendraTest {

bool InCi();
bool IsRoot();

/** Log lines as texts "LEVEL|MESSAGE". */
using LogLines = std::vector<std::string>;

/**
 * Records what is logged while it lives, in this process and in every process forked from it. Leaves another errno
 * behind after each message, since a logger may.
 */
class LogRecorder {
public:
    explicit LogRecorder(unsigned level = 4);
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    /** The lines of the process that made the recorder. */
    LogLines Own() const;
    /** The lines of all other processes, in the order written. */
    LogLines OfChildren() const;
    /** The source files that logged. */
    std::vector<std::string> Files() const;

private:
    struct Line {
        pid_t process;
        std::string file;
        std::string text;
    };
    std::vector<Line> Lines() const;
    pid_t owner;
};

/** The lines of `lines` that are written at a level. */
LogLines UpTo(unsigned level, const LogLines& lines);

/** Runs `body` once at each of the levels 4, 3, 1 and 0 and expects the lines of that level, and no others. */
void ExpectLog(const std::function<void()>& body, const LogLines& own, const LogLines& ofChildren = {});

/** A directory that is removed with all it holds. */
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& Path() const { return path; }
    std::string operator/(const std::string& name) const { return path + "/" + name; }

private:
    std::string path;
};

void WriteFile(const std::string& path, const std::string& contents);
std::string ReadFile(const std::string& path);

/** The open descriptors of this process with what they lead to. */
std::map<int, std::string> OpenDescriptors();

/** Those of them that a program started now would inherit. */
std::map<int, std::string> InheritableDescriptors();

/**
 * Runs a test body in a forked child, for what must not change this process (limits, user ids, namespaces,
 * descriptors 0 to 2). Failed expectations in it fail the test.
 */
void RunIsolated(const std::function<void()>& body);

/**
 * Ends a forked test body: without exit handlers, hence without a search for the memory that some of them leave
 * behind as they must. Where lines are counted, with them, since one of them writes the counts.
 */
[[noreturn]] void EndForkedBody(int exitCode);

/** Drops root for a user id that runs nothing else and is in no user database. Only in an isolated body. */
void BecomeUnknownUser();

/** Leaves the network namespace for one with nothing but the loopback interface. Only in an isolated body. */
void EnterLoopbackNetwork();

/** Leaves the mount namespace for a private copy. Only in an isolated body. */
void EnterPrivateMounts();

/** The child programs. */
extern const std::string actProgram;
extern const std::string daemonProgram;
extern const std::string describeProgram;
extern const std::string childDirectory;

}  // namespace ZendraTest

#endif
