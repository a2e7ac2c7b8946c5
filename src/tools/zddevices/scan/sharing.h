/**
 * @file
 * @brief Which worker asks which device file.
 *
 * Workers take the files one by one, in memory that they share with the program, so none is asked twice and none waits
 * for a worker that is held up by another. A host adapter is spared: only so many of its devices are asked at a time.
 * So is a tape drive, which can be asked by one of its files at a time.
 */
#ifndef ZENDRA_ZDDEVICES_SHARING_H
#define ZENDRA_ZDDEVICES_SHARING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Zendra::ZDDevices {

/** What of a host adapter can be known from the path of a device in sysfs. */
struct HostAdapter {
    /** The directory of the adapter's device; empty where a file leads to no adapter. */
    std::string directory;
    /** How many of its devices may be asked at a time. */
    unsigned int atATime;
};

/** The host adapter of a device file; of none for a tape drive's, which TapeDriveOf() is for. */
HostAdapter HostAdapterOf(const std::string& deviceFile);

/**
 * The drive of a tape's device file in place of an adapter; of none for another file. Its files (nst0, nst0a, nst0l,
 * nst0m) have to take turns: the kernel lets a drive be open once, and refuses a second one (EBUSY) without waiting.
 */
HostAdapter TapeDriveOf(const std::string& deviceFile);

/** The device files of several questions, each asked with each of its own. To be made before the workers are started.
 */
class SharedFiles {
public:
    /**
     * @param filesOfQuestions the paths, question by question.
     * @throws std::system_error when there is no memory to share.
     */
    explicit SharedFiles(const std::vector<std::vector<std::string>>& filesOfQuestions);

    /** Whether the file is among those of the question. */
    bool Has(std::size_t question, const std::string& path) const;

    /** For workers: whether the caller is to ask the file; it is nobody else's then. The question has the file. */
    bool Take(std::size_t question, const std::string& path);

    /** The file is not being asked any more, or is no longer to count as one that is. */
    void LetGo(std::size_t question, const std::string& path);

    /** How many files of a question wait to be taken, those of busy adapters left out. */
    std::size_t LeftToTake(std::size_t question) const;

    /** From now on no more files of an adapter are taken than it may have asked at a time. */
    void Spare(const std::function<HostAdapter(const std::string& path)>& adapterOf);

private:
    using Number = std::atomic<std::uint32_t>;
    static_assert(Number::is_always_lock_free, "a worker that is killed must not keep a lock");

    /** What workers and the program share of a file. There are no more adapters than files. */
    struct File {
        /** free, over, or taken plus the number of the adapter at which it counts. */
        Number state;
        /** The number of its adapter; 0 for none. */
        Number adapter;
        /** Of the adapter whose number is this file's: how many of its files are being asked, and how many may be. */
        Number underWay;
        Number atATime;
    };

    struct Unmap {
        std::size_t size;
        void operator()(File* files) const;
    };

    bool HasRoom(const File& file) const;

    /** The number of each file, question by question. */
    std::vector<std::unordered_map<std::string, std::size_t>> numbers;
    std::unique_ptr<File[], Unmap> files;
};

}  // namespace Zendra::ZDDevices

#endif
