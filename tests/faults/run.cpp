#include "run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "common/logger/log.h"
#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Faults {

namespace {

using Zendra::ZDOptions::SoftwareIdentity_;
using Zendra::ZDSystemDevice::DeviceCollector;
using Zendra::ZDSystemDevice::OpticalProperty;
using Zendra::ZDSystemDevice::SysDeviceType;
using Zendra::ZDSystemDevice::SystemDevice;

std::vector<std::string>* linesOfRun = nullptr;

void KeepLine(unsigned /*level*/, const char* /*file*/, int /*line*/, const std::string& message)
{
    // In a forked child nobody reads them.
    if (Watch::Current() == nullptr) {
        return;
    }
    // A sink may need memory too, and there may be none.
    const std::vector<char> copy(message.begin(), message.end());
    const Pause pause;
    linesOfRun->emplace_back(copy.begin(), copy.end());
}

Fields FieldsOf(const SystemDevice& device)
{
    return {
        device.vendor, device.product, device.device_type, device.serial_number, device.firmware_revision, device.port,
        device.target, device.bus,     device.lun};
}

Fields FieldsOf(const OpticalProperty& drive)
{
    return {drive.drive_name_,  drive.vendor_,     drive.product_,  drive.dvd_ram_write_,
            drive.cd_rw_write_, drive.cd_r_write_, drive.dvd_read_, drive.dvd_r_write_,
            drive.mrw_r_,       drive.mrw_w_,      drive.ram_w_};
}

Fields FieldsOf(const SoftwareIdentity_& identity)
{
    return {identity.Description,
            identity.ElementName,
            identity.ProductName,
            identity.Manufacturer,
            identity.Name,
            identity.VersionString,
            identity.Classifications,
            identity.ClassificationDescriptions,
            identity.IdentityInfoValue,
            identity.SoftwareID,
            identity.SubDeviceID,
            identity.ReleaseDate,
            identity.SoftwareStatus,
            identity.SoftwareRole,
            identity.IdentityInfoType,
            identity.IsPLDMUpdateSupported,
            identity.InstanceID,
            identity.AssociatedAdapterSlot,
            identity.LastUpdateError,
            identity.LastUpdateErrorString,
            identity.SerialNumber,
            identity.ExtraInfo,
            std::to_string(identity.Category)};
}

const char heldText[] = "held before the call, and too long for a short string";

SystemDevice Held(const SystemDevice*)
{
    SystemDevice device;
    device.vendor = heldText;
    device.lun = heldText;
    return device;
}

OpticalProperty Held(const OpticalProperty*)
{
    OpticalProperty drive;
    drive.drive_name_ = heldText;
    drive.ram_w_ = heldText;
    return drive;
}

SoftwareIdentity_ Held(const SoftwareIdentity_*)
{
    SoftwareIdentity_ identity;
    identity.Name = heldText;
    identity.ExtraInfo = heldText;
    return identity;
}

template <class Record, class Invoke>
void RunWith(Ran& ran, const std::optional<Fault>& fault, Invoke invoke)
{
    constexpr std::size_t heldCount = 2;
    const Record held = Held(static_cast<const Record*>(nullptr));
    std::vector<Record> records(heldCount, held);
    records.shrink_to_fit();

    ran.watch = std::make_unique<Watch>(fault);
    try {
        DeviceCollector collector;
        ran.result.status = invoke(collector, records);
    } catch (const std::bad_alloc&) {
        const Pause pause;
        ran.threw = true;
    } catch (const std::exception& error) {
        const Pause pause;
        ran.complaints.push_back(std::string("an exception left the library: ") + error.what());
    }
    ran.watch->Stop();

    for (std::size_t i = 0; i < records.size(); ++i) {
        if (i >= heldCount) {
            ran.result.records.push_back(FieldsOf(records[i]));
        } else if (FieldsOf(records[i]) != FieldsOf(held)) {
            ran.complaints.push_back("what the vector held before has changed");
        }
    }
    if (records.size() < heldCount) {
        ran.complaints.push_back("the vector has lost what it held before");
    }
}

}  // namespace

Ran RunCall(SimHost::MountedHost& mounted, const SimHost::Call& call, unsigned logLevel,
            const std::optional<Fault>& fault)
{
    Ran ran;
    mounted.BeginCall();
    const std::size_t complaintsBefore = mounted.Complaints().size();
    const std::map<int, std::string> descriptorsBefore = OpenDescriptors();
    linesOfRun = &ran.lines;
    Zendra::Log::SetSink(KeepLine);
    Zendra::Log::SetMinLogLevel(logLevel);
    SetHost(&mounted);

    switch (call.kind) {
    case SimHost::CallKind::All:
        RunWith<SystemDevice>(ran, fault, [](DeviceCollector& collector, std::vector<SystemDevice>& devices) {
            return collector.GetAllDevice(devices);
        });
        break;
    case SimHost::CallKind::Individual:
        RunWith<SystemDevice>(ran, fault, [&](DeviceCollector& collector, std::vector<SystemDevice>& devices) {
            return collector.GetIndividualDevice(devices, static_cast<SysDeviceType>(call.type));
        });
        break;
    case SimHost::CallKind::Optical:
        RunWith<OpticalProperty>(ran, fault, [](DeviceCollector& collector, std::vector<OpticalProperty>& drives) {
            return collector.GetOpticalProperties(drives);
        });
        break;
    case SimHost::CallKind::Firmware:
        RunWith<SoftwareIdentity_>(ran, fault,
                                   [](DeviceCollector& collector, std::vector<SoftwareIdentity_>& identities) {
                                       return collector.GetDiskDriverSoftwareIdentities(identities);
                                   });
        break;
    }

    SetHost(nullptr);
    Zendra::Log::SetMinLogLevel(0);
    Zendra::Log::SetSink(nullptr);
    linesOfRun = nullptr;
    ran.leftBlocks = LiveBlocks();
    FreeLiveBlocks();
    while (waitpid(-1, nullptr, 0) > 0) {
        ++ran.leftChildren;
    }
    for (const auto& [descriptor, target] : OpenDescriptors()) {
        const auto before = descriptorsBefore.find(descriptor);
        if (before == descriptorsBefore.end() || before->second != target) {
            ran.leftDescriptors[descriptor] = target;
            close(descriptor);
        }
    }
    for (const auto& [descriptor, target] : descriptorsBefore) {
        if (OpenDescriptors().count(descriptor) == 0) {
            ran.complaints.push_back("descriptor " + std::to_string(descriptor) + " (" + target + ") was closed");
        }
    }
    for (const std::string& misuse : ran.watch->Misuses()) {
        ran.complaints.push_back(misuse);
    }
    for (std::size_t i = complaintsBefore; i < mounted.Complaints().size(); ++i) {
        ran.complaints.push_back(mounted.Complaints()[i]);
    }
    return ran;
}

}  // namespace Faults
