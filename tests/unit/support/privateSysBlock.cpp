#include "support/privateSysBlock.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "kernel/namespaces.h"

namespace ZendraTest {
namespace PrivateSysBlock {

namespace {

const std::filesystem::path root = "/sys/block";
bool entered = false;

std::string Enter(bool& done)
{
    if (done) {
        return "";
    }
    const std::string reason = Kernel::EnterNamespaces(CLONE_NEWNS);
    if (!reason.empty()) {
        return "a /sys/block of our own " + reason;
    }
    if (mount("none", root.c_str(), "tmpfs", 0, "size=8m,mode=755") != 0) {
        return std::string("mounting over /sys/block: ") + std::strerror(errno);
    }
    done = true;
    return "";
}

}  // namespace

std::string Enter()
{
    return Enter(entered);
}

void Write(const std::string& path, const std::string& content)
{
    if (!entered) {
        throw std::logic_error("writing to the real /sys/block");
    }
    std::filesystem::create_directories((root / path).parent_path());
    std::ofstream file(root / path, std::ios::binary);
    file << content;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

void MakeDirectory(const std::string& path)
{
    if (!entered) {
        throw std::logic_error("writing to the real /sys/block");
    }
    std::filesystem::create_directories(root / path);
}

void Clear()
{
    if (!entered) {
        throw std::logic_error("emptying the real /sys/block");
    }
    // Our own scripted directory streams must not take part in this, hence no walk through it but a fresh mount.
    if (umount(root.c_str()) != 0 || mount("none", root.c_str(), "tmpfs", 0, "size=8m,mode=755") != 0) {
        throw std::runtime_error(std::string("emptying our /sys/block: ") + std::strerror(errno));
    }
}

}  // namespace PrivateSysBlock
}  // namespace ZendraTest
