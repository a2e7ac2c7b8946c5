#include "module/osinfos/systemdevice/deviceCollector.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "common/logger/logLine.h"
#include "module/osinfos/systemdevice/deviceMerge.h"
#include "module/osinfos/systemdevice/firmwareIdentity.h"
#include "module/osinfos/systemdevice/sysDevice.h"

namespace Zendra::ZDSystemDevice {

namespace {

struct DeviceClass {
    SysDeviceType type;
    const char* noneFound;
};

/** The order decides which record of a device wins. */
const std::array<DeviceClass, 4> deviceClasses = {{
    {SYS_DEVICE_TAPE, " There has none tape device file."},
    {SYS_DEVICE_SCSI, " There has none scsi device file."},
    {SYS_DEVICE_PHYSICAL_DRIVE, " There has none physical driver device file. "},
    {SYS_DEVICE_CDDVD, " There has none cddvd device file. "},
}};

}  // namespace

void Internal::KeepLibraryNeeded() {}

DeviceCollector::DeviceCollector()
{
    ZENDRA_LOG(4, "Enter construct DeviceCollector ");
}

DeviceCollector::~DeviceCollector() = default;

unsigned int DeviceCollector::GetIndividualDevice(std::vector<SystemDevice>& devices, SysDeviceType type)
{
    ZENDRA_LOG(4, "Enter DeviceCollector::GetIndividualDevice() device type = " << static_cast<std::int32_t>(type));
    SysDevice worker(type);
    return worker.GetData(devices);
}

unsigned int DeviceCollector::GetAllDevice(std::vector<SystemDevice>& devices)
{
    ZENDRA_LOG(4, "Enter DeviceCollector::GetAllDevice()");
    std::vector<SystemDevice> accumulated;
    std::size_t taken = 0;
    for (const DeviceClass& deviceClass : deviceClasses) {
        if (GetIndividualDevice(accumulated, deviceClass.type) == DEVICE_RESULT_NONE) {
            // Records that it left all the same would count with those of the next class (oddity: none-keeps-records).
            ZENDRA_LOG(4, deviceClass.noneFound);
            continue;
        }
        taken = accumulated.size();
    }
    accumulated.resize(taken);

    MergeByAddress(std::move(accumulated), devices);
    ZENDRA_LOG(4, "Leave DeviceCollector::GetAllDevice()");
    return DEVICE_RESULT_OK;
}

unsigned int DeviceCollector::GetOpticalProperties(std::vector<OpticalProperty>& properties)
{
    ZENDRA_LOG(4, "Enter DeviceCollector::GetOpticalProperties()");
    SysDevice worker(SYS_DEVICE_CDDVD);
    const unsigned int result = worker.GetOpticalData(properties);
    if (result == DEVICE_RESULT_NONE) {
        // "Propertys" (oddity: propertys).
        ZENDRA_LOG(4, "DeviceCollector::GetOpticalPropertys() has none cddvd devices");
    }
    ZENDRA_LOG(4, "Leave DeviceCollector::GetOpticalProperties()");
    return result;
}

unsigned int
DeviceCollector::GetDiskDriverSoftwareIdentities(std::vector<Zendra::ZDOptions::SoftwareIdentity_>& identities)
{
    // The texts of this method call it GetSoftwareIdentities (oddity: software-identities-name).
    ZENDRA_LOG(4, "Enter DeviceCollector::GetSoftwareIdentities()");
    SysDevice worker(SYS_DEVICE_PHYSICAL_DRIVE);
    std::vector<SystemDevice> disks;
    const unsigned int result = worker.GetData(disks);
    if (result == DEVICE_RESULT_NONE) {
        ZENDRA_LOG(4, "DeviceCollector::GetDiskDriverSoftwareIdentities() has none disk devices");
    }
    for (const SystemDevice& disk : disks) {
        if (!HasFirmwareIdentity(disk)) {
            continue;
        }
        if (IsNamedByVendor(disk)) {
            // The product is blank, but the text speaks of the vendor (oddity: blank-product-text).
            ZENDRA_LOG(4, "GetSoftwareIdentities vendor_id_ is empty ");
        }
        const ZDOptions::SoftwareIdentity_ identity = FirmwareIdentityOf(disk);
        ZENDRA_LOG(4, "GetSoftwareIdentities software id = " << identity.SoftwareID
                                                             << "  version string = " << identity.VersionString);
        identities.push_back(identity);
    }
    ZENDRA_LOG(4, "Leave DeviceCollector::GetSoftwareIdentities()");
    return result;
}

}  // namespace Zendra::ZDSystemDevice
