/**
 * @file
 * @brief Finds out what this host lets the library see, and what could be done where that is not everything.
 *
 * Asks as a scan does: the sg driver is loaded. But no tape is rewound. Each device file is asked by a worker process
 * of its own, many at a time, so that one that hangs holds up no other.
 */
#ifndef ZENDRA_ZDDEVICES_DOCTOR_H
#define ZENDRA_ZDDEVICES_DOCTOR_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/doctor/deviceFileCheck.h"
#include "tools/zddevices/scan/kernelDevices.h"
#include "tools/zddevices/scan/missing.h"
#include "tools/zddevices/scan/worker.h"

namespace Zendra::ZDDevices {

/** How long all devices together may take when the user does not say. */
constexpr Duration usualTimeForAll = std::chrono::seconds(10);

/** What the host says before any device is asked. */
struct HostFacts {
    /** Whether the generic class uses the sg driver: "modprobe sg", which every list begins with, succeeds. */
    bool sgUsed = false;
    bool sgLoaded = false;           ///< Whether the sg driver is part of the running kernel.
    bool modprobeFindsSg = false;    ///< Whether modprobe finds a module to load, or nothing to do.
    bool mayLoadModules = false;     ///< Whether this process may load a module that is not loaded yet.
    bool userIsRoot = false;         ///< Whether this process has the effective user id of root.
    int directoryError = 0;          ///< The error of listing /dev; 0 when it was listed.
    std::vector<std::string> names;  ///< What is in /dev, directories left out.
};

struct ClassFiles {
    ZDSystemDevice::SysDeviceType type;
    /** In natural order. */
    std::vector<CheckedFile> files;
};

/** Everything that is known in the end. */
struct Diagnosis {
    HostFacts facts;
    /** Tape, generic, disk, optical. */
    std::vector<ClassFiles> classes;
    std::vector<std::string> notLookedAt;  ///< Device files of disks that the library never looks at, as paths.
    /** Devices that the kernel has and that have no file of their class. */
    std::vector<Missing> withoutFile;
    double limitSeconds = 0;          ///< How long all of them had, in seconds.
    std::vector<std::string> advice;  ///< What to do, one thing each, fit for a terminal.

    /** Whether no device is hidden from this user. */
    bool AllVisible() const;
};

/** A device file, and the class as whose device it is asked. */
struct FileOfClass {
    ZDSystemDevice::SysDeviceType type;
    std::string path;
};

/** Asks the device files; the answers come in the same order. */
using CheckDeviceFiles = std::function<std::vector<CheckedFile>(const std::vector<FileOfClass>& files)>;

/** Asks this host, and loads the sg driver. Returns shortly after `limit`. */
HostFacts LookAtHost(Duration limit);

/** What there is to say of a file whose worker gave no answer: whether the device was asked at all. */
CheckedFile FileWithoutAnswer(const std::string& path, const Outcome& outcome);

/**
 * @brief Asks each device file in a worker process; returns shortly after the limit.
 * @param started when the limit began to run.
 * @param observer is told which take their time; may be null.
 */
std::vector<CheckedFile> CheckInWorkers(const std::vector<FileOfClass>& files, Duration limit,
                                        std::chrono::steady_clock::time_point started, Observer* observer);

/**
 * @brief Decides what to ask, has it asked, and draws the conclusions.
 * @param readKernel KernelDevices::Read(), or a test's stand-in; called when all have been asked, for a device that
 * does not answer may be taken out of service meanwhile.
 */
Diagnosis Diagnose(const HostFacts& facts, Duration limit, const CheckDeviceFiles& checkDeviceFiles,
                   const std::function<KernelDevices()>& readKernel);

}  // namespace Zendra::ZDDevices

#endif
