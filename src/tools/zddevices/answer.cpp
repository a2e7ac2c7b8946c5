#include "tools/zddevices/answer.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace Zendra {
namespace ZDDevices {

namespace {

using nlohmann::json;

template <typename Record>
bool Fill(Record& record, json& texts)
{
    const std::vector<std::string*> fields = Texts(record);
    if (!texts.is_array() || texts.size() != fields.size()) {
        return false;
    }
    for (std::size_t i = 0; i < fields.size(); ++i) {
        auto* text = texts[i].get_ptr<std::string*>();
        if (text == nullptr) {
            return false;
        }
        *fields[i] = std::move(*text);
    }
    return true;
}

}  // namespace

std::vector<std::string*> Texts(ZDSystemDevice::SystemDevice& device)
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

std::vector<std::string*> Texts(ZDSystemDevice::OpticalProperty& drive)
{
    return {&drive.drive_name_,  &drive.vendor_,     &drive.product_,  &drive.dvd_ram_write_,
            &drive.cd_rw_write_, &drive.cd_r_write_, &drive.dvd_read_, &drive.dvd_r_write_,
            &drive.mrw_r_,       &drive.mrw_w_,      &drive.ram_w_};
}

std::vector<std::string*> Texts(ZDOptions::SoftwareIdentity_& identity)
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
std::string Encode(Answer<Record> answer)
{
    json records = json::array();
    for (Record& record : answer.records) {
        json texts = json::array();
        for (std::string* text : Texts(record)) {
            texts.push_back(std::move(*text));
        }
        records.push_back(std::move(texts));
    }
    json document = json::array();
    document.push_back(answer.status);
    document.push_back(std::move(records));
    std::string bytes;
    json::to_cbor(document, bytes);
    return bytes;
}

template <typename Record>
std::optional<Answer<Record>> Decode(const std::string& bytes)
{
    json document;
    try {
        document = json::from_cbor(bytes);
    } catch (const json::exception&) {
        return std::nullopt;
    }
    constexpr std::size_t parts = 2;
    if (!document.is_array() || document.size() != parts || !document[0].is_number_unsigned() ||
        !document[1].is_array()) {
        return std::nullopt;
    }
    Answer<Record> answer;
    answer.status = document[0].template get<unsigned int>();
    for (json& texts : document[1]) {
        if (!Fill(answer.records.emplace_back(), texts)) {
            return std::nullopt;
        }
    }
    return answer;
}

template std::string Encode(DeviceAnswer);
template std::string Encode(OpticalAnswer);
template std::string Encode(FirmwareAnswer);
template std::optional<DeviceAnswer> Decode(const std::string&);
template std::optional<OpticalAnswer> Decode(const std::string&);
template std::optional<FirmwareAnswer> Decode(const std::string&);

}  // namespace ZDDevices
}  // namespace Zendra
