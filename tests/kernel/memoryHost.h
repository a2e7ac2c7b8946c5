/**
 * @file
 * @brief A simulated host in memory: nothing is mounted and nobody sleeps, so that a whole host takes microseconds.
 *
 * It is as strict as the device files are (devices.h), and about files as well: nothing but device files and the
 * revision files of /sys/block is opened, only /dev and /sys/block are listed, a descriptor is closed once.
 */
#ifndef ZENDRA_TESTS_KERNEL_MEMORYHOST_H
#define ZENDRA_TESTS_KERNEL_MEMORYHOST_H

#include <cstddef>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kernel/devices.h"
#include "kernel/host.h"
#include "kernel/systemCalls.h"

namespace Kernel {

/** Answers this thread's calls while it lives. One at a time, because it takes over from nobody. */
class MemoryHost : public SystemCalls {
public:
    /** `theHost` must outlive this. */
    MemoryHost(const Host& theHost, const Devices::Complaint& theComplain);
    ~MemoryHost() override;

    int Ioctl(int descriptor, unsigned request, void* argument) override;
    int System(const char* command) override;
    unsigned Sleep(unsigned seconds) override;
    int Open(const char* path, int flags, mode_t mode) override;
    int Close(int descriptor) override;
    ssize_t Read(int descriptor, void* buffer, std::size_t size) override;
    DIR* OpenDirectory(const char* path) override;
    dirent* ReadDirectory(DIR* directory) override;
    int CloseDirectory(DIR* directory) override;

    /** The device files that were opened, in the order of the first attempt, each once. */
    const std::vector<std::string>& Probed() const { return probed; }
    unsigned Sleeps() const { return sleeps; }
    Devices& Answers() { return devices; }

    /** Complains of a descriptor or a directory that is left open. */
    void ComplainOfOpenFiles();

protected:
    enum class Kind { Terminal, Device, File, PipeRead, PipeWrite };
    struct Descriptor {
        Kind kind = Kind::Terminal;
        const DevEntry* device = nullptr;
        const std::string* contents = nullptr;
        std::size_t position = 0;
        bool closeOnExec = false;
    };

    int Add(const Descriptor& descriptor);
    /** Ends in a complaint where there is none. */
    Descriptor& At(int descriptor, const char* call);
    void Require(bool holds, const std::string& promise);

    const Host& host;
    std::map<int, Descriptor> descriptors;

private:
    struct Directory;

    Devices::Complaint complain;
    Devices devices;
    std::unordered_map<std::string, const DevEntry*> byPath;
    std::unordered_map<std::string, const std::string*> revisionFiles;
    std::vector<std::string> probed;
    std::unordered_set<std::string> seen;
    unsigned sleeps = 0;
    std::size_t openDirectories = 0;
};

}  // namespace Kernel

#endif
