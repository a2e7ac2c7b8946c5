#include "tools/zddevices/doctor/doctor.h"

#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/doctor/doctorReport.h"
#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/scan/access.h"
#include "tools/zddevices/scan/library.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::SysDeviceType;

const std::string deviceDirectory = "/dev/";

/** So many devices are asked at a time: enough that a host of sick ones answers soon, few enough for small hosts. */
constexpr std::size_t devicesAtATime = 32;

bool StartsWith(const std::string& text, const char* prefix)
{
    return boost::algorithm::starts_with(text, prefix);
}

/** Whether the process has a capability; <linux/capability.h> numbers them. */
bool HasCapability(unsigned int number)
{
    constexpr int hexadecimal = 16;
    const std::string label = "CapEff:";
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (StartsWith(line, label.c_str())) {
            return (std::strtoull(line.c_str() + label.size(), nullptr, hexadecimal) >> number & 1U) != 0;
        }
    }
    return false;
}

bool ModulesAreLocked()
{
    int locked = 0;
    std::ifstream("/proc/sys/kernel/modules_disabled") >> locked;
    return locked != 0;
}

std::vector<std::string> FilesOf(SysDeviceType type, const HostFacts& facts)
{
    std::vector<std::string> names = facts.names;
    if (type == ZDSystemDevice::SYS_DEVICE_SCSI) {
        // The library decides by "modprobe sg" alone which of the two kinds it takes, not by what is there.
        const char* unused = facts.sgUsed ? "sd" : "sg";
        names.erase(std::remove_if(names.begin(), names.end(),
                                   [&](const std::string& name) { return StartsWith(name, unused); }),
                    names.end());
    }
    return DeviceFileNames(names, type);
}

/** Whether a name is one of the prefix and behind it letters, or digits, and nothing else. */
bool IsNumbered(const std::string& name, const char* prefix, bool byLetters)
{
    if (!StartsWith(name, prefix) || name == prefix) {
        return false;
    }
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(std::strlen(prefix)), name.end(),
                       [&](char c) { return byLetters ? c >= 'a' && c <= 'z' : c >= '0' && c <= '9'; });
}

/** A whole disk of whatever driver, SCSI and IDE left aside: vda, xvda, mmcblk0, nvme0n1. */
bool IsDiskName(const std::string& name)
{
    const std::size_t nameSpace = name.rfind('n');
    return IsNumbered(name, "vd", true) || IsNumbered(name, "xvd", true) || IsNumbered(name, "mmcblk", false) ||
           (nameSpace != std::string::npos && IsNumbered(name.substr(0, nameSpace), "nvme", false) &&
            IsNumbered(name.substr(nameSpace), "n", false));
}

/** Whole disks of drivers that speak no SCSI or ATA, and NVMe disks beyond the tenth controller. */
std::vector<std::string> NotLookedAt(const HostFacts& facts)
{
    const std::vector<std::string> lookedAt = DeviceFileNames(facts.names, std::nullopt);
    std::vector<std::string> found;
    for (const std::string& name : facts.names) {
        if (IsDiskName(name) && std::find(lookedAt.begin(), lookedAt.end(), name) == lookedAt.end()) {
            found.push_back(deviceDirectory + name);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

/** "1 device file" or "3 device files", and their names in brackets. */
std::string Count(const std::vector<std::string>& paths, const std::string& what)
{
    std::vector<std::string> printable(paths.size());
    std::transform(paths.begin(), paths.end(), printable.begin(),
                   [](const std::string& path) { return Printable(path); });
    return std::to_string(paths.size()) + " " + what + (paths.size() == 1 ? "" : "s") + " (" +
           boost::algorithm::join(printable, ", ") + ")";
}

/**
 * The files of a kind, each once, without those whose device is visible in some class: without the
 * sg driver a disk's file stands in two.
 */
template <typename Condition>
std::vector<std::string> PathsWhere(const Diagnosis& diagnosis, Condition condition)
{
    std::set<std::string> settled;
    for (const ClassFiles& one : diagnosis.classes) {
        for (const CheckedFile& file : one.files) {
            if (file.visibility == Visibility::Visible || file.visibility == Visibility::NotAsked) {
                settled.insert(file.path);
            }
        }
    }
    std::vector<std::string> paths;
    for (const ClassFiles& one : diagnosis.classes) {
        for (const CheckedFile& file : one.files) {
            if (condition(file) && settled.insert(file.path).second) {
                paths.push_back(file.path);
            }
        }
    }
    return paths;
}

/** A request that opening the file gave no right to. EPERM is no sign: the sg driver has it for what it does not know.
 */
bool WasRefusedARequest(const CheckedFile& file)
{
    return std::any_of(file.requests.begin(), file.requests.end(),
                       [](const RequestResult& request) { return request.error == EACCES; });
}

void AdviseOnSg(const HostFacts& facts, std::vector<std::string>& advice)
{
    if (facts.sgUsed) {
        return;
    }
    const std::string consequence = "Until then the generic class asks /dev/sd* instead, where only ATA disks answer.";
    if (!facts.modprobeFindsSg && facts.sgLoaded) {
        advice.push_back("The sg driver is loaded, but \"modprobe sg\", by which a scan makes sure of it, fails here: "
                         "see that modprobe is in the PATH (/usr/sbin) and that /lib/modules is that of the running "
                         "kernel. " +
                         consequence);
    } else if (!facts.modprobeFindsSg) {
        advice.push_back("The sg driver is not loaded and \"modprobe sg\" finds none: see that modprobe is in the PATH "
                         "(/usr/sbin), and that the modules of the running kernel are installed; in a container, load "
                         "it on its host. " +
                         consequence);
    } else {
        advice.push_back("The sg driver is not loaded and this process may not load it: run \"modprobe sg\" as root "
                         "once, or have it loaded at boot (/etc/modules-load.d). " +
                         consequence);
    }
}

std::vector<std::string> Advise(const Diagnosis& diagnosis)
{
    const HostFacts& facts = diagnosis.facts;
    std::vector<std::string> advice;
    if (facts.directoryError != 0) {
        advice.push_back("The device files cannot be listed (/dev): " + DescribeError(facts.directoryError) +
                         (facts.userIsRoot ? "." : "; run zddevices as root."));
        return advice;
    }
    const std::vector<std::string> deniedPaths =
        PathsWhere(diagnosis, [](const CheckedFile& one) { return one.visibility == Visibility::Denied; });
    if (!deniedPaths.empty()) {
        std::vector<DeniedFile> denied;
        denied.reserve(deniedPaths.size());
        for (const std::string& path : deniedPaths) {
            denied.push_back({path, OpeningGroup(path)});
        }
        advice.push_back(DescribeDenied(denied, facts.userIsRoot) + ".");
    }
    const std::vector<std::string> refused = PathsWhere(diagnosis, WasRefusedARequest);
    if (!refused.empty()) {
        advice.push_back(Count(refused, "device file") +
                         " could be opened, but the kernel keeps a command that is needed there from this user; " +
                         (facts.userIsRoot ? "even root may not here: grant this container or service the capabilities "
                                             "CAP_SYS_ADMIN and CAP_SYS_RAWIO."
                                           : "run zddevices as root. Membership of the group is not enough for it."));
    }
    const std::vector<std::string> busy =
        PathsWhere(diagnosis, [](const CheckedFile& one) { return one.openError == EBUSY; });
    if (!busy.empty()) {
        advice.push_back(Count(busy, "device file") + (busy.size() == 1 ? " is" : " are") +
                         " in use by another program; ask again when it has ended.");
    }
    const std::vector<std::string> absent = PathsWhere(diagnosis, [](const CheckedFile& one) {
        return one.visibility == Visibility::CannotBeOpened && one.openError != EBUSY;
    });
    if (!absent.empty()) {
        advice.push_back(Count(absent, "device file") + " cannot be opened: no device or no driver is behind " +
                         (absent.size() == 1 ? "it" : "them") +
                         "; attach the device, load its driver, or remove what " + "is left of it.");
    }
    const std::vector<std::string> late =
        PathsWhere(diagnosis, [](const CheckedFile& one) { return one.visibility == Visibility::NoAnswerInTime; });
    if (!late.empty()) {
        advice.push_back(Count(late, "device file") + (late.size() == 1 ? " has" : " have") +
                         " not answered in time: look at the kernel's messages (dmesg), at cables and power. A scan "
                         "waits there too; zddevices --timeout bounds it.");
    }
    const std::vector<std::string> useless = PathsWhere(diagnosis, [](const CheckedFile& one) {
        return one.visibility == Visibility::NoUsableAnswer && !WasRefusedARequest(one);
    });
    if (!useless.empty()) {
        advice.push_back(Count(useless, "device file") +
                         " can be opened, but nothing there answers as a SCSI, ATA or NVMe device; if it should, look "
                         "at the kernel's messages (dmesg).");
    }
    AdviseOnSg(facts, advice);
    if (!diagnosis.notLookedAt.empty()) {
        advice.push_back(Count(diagnosis.notLookedAt, "device file") +
                         (diagnosis.notLookedAt.size() == 1 ? " is" : " are") +
                         " not among those that the library looks at (virtio, Xen and memory cards answer no SCSI or "
                         "ATA command; NVMe names end at nvme9n9); nothing can be done about that here.");
    }
    if (std::all_of(diagnosis.classes.begin(), diagnosis.classes.end(),
                    [](const ClassFiles& one) { return one.files.empty(); })) {
        advice.push_back("There is no device file to look at. In a container, pass the host's devices through; on a "
                         "machine, see that the drivers of its controllers are loaded (lspci -k).");
    }
    return advice;
}

}  // namespace

bool Diagnosis::AllVisible() const
{
    return facts.directoryError == 0 && PathsWhere(*this, [](const CheckedFile& /*any*/) { return true; }).empty();
}

HostFacts LookAtHost(Duration limit)
{
    constexpr unsigned int capabilityToLoadModules = 16;
    const std::string yes = "yes";
    HostFacts facts;
    // modprobe may hang, as a device may. With -D it only looks for the module; busybox knows that, too.
    const Outcome sg = RunWorkers({[&yes](const NoteDeviceFile& /*noteDeviceFile*/) -> std::vector<std::string> {
                                      const bool used = LoadSgDriver();
                                      const bool found = used || std::system("modprobe -D sg >/dev/null 2>&1") == 0;
                                      return {used ? yes : "", found ? yes : ""};
                                  }},
                                  limit)
                           .front();
    facts.sgUsed = sg.answer && sg.answer->front() == yes;
    std::error_code error;
    facts.sgLoaded = std::filesystem::exists("/sys/module/sg", error);
    facts.modprobeFindsSg = facts.sgUsed || (!facts.sgLoaded && sg.answer && sg.answer->back() == yes);
    facts.mayLoadModules = HasCapability(capabilityToLoadModules) && !ModulesAreLocked();
    facts.userIsRoot = geteuid() == 0;
    try {
        for (const auto& entry : std::filesystem::directory_iterator(deviceDirectory)) {
            if (!entry.is_directory(error)) {
                facts.names.push_back(entry.path().filename().string());
            }
        }
    } catch (const std::filesystem::filesystem_error& failure) {
        facts.directoryError = failure.code().value();
    }
    return facts;
}

std::vector<CheckedFile> CheckInWorkers(SysDeviceType type, const std::vector<std::string>& paths,
                                        Duration limitPerDevice, Observer* observer)
{
    std::vector<CheckedFile> files;
    for (std::size_t first = 0; first < paths.size(); first += devicesAtATime) {
        const std::size_t end = std::min(first + devicesAtATime, paths.size());
        std::vector<Task> tasks;
        for (std::size_t i = first; i < end; ++i) {
            tasks.emplace_back([type, &path = paths[i]](const NoteDeviceFile& noteDeviceFile) {
                return TextsOf(CheckDeviceFile(type, path, noteDeviceFile));
            });
        }
        for (Outcome& outcome : RunWorkers(tasks, limitPerDevice, observer)) {
            CheckedFile file;
            file.path = paths[files.size()];
            file.visibility = Visibility::NoAnswerInTime;
            files.push_back(outcome.answer ? CheckedFileFrom(*outcome.answer) : file);
        }
    }
    return files;
}

Diagnosis Diagnose(const HostFacts& facts, Duration limitPerDevice, const CheckDeviceFiles& checkDeviceFiles)
{
    Diagnosis diagnosis;
    diagnosis.facts = facts;
    diagnosis.secondsPerDevice = std::chrono::duration<double>(limitPerDevice).count();
    for (const DeviceClass& deviceClass : deviceClasses) {
        std::vector<std::string> paths;
        for (const std::string& name : FilesOf(deviceClass.type, facts)) {
            paths.push_back(deviceDirectory + name);
        }
        // One class after the other: several files of one device are then not asked at the same time.
        diagnosis.classes.push_back({deviceClass.type, checkDeviceFiles(deviceClass.type, paths)});
    }
    diagnosis.notLookedAt = NotLookedAt(facts);
    diagnosis.advice = Advise(diagnosis);
    return diagnosis;
}

}  // namespace ZDDevices
}  // namespace Zendra
