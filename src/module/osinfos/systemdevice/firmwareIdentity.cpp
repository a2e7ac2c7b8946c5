#include "module/osinfos/systemdevice/firmwareIdentity.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <string>

namespace Zendra::ZDSystemDevice {

bool HasFirmwareIdentity(const SystemDevice& disk)
{
    const std::string product = boost::algorithm::to_lower_copy(disk.product);
    return product.find("raid") == std::string::npos && product.find("m.2") == std::string::npos;
}

bool IsNamedByVendor(const SystemDevice& disk)
{
    return disk.product.find_first_not_of(' ') == std::string::npos;
}

ZDOptions::SoftwareIdentity_ FirmwareIdentityOf(const SystemDevice& disk)
{
    ZDOptions::SoftwareIdentity_ identity;
    identity.SoftwareID = IsNamedByVendor(disk) ? disk.vendor : disk.product;
    boost::algorithm::trim(identity.SoftwareID);
    identity.SerialNumber = disk.serial_number;
    identity.Name = identity.SoftwareID;
    identity.VersionString = disk.firmware_revision;
    identity.Classifications = "10";  // CIM: firmware
    return identity;
}

}  // namespace Zendra::ZDSystemDevice
