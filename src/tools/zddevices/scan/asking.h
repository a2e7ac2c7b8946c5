/**
 * @file
 * @brief Has devices asked by worker processes, so that none that is slow, silent or mad costs more than its own
 * record.
 *
 * Each class begins with one worker, which goes through its device files. While that takes long, more workers join in;
 * one that dies is replaced, and one that a device holds up is left to wait while another goes on behind that device.
 */
#ifndef ZENDRA_ZDDEVICES_ASKING_H
#define ZENDRA_ZDDEVICES_ASKING_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/scan/library.h"
#include "tools/zddevices/scan/worker.h"

namespace Zendra::ZDDevices {

/** @name What every worker's answer begins with: the library's status, and this where the sg driver is not used.
 * @{
 */
constexpr const char* notUsingSg = "no sg";
constexpr std::size_t textsBeforeRecords = 2;
/** @} */

/** What is asked. */
struct Asked {
    /** The class whose device files are asked one by one; absent for something that is one worker's. */
    std::optional<ZDSystemDevice::SysDeviceType> files;
    /** What that one worker does. */
    Task whole = nullptr;
};

/** A device file at which a worker was lost. */
struct LostFile {
    std::string path;
    /** Whether it was killed because the time was over. */
    bool late;
    /** What became of the worker, for people. */
    std::string failure;
};

/** What came of it. */
struct AskedOutcome {
    /** Each device file once about which something is known, in the order in which /dev lists them. */
    std::vector<FileAnswer> files;
    std::vector<LostFile> lost;
    /** The library's status; absent when no worker came to the end. */
    std::optional<unsigned int> status;
    /** Whether the generic class uses the sg driver; true where it is not known. */
    bool usesSgDriver = true;
    /** What the worker of Asked::whole answered. */
    std::optional<std::vector<std::string>> answer;
    /** Why there is neither status nor answer, for people. */
    std::string failure;
    /** Whether that is what the task threw. */
    bool threw = false;
    /** Whether that is because the time was over. */
    bool late = false;
    /** From the start to the last answer, or to when it was given up. */
    Duration elapsed{};
};

/** How devices are asked. */
struct AskTerms {
    std::optional<Duration> limit;
    /** When the limit began to run. */
    std::chrono::steady_clock::time_point started;
    /** May be null. */
    Observer* observer;
    /** How many workers ask at a time; with one, class follows class. */
    std::size_t jobs;
    /** As Terms::meanwhile. */
    std::function<void()> meanwhile = nullptr;
};

/** @return the outcomes in the order of what was asked, at the latest shortly after the limit. */
std::vector<AskedOutcome> Ask(const std::vector<Asked>& asked, const AskTerms& terms);

}  // namespace Zendra::ZDDevices

#endif
