/**
 * @file
 * @brief Takes the library's calls of open, close, ioctl, sleep, system, opendir, readdir and closedir.
 *
 * They arrive here from kernel/systemCalls.h, in a child execvp as well. Each fails closed: a
 * shell command, a sleep, an ioctl or a scan of /dev or /sys/block that the running test did not provide for
 * fails that test. Other directories and files are the real ones.
 */
#ifndef ZENDRA_TESTS_SUPPORT_SYSTEMCALLS_H
#define ZENDRA_TESTS_SUPPORT_SYSTEMCALLS_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace ZendraTest {

/** A directory as a test wants it read: these names in this order, or an error from opendir. */
struct DirectoryScript {
    std::vector<std::string> names;
    int openError = 0;
};

/** What the running test provides. Set it before the library is called; it is not locked. */
struct SystemCalls {
    /** Unset: any shell command fails the test and answers -1. */
    std::function<int(const std::string& command)> onSystem;
    /** Unset: any sleep fails the test. Never really sleeps. */
    std::function<void(unsigned seconds)> onSleep;
    /** Unset: any ioctl of a device fails the test and answers -1. */
    std::function<int(int descriptor, unsigned request, void* argument)> onIoctl;
    /** Unset: files are really opened; "/dev/..." fails the test. */
    std::function<int(const std::string& path, int flags)> onOpen;
    /** Called in place of close; unset: really closes. */
    std::function<int(int descriptor)> onClose;
    /** Called at each opendir of a scripted directory, before it is opened; may throw. */
    std::function<void(const std::string& path)> onOpenDirectory;
    /** Called in a forked child in place of execvp, which it must not return from; unset: really executes. */
    std::function<void(const std::string& program, const std::vector<std::string>& arguments)> onExecute;
    /** Scans of "/dev/" and "/sys/block/"; the key ends in "/". */
    std::map<std::string, DirectoryScript> directories;

    int directoriesOpened = 0;
    int directoriesClosed = 0;
};

SystemCalls& Calls();

/** Forgets everything that a test provided. */
void ResetCalls();

/** The real functions, for use within the hooks. */
int RealOpen(const char* path, int flags);
int RealClose(int descriptor);

/** How many descriptors this process has open. */
int OpenDescriptors();

/** The path of the file behind a descriptor. */
std::string PathOfDescriptor(int descriptor);

}  // namespace ZendraTest

#endif
