/**
 * @file
 * @brief Which devices the answer lacks, and why.
 */
#ifndef ZENDRA_ZDDEVICES_MISSING_H
#define ZENDRA_ZDDEVICES_MISSING_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/scan/access.h"
#include "tools/zddevices/scan/kernelDevices.h"

namespace Zendra::ZDDevices {

/** Why there is no record. */
enum class Reason {
    /** This process may not open the file. */
    Denied,
    /** It may, but the kernel keeps a command that is needed from it. */
    Refused,
    NoAnswerInTime,
    /** The kernel has taken the device out of service. */
    Offline,
    Busy,
    NoMedium,
    /** The device went away, or its file leads to none. */
    Removed,
    /** What came back was no answer that the library takes for a device. */
    NoUsableAnswer,
    /** The process that asked came to an end. */
    WorkerDied,
    /** Nobody came to ask, or the library asks no files of this name. */
    NotAsked,
    /** The driver that would make its device file, or load the others, is not there. */
    NoDriver
};

/** A device file that gave no record, a device without a file, or a class without an answer. */
struct Missing {
    /** A path; empty where there is none. */
    std::string deviceFile;
    Reason reason;
    /** The kernel's error number; 0 where there is none. */
    int error = 0;
    /** For people; does not name the file. */
    std::string message;
    /** For a file that is denied: the group whose members may read it; empty for none. */
    std::string group;
};

/** Whether the kernel passes commands to a device in this state of sysfs. */
bool IsInService(const std::string& state);

/** The state of a device that is not in service, for people. */
std::string DescribeOutOfService(const std::string& state);

/** "no_answer_in_time": JSON's word, and that of the metrics. */
const char* WordOf(Reason reason);

/** What was tried in vain with a device file. */
struct FailedFile {
    std::string path;
    /** The error number of open(2); 0 when the file was opened. */
    int openError = 0;
    /** The error number of the last request that failed. */
    int error = 0;
};

/** Why a file that was asked gave no record. @param device what the kernel knows of it; may be null. */
Missing WhyNoRecord(const FailedFile& file, const KernelDevice* device);

Missing WhyDenied(const DeniedFile& file);

/**
 * @brief The devices that the kernel has and nobody could ask, for want of a device file or of a driver.
 * @param type the class that was asked for; all when absent.
 * @param accounted the device files that gave a record or are known to be missing; "/dev" where it may not be listed.
 */
std::vector<Missing> DevicesWithoutFile(const KernelDevices& kernel, std::optional<ZDSystemDevice::SysDeviceType> type,
                                        const std::set<std::string>& accounted);

}  // namespace Zendra::ZDDevices

#endif
