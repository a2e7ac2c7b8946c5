#include "module/osinfos/systemdevice/identityData.h"

#include <algorithm>
#include <cstring>
#include <locale>
#include <sstream>

#include "common/concatenate.h"

namespace Zendra::ZDSystemDevice {

namespace {

/** ATA keeps two characters in a 16-bit word, the first in the high byte. */
std::string AtaText(AnswerBytes buffer, Field field)
{
    std::string text;
    for (std::size_t i = 0; i < field.length; i += 2) {
        const std::size_t word = AtaIdentify::headerLength + field.offset + i;
        text += static_cast<char>(buffer.At(word + 1));
        text += static_cast<char>(buffer.At(word));
    }
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

/** The text without blanks and tabs at its ends. */
std::string_view Trimmed(std::string_view text)
{
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    std::string_view rest = text;
    while (!rest.empty() && isBlank(rest.back())) {
        rest.remove_suffix(1);
    }
    while (!rest.empty() && isBlank(rest.front())) {
        rest.remove_prefix(1);
    }
    // Blanks alone count as a name (oddity: blank-names-stay).
    return rest.empty() ? text : rest;
}

}  // namespace

std::string_view AnswerBytes::Text(Field field) const
{
    const std::size_t begin = std::min(field.offset, size);
    const char* const text = reinterpret_cast<const char*>(bytes) + begin;
    return {text, strnlen(text, std::min(field.length, size - begin))};
}

std::string_view DeviceTypeText(unsigned char code)
{
    // Types 10 and 11 share a text and 16 has none (oddity: type-texts).
    static constexpr std::array<std::string_view, 18> texts = {"Direct Access Device",
                                                               "Sequential Access Device",
                                                               "Printer Device",
                                                               "Processor Device",
                                                               "Write-Once Device",
                                                               "CD-ROM Device",
                                                               "Scanner Device",
                                                               "Optical Memory Device",
                                                               "Medium Changer Device",
                                                               "Communications Device",
                                                               "Graphic Arts Device",
                                                               "Graphic Arts Device",
                                                               "Storage Array Controller",
                                                               "Enclosure Device",
                                                               "Simple Direct Access Device",
                                                               "Optical Card Reader Device",
                                                               "",
                                                               "Optical Based Storage Device"};
    return code < texts.size() ? texts[code] : std::string_view();
}

std::string AddressText(const BusDevice& bus)
{
    return Concatenate("Port:", std::to_string(bus.hostAdapter), "|Target:", std::to_string(bus.targetId),
                       "|Bus:", std::to_string(bus.bus), "|Lun:", std::to_string(bus.lun));
}

void ReadInquiry(AnswerBytes answer, BusDevice& bus)
{
    bus.inquiryString = answer.Text(Inquiry::identity);
    bus.vendorId = Trimmed(answer.Text(Inquiry::vendor));
    const std::string_view product = answer.Text(Inquiry::product);
    bus.productId = product.empty() ? bus.vendorId : Trimmed(product);
    bus.revision = answer.Text(Inquiry::revision);
    // An unknown type (0x1F) reads as 15 (oddity: four-bits-of-type).
    bus.deviceType = DeviceTypeText(answer.At(Inquiry::typeByte) & Inquiry::typeMask);
}

SerialNumber ReadSerialPage(AnswerBytes answer, BusDevice& bus)
{
    const std::size_t length = answer.At(SerialPage::lengthByte);
    if (length > SerialPage::longestSerial) {
        return SerialNumber::TooLong;
    }
    if (length < SerialPage::shortestSerial) {
        bus.serialNum.clear();
        return SerialNumber::TooShort;
    }
    bus.serialNum = answer.Text({SerialPage::serialOffset, length});
    return SerialNumber::Taken;
}

AtaIdentify::Buffer AtaIdentifyRequest()
{
    AtaIdentify::Buffer buffer{};
    buffer[AtaIdentify::commandByte] = AtaIdentify::command;
    buffer[AtaIdentify::sectorCountByte] = AtaIdentify::sectorCount;
    return buffer;
}

AtaIdentity ReadAtaIdentity(AnswerBytes buffer)
{
    return {AtaText(buffer, AtaIdentify::model), AtaText(buffer, AtaIdentify::firmwareRevision),
            AtaText(buffer, AtaIdentify::serialNumber)};
}

void StoreAtaIdentity(const AtaIdentity& identity, BusDevice& bus)
{
    std::istringstream words(identity.model);
    words.imbue(std::locale::classic());
    words >> bus.vendorId >> bus.productId;
    bus.shortIdent = identity.model.substr(0, AtaIdentify::shortModelLength);
    bus.revision = identity.firmwareRevision;
    bus.serialNum = identity.serialNumber;
    bus.otherIdentInfo = AddressText(bus);
}

void StoreAtaFirmware(const AtaIdentity& identity, BusDevice& bus)
{
    bus.revision = identity.firmwareRevision;
    bus.revision.erase(std::remove(bus.revision.begin(), bus.revision.end(), ' '), bus.revision.end());
    // Of "WDC WD40EFRX" that is the maker (oddity: first-word-of-model).
    bus.productId = identity.model.substr(0, identity.model.find(' '));
}

void ReadNvmeIdentity(AnswerBytes answer, BusDevice& bus)
{
    bus.vendorId = "NVMe";
    bus.productId = answer.Text(NvmeIdentify::model);
    bus.revision = answer.Text(NvmeIdentify::firmwareRevision);
    bus.serialNum = answer.Text(NvmeIdentify::serialNumber);
    bus.deviceType = DeviceTypeText(Inquiry::typeDisk);
}

void StoreScsiId(const sg_scsi_id& answer, BusDevice& bus)
{
    bus.hostAdapter = static_cast<std::uint16_t>(answer.host_no);
    bus.bus = static_cast<std::uint16_t>(answer.channel);
    bus.targetId = static_cast<std::uint16_t>(answer.scsi_id);
    bus.lun = static_cast<std::uint16_t>(answer.lun);
}

void StoreIdLun(std::uint32_t packed, BusDevice& bus)
{
    const auto byteAt = [&](unsigned int shift) { return static_cast<std::uint16_t>(packed >> shift & 0xFFU); };
    bus.targetId = byteAt(0);
    bus.lun = byteAt(8);
    bus.bus = byteAt(16);
}

}  // namespace Zendra::ZDSystemDevice
