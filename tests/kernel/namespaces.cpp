#include "kernel/namespaces.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace Kernel {

namespace {

std::string ErrnoText(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

bool Write(const char* path, const std::string& text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

}  // namespace

std::string EnterNamespaces(int kinds)
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (user != 0) {
        if (unshare(CLONE_NEWUSER) != 0) {
            return ErrnoText("takes root, or a user namespace, which this user cannot have");
        }
        if (!Write("/proc/self/setgroups", "deny") ||
            !Write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") ||
            !Write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1")) {
            return ErrnoText("takes root: this user cannot become root of a user namespace");
        }
    }
    if (unshare(kinds) != 0) {
        return ErrnoText("takes namespaces, which even root may not have here");
    }
    if ((kinds & CLONE_NEWNS) != 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return ErrnoText("takes mounts that nobody else sees");
    }
    return "";
}

std::string NamespacesRefused(int kinds)
{
    int ends[2];
    if (pipe(ends) != 0) {
        return ErrnoText("pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const std::string reason = EnterNamespaces(kinds);
        _exit(write(ends[1], reason.data(), reason.size()) == static_cast<ssize_t>(reason.size()) ? 0 : 1);
    }
    close(ends[1]);
    char text[256];
    const ssize_t length = read(ends[0], text, sizeof text);
    close(ends[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || length < 0) {
        return "no process could try whether it gets namespaces";
    }
    return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace Kernel
