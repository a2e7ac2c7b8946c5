#include "tools/zddevices/scan/inheritedFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <memory>
#include <string_view>
#include <vector>

#include "common/descriptor.h"

namespace Zendra {
namespace ZDDevices {

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

bool SameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_rdev == other.st_rdev;
}

/** The numbers above those of the standard descriptors that are open. */
std::vector<int> OpenNumbers()
{
    std::vector<int> numbers;
    const std::unique_ptr<DIR, DirectoryCloser> directory(opendir("/proc/self/fd"));
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        int number = Descriptor::none;
        std::from_chars(name.data(), name.data() + name.size(), number);
        if (number > STDERR_FILENO && number != dirfd(directory.get())) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

}  // namespace

bool LetGoOfInheritedFiles(int answer, int messages)
{
    struct stat standardError {};
    const Descriptor nowhere(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!nowhere.IsOpen() || fstat(STDERR_FILENO, &standardError) != 0) {
        return false;
    }
    for (const int number : OpenNumbers()) {
        struct stat file {};
        if (number == answer || number == messages || number == nowhere.Get() || fstat(number, &file) != 0) {
            continue;
        }
        dup3(SameFile(file, standardError) ? messages : nowhere.Get(), number, O_CLOEXEC);
    }
    return dup2(nowhere.Get(), STDIN_FILENO) == STDIN_FILENO && dup2(nowhere.Get(), STDOUT_FILENO) == STDOUT_FILENO &&
           dup2(messages, STDERR_FILENO) == STDERR_FILENO;
}

}  // namespace ZDDevices
}  // namespace Zendra
