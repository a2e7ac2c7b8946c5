/**
 * Writes the metrics of zddevices into DIRECTORY/zddevices.prom, for the node exporter's textfile collector.
 *
 *   zddevices-textfile DIRECTORY [ARGUMENT ...]
 *
 * Further arguments go on to zddevices. ZDDEVICES names the program, ZDDEVICES_SECONDS is its time limit (60).
 * RUNTIME_DIRECTORY, which systemd sets, is where the lock is (/run/zddevices-textfile).
 *
 * A reader finds the file of the last good run or the new one, never a part. When zddevices fails, the old file stays
 * and grows old; the sample zendra_device_scan_timestamp_seconds in it says how old. Exit code 0: written, also when
 * devices are missing in it, which the file then says. Otherwise the exit code of zddevices, 127 when it could not be
 * started, 128 and the signal that ended it, or 1.
 *
 * The directory may belong to somebody who means harm. Therefore no link is followed on the way to it, it is opened
 * once, and whatever is done in it is done by that descriptor, on a file that was not there before. What the scan
 * prints is kept in memory until it is whole. The lock is in a directory that only root may enter.
 */
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "common/descriptor.h"

namespace {

using Zendra::Descriptor;

constexpr const char* fileName = "zddevices.prom";
/** The collector reads no file of another ending than .prom. */
constexpr const char* newFileName = ".zddevices.prom.new";

std::string Setting(const char* name, const char* otherwise)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : otherwise;
}

/** The result of a system call, or an exception that says what could not be done and why. */
int Checked(int result, const std::string& what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot " + what);
    }
    return result;
}

/** Waits for another run at most as long as that may take to ask the devices. The lock lasts as long as the result. */
Descriptor Lock()
{
    const std::string directory = Setting("RUNTIME_DIRECTORY", "/run/zddevices-textfile");
    if (mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        Checked(-1, "make " + directory);
    }
    const std::string path = directory + "/lock";
    // Not for zddevices: a process of it that hangs in a sick device's driver would hold the lock for as long.
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    Descriptor lock(Checked(open(path.c_str(), flags, S_IRUSR | S_IWUSR), "open " + path));
    const double seconds = std::strtod(Setting("ZDDEVICES_SECONDS", "60").c_str(), nullptr);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            Checked(-1, "lock " + path);
        }
        if (std::chrono::steady_clock::now() >= end) {
            throw std::runtime_error("another run holds " + path);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return lock;
}

/** Opens a directory. No part of its path may be a link: whoever owns one of the directories could have laid it. */
Descriptor OpenDirectory(const std::string& path)
{
    constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const std::string what = "open " + path + ", of which no part may be a link";
    Descriptor directory(Checked(open(path[0] == '/' ? "/" : ".", flags), what));
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');) {
        if (!part.empty()) {
            directory = Descriptor(Checked(openat(directory.Get(), part.c_str(), flags), what));
        }
    }
    return Descriptor(Checked(openat(directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), what));
}

/** Runs zddevices with its standard output going to a file. Returns its exit code as a shell has it. */
int Scan(char** arguments, int output)
{
    std::string program = Setting("ZDDEVICES", "zddevices");
    std::string seconds = Setting("ZDDEVICES_SECONDS", "60");
    std::string format = "--format";
    std::string prometheus = "prometheus";
    std::string timeout = "--timeout";
    std::vector<char*> command = {program.data(), format.data(), prometheus.data(), timeout.data(), seconds.data()};
    for (; *arguments != nullptr; ++arguments) {
        command.push_back(*arguments);
    }
    command.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t child = -1;
    const int error = posix_spawnp(&child, program.c_str(), &actions, nullptr, command.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        std::cerr << "zddevices-textfile: cannot run " << program << ": " << std::generic_category().message(error)
                  << '\n';
        return 127;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            Checked(-1, "wait for " + program);
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void Copy(int from, int to)
{
    const off_t size = lseek(from, 0, SEEK_END);
    if (size < 0) {
        Checked(-1, "read the metrics");
    }
    off_t position = 0;
    while (position < size) {
        if (sendfile(to, from, &position, static_cast<std::size_t>(size - position)) <= 0) {
            Checked(-1, "write the new file");
        }
    }
}

/** Puts the metrics in the old file's place. What an earlier run left when it was ended goes. */
void Replace(int directory, int metrics)
{
    unlinkat(directory, newFileName, 0);
    // For root alone until it is whole, whatever access lists the directory hands to its files.
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor file(Checked(openat(directory, newFileName, flags, S_IRUSR | S_IWUSR), "make the new file"));
    try {
        Copy(metrics, file.Get());
        Checked(fchmod(file.Get(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH), "open the new file to readers");
        Checked(fsync(file.Get()), "bring the new file to the disk");
        Checked(renameat(directory, newFileName, directory, fileName), "rename the new file");
    } catch (const std::exception&) {
        unlinkat(directory, newFileName, 0);
        throw;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argv[1][0] == '\0') {
        std::cerr << "usage: zddevices-textfile DIRECTORY [ARGUMENT ...]\n";
        return 1;
    }
    const std::string path = argv[1];
    const std::string target = path + "/" + fileName;
    try {
        const Descriptor directory = OpenDirectory(path);
        const Descriptor lock = Lock();
        const Descriptor metrics(Checked(memfd_create("metrics", MFD_CLOEXEC), "keep the metrics in memory"));
        const int code = Scan(argv + 2, metrics.Get());
        if (code != 0 && code != 3) {
            std::cerr << "zddevices-textfile: zddevices failed with exit code " << code << "; " << target
                      << " stays as it was\n";
            return code;
        }
        Replace(directory.Get(), metrics.Get());
        fsync(directory.Get());
    } catch (const std::exception& failure) {
        std::cerr << "zddevices-textfile: " << failure.what() << "; " << target << " stays as it was\n";
        return 1;
    }
    return 0;
}
