/**
 * @file
 * @brief Finds out what this host lets the library see, and what could be done where that is not everything.
 *
 * Asks as a scan does: the sg driver is loaded. But no tape is rewound. Each device is asked by a worker process of its
 * own, so that one that hangs costs no more than its time.
 */
#ifndef ZENDRA_ZDDEVICES_DOCTOR_H
#define ZENDRA_ZDDEVICES_DOCTOR_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/doctor/deviceFileCheck.h"
#include "tools/zddevices/scan/worker.h"

namespace Zendra::ZDDevices {

/** How long one device may take when the user does not say. */
constexpr Duration usualTimePerDevice = std::chrono::seconds(10);

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

/** The device files of one class. */
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
    double secondsPerDevice = 0;           ///< How long each device had, in seconds.
    std::vector<std::string> advice;       ///< What to do, one thing each, fit for a terminal.

    /** Whether no device file hides its device from this user. */
    bool AllVisible() const;
};

/** Asks the device files of a class, given by their paths; the answers come in the same order. */
using CheckDeviceFiles =
    std::function<std::vector<CheckedFile>(ZDSystemDevice::SysDeviceType type, const std::vector<std::string>& paths)>;

/** Asks this host, and loads the sg driver. Returns shortly after `limit`. */
HostFacts LookAtHost(Duration limit);

/**
 * @brief Asks each device in a worker process, for at most so long.
 * @param observer is told which take their time; may be null.
 */
std::vector<CheckedFile> CheckInWorkers(ZDSystemDevice::SysDeviceType type, const std::vector<std::string>& paths,
                                        Duration limitPerDevice, Observer* observer);

/** Decides what to ask, has it asked, and draws the conclusions. */
Diagnosis Diagnose(const HostFacts& facts, Duration limitPerDevice, const CheckDeviceFiles& checkDeviceFiles);

}  // namespace Zendra::ZDDevices

#endif
