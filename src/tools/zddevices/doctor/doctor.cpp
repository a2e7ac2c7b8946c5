#include "tools/zddevices/doctor/doctor.h"

#include <fnmatch.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/join.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <system_error>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/scan/access.h"
#include "tools/zddevices/scan/library.h"

namespace Zendra::ZDDevices {

namespace {

using ZDSystemDevice::SysDeviceType;

const std::string deviceDirectory = "/dev/";

/** So many device files are asked at a time. */
constexpr std::size_t filesAtATime = 16;

/** One that takes longer does not count among those that are being asked, so sick ones do not use up the time. */
constexpr Duration longestPatience = std::chrono::seconds(1);

bool MayLoadModules()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> capabilities{};
    int locked = 0;
    std::ifstream("/proc/sys/kernel/modules_disabled") >> locked;
    return locked == 0 && syscall(SYS_capget, &header, capabilities.data()) == 0 &&
           (capabilities[0].effective & CAP_TO_MASK(CAP_SYS_MODULE)) != 0;
}

std::vector<std::string> FilesOf(SysDeviceType type, const HostFacts& facts)
{
    std::vector<std::string> names;
    // The library decides by "modprobe sg" alone which of the two kinds the generic class takes, not by what is there.
    const std::string unused = facts.sgUsed ? "sd" : "sg";
    std::copy_if(facts.names.begin(), facts.names.end(), std::back_inserter(names), [&](const std::string& name) {
        return type != ZDSystemDevice::SYS_DEVICE_SCSI || name.rfind(unused, 0) != 0;
    });
    return DeviceFileNames(names, type);
}

/** Whether the library lists the device behind this file by another file: an NVMe disk by its controller's. */
bool IsListedOtherwise(const std::string& path, const Diagnosis& diagnosis, const KernelDevices& kernel)
{
    const KernelDevice* const device = kernel.OfFile(path);
    return device != nullptr &&
           std::any_of(diagnosis.classes.begin(), diagnosis.classes.end(), [&](const ClassFiles& one) {
               return std::any_of(one.files.begin(), one.files.end(), [&](const CheckedFile& file) {
                   return file.visibility == Visibility::Visible && kernel.OfFile(file.path) == device;
               });
           });
}

/** Whole disks of drivers that speak no SCSI or ATA, and NVMe disks beyond those that the library knows by name. */
std::vector<std::string> NotLookedAt(const Diagnosis& diagnosis, const KernelDevices& kernel)
{
    const HostFacts& facts = diagnosis.facts;
    constexpr const char* wholeDisk = "@(vd+([a-z])|xvd+([a-z])|mmcblk+([0-9])|nvme+([0-9])n+([0-9]))";
    const std::vector<std::string> lookedAt = DeviceFileNames(facts.names, std::nullopt);
    std::vector<std::string> found;
    for (const std::string& name : facts.names) {
        if (fnmatch(wholeDisk, name.c_str(), FNM_EXTMATCH) == 0 &&
            std::find(lookedAt.begin(), lookedAt.end(), name) == lookedAt.end() &&
            !IsListedOtherwise(deviceDirectory + name, diagnosis, kernel)) {
            found.push_back(deviceDirectory + name);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

/** Whether this one keeps no device from the user. */
bool IsSettled(const CheckedFile& file)
{
    return file.visibility == Visibility::Visible || file.visibility == Visibility::NotAsked;
}

using Condition = bool (*)(const CheckedFile& file);

/**
 * The files of a kind, each once, without those whose device is visible in some class: without the
 * sg driver a disk's file stands in two.
 */
std::vector<std::string> PathsWhere(const Diagnosis& diagnosis, Condition condition)
{
    std::set<std::string> settled;
    std::vector<std::string> paths;
    for (const Condition take : {IsSettled, condition}) {
        for (const ClassFiles& one : diagnosis.classes) {
            for (const CheckedFile& file : one.files) {
                if (take(file) && settled.insert(file.path).second && take == condition) {
                    paths.push_back(file.path);
                }
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

/** What to do about some device files: their number and names, and how the sentence goes on. */
struct FileAdvice {
    std::vector<std::string> paths;
    /** For one file, and for several. */
    const char* verb;
    const char* pluralVerb;
    std::string rest;
};

/** How the SCSI devices among these come back into service. */
std::string AdviseOnReturn(const std::vector<std::string>& paths, const KernelDevices& kernel)
{
    std::set<std::string> commands;
    for (const std::string& path : paths) {
        const KernelDevice* const device = kernel.OfFile(path);
        if (device != nullptr && !device->address.empty()) {
            commands.insert("echo running > /sys/class/scsi_device/" + device->address + "/device/state");
        }
    }
    return commands.empty() ? ""
                            : " When the device answers again, run as root: " + boost::algorithm::join(commands, "; ");
}

/** What to do about device files that were asked or left out. */
std::vector<FileAdvice> AdviseOnFiles(const Diagnosis& diagnosis, const KernelDevices& kernel)
{
    const auto pathsWhere = [&](Condition condition) { return PathsWhere(diagnosis, condition); };
    const std::vector<std::string> offline =
        pathsWhere([](const CheckedFile& one) { return one.visibility == Visibility::Offline; });
    return {
        {pathsWhere(WasRefusedARequest), "could", "could",
         std::string("be opened, but the kernel keeps a command that is needed there from this user; ") +
             (diagnosis.facts.userIsRoot ? "even root may not here: grant this container or service the capabilities "
                                           "CAP_SYS_ADMIN and CAP_SYS_RAWIO."
                                         : "run zddevices as root. Membership of the group is not enough for it.")},
        {offline, "is", "are",
         "out of service: look at the kernel's messages (dmesg), at cables and power." +
             AdviseOnReturn(offline, kernel)},
        {pathsWhere([](const CheckedFile& one) {
             return one.visibility == Visibility::CannotBeOpened && one.openError == EBUSY;
         }),
         "is", "are", "in use by another program; ask again when it has ended."},
        {pathsWhere([](const CheckedFile& one) {
             return one.visibility == Visibility::CannotBeOpened && one.openError != EBUSY;
         }),
         "cannot be opened: no device or no driver is behind it;",
         "cannot be opened: no device or no driver is behind them;",
         "attach the device, load its driver, or remove what is left of it."},
        {pathsWhere([](const CheckedFile& one) { return one.visibility == Visibility::NoAnswerInTime; }), "has", "have",
         "not answered in time: look at the kernel's messages (dmesg), at cables and power. A scan waits there too; "
         "zddevices --timeout bounds it."},
        {pathsWhere([](const CheckedFile& one) { return one.visibility == Visibility::NotAskedInTime; }), "was", "were",
         "not asked, because the time was over before: zddevices doctor --timeout gives more."},
        {pathsWhere([](const CheckedFile& one) { return one.visibility == Visibility::WorkerDied; }), "gave", "gave",
         "no answer, because the process that asks came to an end: look whether this host is short of memory or of "
         "processes, and ask again."},
        {pathsWhere([](const CheckedFile& one) {
             return one.visibility == Visibility::NoUsableAnswer && !WasRefusedARequest(one);
         }),
         "can", "can",
         "be opened, but nothing there answers as a SCSI, ATA or NVMe device; if it should, look at the kernel's "
         "messages (dmesg)."},
    };
}

/** "3 device files (/dev/sda, ...) are " and the rest. */
std::string Sentence(const FileAdvice& advice)
{
    const bool one = advice.paths.size() == 1;
    return std::to_string(advice.paths.size()) + (one ? " device file (" : " device files (") +
           Printable(boost::algorithm::join(advice.paths, ", ")) + ") " + (one ? advice.verb : advice.pluralVerb) +
           " " + advice.rest;
}

/** What to do about the sg driver that is not used. */
std::string AdviseOnSg(const HostFacts& facts)
{
    const char* const advice =
        facts.modprobeFindsSg && facts.mayLoadModules
            ? "The sg driver is not loaded and \"modprobe sg\" fails, although its module is there: look for a line "
              "about sg in /etc/modprobe.d, and at the kernel's messages (dmesg)."
        : facts.modprobeFindsSg
            ? "The sg driver is not loaded and this process may not load it: run \"modprobe sg\" as root once, or have "
              "it loaded at boot (/etc/modules-load.d)."
        : facts.sgLoaded
            ? "The sg driver is loaded, but \"modprobe sg\", by which a scan makes sure of it, fails here: see that "
              "modprobe is in the PATH (/usr/sbin) and that /lib/modules is that of the running kernel."
            : "The sg driver is not loaded and \"modprobe sg\" finds none: see that modprobe is in the PATH "
              "(/usr/sbin), and that the modules of the running kernel are installed; in a container, load it on its "
              "host.";
    return std::string(advice) + " Until then the generic class asks /dev/sd* instead, where only ATA disks answer.";
}

/** What to do where there is no device file of any class. */
std::string AdviseOnEmptiness(const Diagnosis& diagnosis)
{
    const bool hasVirtioDisk =
        std::any_of(diagnosis.notLookedAt.begin(), diagnosis.notLookedAt.end(),
                    [](const std::string& path) { return path.rfind(deviceDirectory + "vd", 0) == 0; });
    return hasVirtioDisk ? "This virtual machine's disks are virtio block devices, so the list is empty. A disk that "
                           "its hypervisor attaches to a virtio-scsi, SATA or NVMe controller is listed."
                         : "There is no device file to look at. In a container, pass the host's devices through; on a "
                           "machine, see that the drivers of its controllers are loaded (lspci -k).";
}

void TakeState(const KernelDevice* device, CheckedFile& file)
{
    if (device == nullptr) {
        return;
    }
    file.state = device->state;
    if (!IsSettled(file) && !IsInService(file.state)) {
        file.visibility = Visibility::Offline;
    }
}

/** @param asked all files that were asked, of whichever class. */
std::vector<Missing> FindDevicesWithoutFile(const KernelDevices& kernel, const std::set<std::string>& asked,
                                            const std::vector<std::string>& notLookedAt)
{
    std::vector<Missing> found;
    for (const DeviceClass& deviceClass : deviceClasses) {
        for (Missing& one : DevicesWithoutFile(kernel, deviceClass.type, asked)) {
            // A file that the library does not look at has advice of its own.
            if (std::find(notLookedAt.begin(), notLookedAt.end(), one.deviceFile) == notLookedAt.end()) {
                found.push_back(std::move(one));
            }
        }
    }
    return found;
}

std::vector<std::string> Advise(const Diagnosis& diagnosis, const KernelDevices& kernel)
{
    const HostFacts& facts = diagnosis.facts;
    if (facts.directoryError != 0) {
        return {"The device files cannot be listed (/dev): " + DescribeError(facts.directoryError) +
                (facts.userIsRoot ? "." : "; run zddevices as root.")};
    }
    std::vector<std::string> advice;
    std::vector<DeniedFile> denied;
    for (const std::string& path :
         PathsWhere(diagnosis, [](const CheckedFile& one) { return one.visibility == Visibility::Denied; })) {
        denied.push_back(DeniedFileAt(path));
    }
    if (!denied.empty()) {
        advice.push_back(DescribeDenied(denied, facts.userIsRoot) + ".");
    }
    for (const FileAdvice& one : AdviseOnFiles(diagnosis, kernel)) {
        if (!one.paths.empty()) {
            advice.push_back(Sentence(one));
        }
    }
    if (!facts.sgUsed) {
        advice.push_back(AdviseOnSg(facts));
    }
    if (!diagnosis.notLookedAt.empty()) {
        advice.push_back(Sentence(
            {diagnosis.notLookedAt, "is", "are",
             "not among those that the library looks at (virtio, Xen and memory cards answer no SCSI or ATA command; "
             "of NVMe disks it asks nvme0n1 to nvme9n9, and others by their controllers); nothing can be done about "
             "that here."}));
    }
    for (const std::string& line : DescribeMissing(diagnosis.withoutFile, facts.userIsRoot)) {
        advice.push_back(line + ".");
    }
    if (std::all_of(diagnosis.classes.begin(), diagnosis.classes.end(),
                    [](const ClassFiles& one) { return one.files.empty(); })) {
        advice.push_back(AdviseOnEmptiness(diagnosis));
    }
    return advice;
}

}  // namespace

bool Diagnosis::AllVisible() const
{
    return facts.directoryError == 0 && withoutFile.empty() &&
           PathsWhere(*this, [](const CheckedFile& /*any*/) { return true; }).empty();
}

HostFacts LookAtHost(Duration limit)
{
    // modprobe may hang, as a device may. With -D it only looks for the module; busybox knows that, too.
    const Task askForSg = [](const Tell& /*tell*/) -> std::vector<std::string> {
        return {LoadSgDriver() ? "used" : std::system("modprobe -D sg >/dev/null 2>&1") == 0 ? "found" : "missing"};
    };
    const Outcome sg = RunWorkers({askForSg}, {limit}).front();
    const std::string answer = sg.answer ? sg.answer->front() : "";
    std::error_code error;
    HostFacts facts;
    facts.sgUsed = answer == "used";
    facts.sgLoaded = std::filesystem::exists("/sys/module/sg", error);
    facts.modprobeFindsSg = facts.sgUsed || (!facts.sgLoaded && answer == "found");
    facts.mayLoadModules = MayLoadModules();
    facts.userIsRoot = geteuid() == 0;
    try {
        facts.names = ListDeviceDirectory();
    } catch (const std::system_error& failure) {
        facts.directoryError = failure.code().value();
    }
    facts.names.erase(std::remove_if(facts.names.begin(), facts.names.end(),
                                     [](const std::string& name) { return IsDirectory(deviceDirectory + name); }),
                      facts.names.end());
    return facts;
}

CheckedFile FileWithoutAnswer(const std::string& path, const Outcome& outcome)
{
    CheckedFile file;
    file.path = path;
    // A worker names the file before it asks the device.
    const Visibility inTime = outcome.deviceFile.empty() ? Visibility::NotAskedInTime : Visibility::NoAnswerInTime;
    file.visibility = outcome.late ? inTime : Visibility::WorkerDied;
    return file;
}

std::vector<CheckedFile> CheckInWorkers(const std::vector<FileOfClass>& files, Duration limit,
                                        std::chrono::steady_clock::time_point started, Observer* observer)
{
    constexpr int share = 4;
    std::vector<CheckedFile> checked;
    checked.reserve(files.size());
    // What is made below runs modprobe, too, which does not hang if it does not here.
    const Task loadDriver = [](const Tell& /*tell*/) -> std::vector<std::string> {
        return {LoadSgDriver() ? "sg" : ""};
    };
    const Outcome driver =
        RunWorkers({loadDriver}, {limit, nullptr, allAtOnce, Duration::max(), nullptr, started}).front();
    if (!driver.answer) {
        for (const FileOfClass& file : files) {
            checked.push_back(FileWithoutAnswer(file.path, driver));
        }
        return checked;
    }
    std::map<ZDSystemDevice::SysDeviceType, DeviceFileAsker> askers;
    std::vector<Task> tasks;
    tasks.reserve(files.size());
    for (const FileOfClass& file : files) {
        DeviceFileAsker& ask = askers[file.type];
        if (!ask) {
            ask = AskerOf(file.type);
        }
        tasks.emplace_back([&file, &ask](const Tell& tell) {
            return TextsOf(CheckDeviceFile(file.type, file.path, ask, tell.deviceFile));
        });
    }
    const Terms terms{limit, observer, filesAtATime, std::min(longestPatience, limit / share), nullptr, started};
    const std::deque<Outcome> outcomes = RunWorkers(std::move(tasks), terms);
    for (const Outcome& outcome : outcomes) {
        checked.push_back(outcome.answer ? CheckedFileFrom(*outcome.answer)
                                         : FileWithoutAnswer(files[checked.size()].path, outcome));
    }
    return checked;
}

Diagnosis Diagnose(const HostFacts& facts, Duration limit, const CheckDeviceFiles& checkDeviceFiles,
                   const std::function<KernelDevices()>& readKernel)
{
    Diagnosis diagnosis;
    diagnosis.facts = facts;
    diagnosis.limitSeconds = std::chrono::duration<double>(limit).count();
    std::vector<FileOfClass> files;
    for (const DeviceClass& deviceClass : deviceClasses) {
        for (const std::string& name : FilesOf(deviceClass.type, facts)) {
            files.push_back({deviceClass.type, deviceDirectory + name});
        }
    }
    std::vector<CheckedFile> checked = checkDeviceFiles(files);
    const KernelDevices kernel = readKernel();
    std::set<std::string> paths;
    for (std::size_t i = 0; i < files.size(); ++i) {
        TakeState(kernel.OfFile(files[i].path), checked[i]);
        paths.insert(files[i].path);
    }
    auto next = checked.begin();
    for (const DeviceClass& deviceClass : deviceClasses) {
        ClassFiles& one = diagnosis.classes.emplace_back();
        one.type = deviceClass.type;
        const auto count = std::count_if(files.begin(), files.end(),
                                         [&](const FileOfClass& file) { return file.type == deviceClass.type; });
        one.files.assign(std::make_move_iterator(next), std::make_move_iterator(next + count));
        next += count;
    }
    diagnosis.notLookedAt = NotLookedAt(diagnosis, kernel);
    if (facts.directoryError == 0) {
        diagnosis.withoutFile = FindDevicesWithoutFile(kernel, paths, diagnosis.notLookedAt);
    }
    diagnosis.advice = Advise(diagnosis, kernel);
    return diagnosis;
}

}  // namespace Zendra::ZDDevices
