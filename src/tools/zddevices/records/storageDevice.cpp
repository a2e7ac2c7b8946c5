#include "tools/zddevices/records/storageDevice.h"

#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>

#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

namespace {

using Device = StorageDevice;

std::string Address(const Device& device);
std::string Size(const Device& device);

/** A column that stays as it is, and that a table has when asked for. */
constexpr Field<Device> Extra(const char* heading, const char* key, std::string Device::*member,
                              Content content = Content::Text)
{
    return {{heading}, key, member, nullptr, InTable::WhenAsked, content};
}

constexpr Field<Device> fields[] = {
    // Heading, least width, key in JSON, text.
    {{"DEVICE"}, "device", &Device::device},
    {{"TYPE"}, nullptr, &Device::type},
    {{"SIZE"}, "size_bytes", &Device::size_bytes, Size, InTable::ByDefault, Content::Number},
    {{"VENDOR", 8}, "vendor", &Device::vendor},
    {{"MODEL", 12}, "model", &Device::model},
    {{"REVISION", 8}, "revision", &Device::revision},
    {{"SERIAL", 20}, "serial_number", &Device::serial_number},
    {{"ADDRESS"}, nullptr, nullptr, Address, InTable::WhenAsked},
    {{"TYPE-TEXT", 12}, "device_type", &Device::device_type, nullptr, InTable::WhenAsked},
    {{"PRODUCT", 12}, "product", &Device::product, nullptr, InTable::WhenAsked},
    {{"FIRMWARE", 8}, "firmware_revision", &Device::firmware_revision, nullptr, InTable::WhenAsked},
    {{"WWN", 18}, "wwn", &Device::wwn, nullptr, InTable::WhenAsked},
    {{"SLOT", 12}, "slot", &Device::slot, nullptr, InTable::WhenAsked},
    {{"FILES", 12}, "device_files", &Device::device_files, nullptr, InTable::WhenAsked, Content::Lines},
    Extra("TRANSPORT", "transport", &Device::transport),
    Extra("STATE", "state", &Device::state),
    Extra("DRIVER", "driver", &Device::driver),
    Extra("PATHS", nullptr, &Device::paths, Content::Number),
    Extra("PORT", "port", &Device::port, Content::Number),
    Extra("BUS", "bus", &Device::bus, Content::Number),
    Extra("TARGET", "target", &Device::target, Content::Number),
    Extra("LUN", "lun", &Device::lun, Content::Number),
};
static_assert(NameEachTextOnce(fields), "a text of the record has no field, or several");

std::string Address(const Device& device)
{
    return device.port.empty() ? "" : device.port + ":" + device.bus + ":" + device.target + ":" + device.lun;
}

/** A SCSI type, the library's text for it, and a word. */
struct TypeName {
    unsigned int scsiType;
    const char* text;
    const char* word;
};

/** The library looks at four bits of the type: some of its texts belong to two. */
constexpr TypeName typeNames[] = {
    {0x00, "Direct Access Device", "disk"},
    {0x01, "Sequential Access Device", "tape"},
    {0x02, "Printer Device", "printer"},
    {0x03, "Processor Device", "processor"},
    {0x04, "Write-Once Device", "worm"},
    {0x05, "CD-ROM Device", "cd"},
    {0x06, "Scanner Device", "scanner"},
    {0x07, "Optical Memory Device", "optical"},
    {0x08, "Medium Changer Device", "changer"},
    {0x09, "Communications Device", "network"},
    {0x0A, "Graphic Arts Device", "prepress"},
    {0x0B, "Graphic Arts Device", "prepress"},
    {0x0C, "Storage Array Controller", "raid"},
    {0x0D, "Enclosure Device", "enclosure"},
    {0x0E, "Simple Direct Access Device", "disk"},
    {0x0F, "Optical Card Reader Device", "card"},
    {0x10, "Direct Access Device", "bridge"},
    {0x11, "Optical Based Storage Device", "osd"},
    {0x12, "Printer Device", "automation"},
    {0x13, "Processor Device", "security"},
    // A disk whose zones the host manages.
    {0x14, "Write-Once Device", "disk"},
    {0x1E, "Simple Direct Access Device", "wlun"},
    {0x1F, "Optical Card Reader Device", "unknown"},
};

/** As lsblk writes it: powers of 1024, and one decimal where that is not zero ("1.8T", "16M"). */
std::string Size(const Device& device)
{
    std::uint64_t bytes = 0;
    const std::string& digits = device.size_bytes;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), bytes).ec != std::errc()) {
        return {};
    }
    constexpr std::string_view units = "BKMGTPE";
    constexpr unsigned int bitsPerUnit = 10;
    unsigned int unit = 0;
    while (unit + 1 < units.size() && bytes >> (unit + 1) * bitsPerUnit != 0) {
        ++unit;
    }
    const unsigned int bits = unit * bitsPerUnit;
    std::uint64_t whole = bytes >> bits;
    std::uint64_t rest = bytes - (whole << bits);
    // lsblk cuts to thousandths, then rounds to tenths; where the product would not fit it cuts first.
    constexpr std::uint64_t thousand = 1000;
    rest = rest >= std::numeric_limits<std::uint64_t>::max() / thousand
               ? (rest >> bitsPerUnit) * thousand >> (bits - bitsPerUnit)
               : rest * thousand >> bits;
    constexpr std::uint64_t hundred = 100;
    constexpr std::uint64_t ten = 10;
    const std::uint64_t tenths = (rest + hundred / 2) / hundred;
    whole += tenths / ten;
    return std::to_string(whole) + (tenths % ten != 0 ? "." + std::to_string(tenths % ten) : "") + units[unit];
}

}  // namespace

std::string TypeWord(std::optional<unsigned int> scsiType, const std::string& text)
{
    for (const TypeName& one : typeNames) {
        if (scsiType ? *scsiType == one.scsiType : text == one.text) {
            return one.word;
        }
    }
    // Of a type that nobody has defined, the library's text is that of another.
    return scsiType ? "unknown" : text;
}

template <>
const RecordKind<Device>& KindOf<Device>()
{
    static const RecordKind<Device> kind = {"zddevices/1", "devices", {std::begin(fields), std::end(fields)}, "DEVICE"};
    return kind;
}

}  // namespace Zendra::ZDDevices
