/**
 * @file
 * @brief Finds out what this host lets the library see, and what could be done where that is not everything.
 *
 * Changes nothing: the sg driver is not loaded, no tape is rewound. Each device is asked in a process of its own, so
 * that one that hangs costs no more than its time.
 */
#ifndef ZENDRA_ZDDEVICES_DOCTOR_H
#define ZENDRA_ZDDEVICES_DOCTOR_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/doctor/deviceProbe.h"
#include "tools/zddevices/scan/isolate.h"

namespace Zendra {
namespace ZDDevices {

/** How long one device may take when the user does not say. */
constexpr std::chrono::nanoseconds usualPatience = std::chrono::seconds(10);

/** What the host says before any device is asked. */
struct HostFacts {
    /** Whether the sg driver is part of the running kernel. */
    bool sgLoaded = false;
    /** Whether "modprobe sg", which every scan begins with, finds a module to load, or nothing to do. */
    bool modprobeFindsSg = false;
    /** Whether this process may load a module that is not loaded yet. */
    bool mayLoadModules = false;
    /** Whether this process has the effective user id of root. */
    bool userIsRoot = false;
    /** The error of listing /dev; 0 when it was listed. */
    int directoryError = 0;
    /** What is in /dev, directories left out. */
    std::vector<std::string> names;
};

/** The device files of one class. */
struct ClassFindings {
    ZDSystemDevice::SysDeviceType type;
    /** In natural order. */
    std::vector<Finding> findings;
};

/** Everything that is known in the end. */
struct Diagnosis {
    HostFacts facts;
    /** Whether the generic class will use the sg driver: it is loaded, or the next scan loads it. */
    bool sgUsed = false;
    /** Tape, generic, disk, optical. */
    std::vector<ClassFindings> classes;
    /** Device files of disks that the library never looks at, as paths. */
    std::vector<std::string> notLookedAt;
    /** How long each device had, in seconds. */
    double patienceSeconds = 0;
    /** What to do, one thing each, fit for a terminal. */
    std::vector<std::string> advice;

    /** Whether no device file hides its device from this user. */
    bool AllVisible() const;
};

/** A device file that is to be asked. */
struct Patient {
    std::string path;
    Manner manner;
};

/** Asks all of them; the findings come in the same order. */
using AskDevices = std::function<std::vector<Finding>(const std::vector<Patient>& patients)>;

/** Asks this host; quick. */
HostFacts LookAtHost();

/** Asks each device in a child process, for at most so long; the observer, if any, is told which take their time. */
std::vector<Finding> AskApart(const std::vector<Patient>& patients, std::chrono::nanoseconds patience,
                              Observer* observer = nullptr, DeviceKernel& kernel = HostKernel());

/** Decides what to ask, has it asked, and draws the conclusions. */
Diagnosis Diagnose(const HostFacts& facts, std::chrono::nanoseconds patience, const AskDevices& askDevices);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
