#include "tools/zddevices/scan/missing.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "module/osinfos/systemdevice/deviceNames.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/scan/access.h"

namespace Zendra::ZDDevices {

namespace {

using ZDSystemDevice::SysDeviceType;

/** What a driver makes of devices of one SCSI type. */
struct TypeDriver {
    unsigned int scsiType;
    const char* what;
    const char* module;
    SysDeviceType deviceClass;
};
constexpr std::array<TypeDriver, 9> typeDrivers = {{
    {0x00, "disk", "sd_mod", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
    {0x01, "tape drive", "st", ZDSystemDevice::SYS_DEVICE_TAPE},
    {0x04, "write-once drive", "sr_mod", ZDSystemDevice::SYS_DEVICE_CDDVD},
    {0x05, "optical drive", "sr_mod", ZDSystemDevice::SYS_DEVICE_CDDVD},
    {0x07, "optical disk", "sd_mod", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
    {0x0E, "disk", "sd_mod", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
    {0x14, "zoned disk", "sd_mod", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
    // These two have files that no class looks at; their sg node is what counts.
    {0x08, "medium changer", "sg", ZDSystemDevice::SYS_DEVICE_SCSI},
    {0x0D, "enclosure", "sg", ZDSystemDevice::SYS_DEVICE_SCSI},
}};
constexpr TypeDriver otherType = {0x1F, "SCSI device", "sg", ZDSystemDevice::SYS_DEVICE_SCSI};

const TypeDriver& DriverOf(unsigned int scsiType)
{
    const auto* const found = std::find_if(typeDrivers.begin(), typeDrivers.end(),
                                           [&](const TypeDriver& one) { return one.scsiType == scsiType; });
    if (found == typeDrivers.end()) {
        return otherType;
    }
    return *found;
}

/** Why a controller gave no record; none where it has no disk and is in order. */
std::optional<Missing> WhyNoNvmeRecord(const KernelDevice& controller)
{
    // The first file is a namespace's where there is one, else the controller's own.
    const std::string& first = controller.files.front();
    if (first.find('n', std::string("/dev/n").size()) == std::string::npos) {
        if (IsInService(controller.state)) {
            return std::nullopt;
        }
        return Missing{first, Reason::Offline, 0, DescribeOutOfService(controller.state), {}};
    }
    const auto asked = std::find_if(controller.files.begin(), controller.files.end(), [](const std::string& file) {
        return ZDSystemDevice::IsDeviceFileName(ZDSystemDevice::DevicePrefix::nvmeDisk,
                                                file.substr(std::string("/dev/").size()));
    });
    if (asked == controller.files.end()) {
        return Missing{first, Reason::NotAsked, 0, "the library asks no NVMe disk of this name", {}};
    }
    return Missing{*asked, Reason::NotAsked, 0, "the kernel has this NVMe disk, /dev has no such file", {}};
}

/** Knows which devices have one of these files, by its name or, where a container has given it another, by its number.
 */
class Accounted {
public:
    Accounted(const KernelDevices& ofKernel, const std::set<std::string>& files) : kernel(ofKernel), paths(files) {}

    bool Has(const KernelDevice& device)
    {
        return std::any_of(device.files.begin(), device.files.end(),
                           [this](const std::string& file) { return paths.count(file) > 0; }) ||
               ByNumber().count(&device) > 0;
    }

private:
    const std::set<const KernelDevice*>& ByNumber()
    {
        if (!byNumber) {
            byNumber.emplace();
            for (const std::string& path : paths) {
                byNumber->insert(kernel.OfFile(path));
            }
        }
        return *byNumber;
    }

    const KernelDevices& kernel;
    const std::set<std::string>& paths;
    /** Looked for when the names leave a device out, which on most hosts they do not. */
    std::optional<std::set<const KernelDevice*>> byNumber;
};

}  // namespace

bool IsInService(const std::string& state)
{
    // Of SCSI devices and of NVMe controllers; what has no state is not known to be out of service.
    return state.empty() || state == "running" || state == "live";
}

std::string DescribeOutOfService(const std::string& state)
{
    return "out of service: the kernel has set it \"" + state + "\"";
}

const char* WordOf(Reason reason)
{
    switch (reason) {
    case Reason::Denied:
        return "denied";
    case Reason::Refused:
        return "refused";
    case Reason::NoAnswerInTime:
        return "no_answer_in_time";
    case Reason::Offline:
        return "offline";
    case Reason::Busy:
        return "busy";
    case Reason::NoMedium:
        return "no_medium";
    case Reason::Removed:
        return "removed";
    case Reason::WorkerDied:
        return "worker_died";
    case Reason::NotAsked:
        return "not_asked";
    case Reason::NoDriver:
        return "no_driver";
    case Reason::NoUsableAnswer:
        break;
    }
    return "no_usable_answer";
}

Missing WhyNoRecord(const FailedFile& file, const KernelDevice* device)
{
    const int error = file.openError != 0 ? file.openError : file.error;
    const auto because = [&](Reason reason, const std::string& message) {
        return Missing{file.path, reason, error, message, {}};
    };
    if (device != nullptr && !IsInService(device->state)) {
        return because(Reason::Offline, DescribeOutOfService(device->state));
    }
    switch (error) {
    case EACCES:
    case EPERM:
        if (file.openError == EPERM) {
            // Not the file's permissions: the device cgroup answers so.
            return because(Reason::Denied, "this container or service has no access to the device");
        }
        if (file.openError != 0) {
            return WhyDenied(DeniedFileAt(file.path));
        }
        return because(Reason::Refused, "the kernel keeps a command that is needed here from this user");
    case EBUSY:
        return because(Reason::Busy, "in use by another program");
    case ENOMEDIUM:
        return because(Reason::NoMedium, "without a medium in it the drive cannot be opened");
    case ENOENT:
    case ENXIO:
    case ENODEV:
        return because(Reason::Removed, "no device is behind it, or not any more");
    case 0:
        return because(Reason::NoUsableAnswer, "answers with an error, or not as a SCSI, ATA or NVMe device");
    default:
        return because(Reason::NoUsableAnswer,
                       (file.openError != 0 ? "cannot be opened: " : "gives no answer: ") + DescribeError(error));
    }
}

Missing WhyDenied(const DeniedFile& file)
{
    return {file.path, Reason::Denied, EACCES,
            file.group.empty() ? "only root may open it" : "root and the group " + file.group + " may open it",
            file.group};
}

std::vector<Missing> DevicesWithoutFile(const KernelDevices& kernel, std::optional<SysDeviceType> type,
                                        const std::set<std::string>& accounted)
{
    std::vector<Missing> missing;
    // Where /dev may not be listed, nobody knows which files are there.
    if (accounted.count("/dev") > 0) {
        return missing;
    }
    Accounted known(kernel, accounted);
    for (const KernelDevice& device : kernel.All()) {
        if (!device.isConnected) {
            continue;
        }
        const std::string file = device.files.empty() ? "" : device.files.front();
        const bool isAccounted = known.Has(device);
        if (!device.scsiType) {
            const bool isAsked =
                type.value_or(ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE) == ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
            std::optional<Missing> why = isAsked && !isAccounted ? WhyNoNvmeRecord(device) : std::nullopt;
            if (why) {
                missing.push_back(std::move(*why));
            }
            continue;
        }
        const TypeDriver& driver = DriverOf(*device.scsiType);
        // Of its own class a device is missing although the generic class may list it.
        const bool lacksDriver =
            !device.hasDriver && type == driver.deviceClass && driver.deviceClass != ZDSystemDevice::SYS_DEVICE_SCSI;
        if (type.value_or(driver.deviceClass) != driver.deviceClass || (isAccounted && !lacksDriver)) {
            continue;
        }
        const std::string name = std::string(driver.what) + " at " + device.address;
        if (device.hasDriver && driver.deviceClass != ZDSystemDevice::SYS_DEVICE_SCSI) {
            missing.push_back(
                {file, Reason::NotAsked, 0, "the kernel has this " + name + ", /dev has no such file", {}});
        } else {
            missing.push_back(
                {file, Reason::NoDriver, 0, "the " + name + " lacks a driver: modprobe " + driver.module, {}});
        }
    }
    return missing;
}

}  // namespace Zendra::ZDDevices
