/**
 * @file
 * @brief A stand-in for the library's facade that answers what a script says.
 *
 * Linked with the program's own main(), so that the whole program can be run with any records. The script is a
 * JSON file named by ZDDEVICES_SCRIPT: an object with a member for each call that is expected, "all" or the number of
 * a class, "optical" or "firmware", each {"status": n, "records": [[texts as hexadecimal digits], ...],
 * "throw": "...", "log": "..."}.
 * A call that the script does not know ends the program.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/logger/logLine.h"
#include "module/osinfos/systemdevice/deviceCollector.h"

namespace Zendra {
namespace ZDSystemDevice {

namespace {

std::string FromHex(const std::string& digits)
{
    constexpr int hexadecimal = 16;
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, hexadecimal));
    }
    return bytes;
}

/** The library opens device files; none of them may get the number of a standard descriptor. */
void CheckThatStandardDescriptorsAreTaken()
{
    const int descriptor = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(descriptor);
    if (descriptor <= STDERR_FILENO) {
        std::abort();
    }
}

/** The texts of a record, in the order in which the record declares them. */
std::vector<std::string*> Fields(SystemDevice& device)
{
    return {&device.vendor,
            &device.product,
            &device.device_type,
            &device.serial_number,
            &device.firmware_revision,
            &device.port,
            &device.target,
            &device.bus,
            &device.lun};
}

std::vector<std::string*> Fields(OpticalProperty& drive)
{
    return {&drive.drive_name_,  &drive.vendor_,     &drive.product_,  &drive.dvd_ram_write_,
            &drive.cd_rw_write_, &drive.cd_r_write_, &drive.dvd_read_, &drive.dvd_r_write_,
            &drive.mrw_r_,       &drive.mrw_w_,      &drive.ram_w_};
}

std::vector<std::string*> Fields(ZDOptions::SoftwareIdentity_& identity)
{
    return {&identity.Description,
            &identity.ElementName,
            &identity.ProductName,
            &identity.Manufacturer,
            &identity.Name,
            &identity.VersionString,
            &identity.Classifications,
            &identity.ClassificationDescriptions,
            &identity.IdentityInfoValue,
            &identity.SoftwareID,
            &identity.SubDeviceID,
            &identity.ReleaseDate,
            &identity.SoftwareStatus,
            &identity.SoftwareRole,
            &identity.IdentityInfoType,
            &identity.IsPLDMUpdateSupported,
            &identity.InstanceID,
            &identity.AssociatedAdapterSlot,
            &identity.LastUpdateError,
            &identity.LastUpdateErrorString,
            &identity.SerialNumber,
            &identity.ExtraInfo};
}

template <typename Record>
unsigned int Answer(std::vector<Record>& records, const std::string& call)
{
    CheckThatStandardDescriptorsAreTaken();
    const char* path = std::getenv("ZDDEVICES_SCRIPT");
    std::ifstream file(path != nullptr ? path : "");
    const nlohmann::json script = nlohmann::json::parse(file, nullptr, false);
    if (!script.is_object() || !script.contains(call)) {
        std::cerr << "scripted collector: unexpected call " << call << std::endl;
        std::abort();
    }
    const nlohmann::json& answer = script.at(call);
    if (answer.contains("log")) {
        ZENDRA_LOG(4, FromHex(answer.at("log")));
    }
    const std::string failure = answer.value("throw", "");
    if (failure == "bad_alloc") {
        throw std::bad_alloc();
    }
    if (failure == "number") {
        throw 42;
    }
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
    for (const nlohmann::json& texts : answer.at("records")) {
        Record record;
        std::size_t i = 0;
        for (std::string* field : Fields(record)) {
            *field = FromHex(texts.at(i++));
        }
        records.push_back(record);
    }
    return answer.at("status");
}

}  // namespace

DeviceCollector::DeviceCollector() = default;
DeviceCollector::~DeviceCollector() = default;

unsigned int DeviceCollector::GetIndividualDevice(std::vector<SystemDevice>& devices, SysDeviceType type)
{
    return Answer(devices, std::to_string(static_cast<int>(type)));
}

unsigned int DeviceCollector::GetAllDevice(std::vector<SystemDevice>& devices)
{
    return Answer(devices, "all");
}

unsigned int DeviceCollector::GetOpticalProperties(std::vector<OpticalProperty>& properties)
{
    return Answer(properties, "optical");
}

unsigned int DeviceCollector::GetDiskDriverSoftwareIdentities(std::vector<ZDOptions::SoftwareIdentity_>& identities)
{
    return Answer(identities, "firmware");
}

}  // namespace ZDSystemDevice
}  // namespace Zendra
