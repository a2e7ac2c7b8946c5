/**
 * @file
 * @brief What must become of a record when a device has answered, worked out a second time, the slow way.
 *
 * Each function takes the answer as the device sent it, of any length, and the record as it was before.
 */
#ifndef ZENDRA_TESTS_SUPPORT_IDENTITYMODEL_H
#define ZENDRA_TESTS_SUPPORT_IDENTITYMODEL_H

#include <algorithm>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/identityData.h"

namespace ZendraTest {

using Zendra::ZDSystemDevice::BusDevice;
using Answer = std::vector<unsigned char>;

inline std::string UpToZero(const Answer& data, std::size_t offset, std::size_t width)
{
    std::string text;
    for (std::size_t i = offset; i < std::min(offset + width, data.size()) && data[i] != 0; ++i) {
        text += static_cast<char>(data[i]);
    }
    return text;
}

/** Without blanks and tabs at both ends, unless there is nothing else. */
inline std::string Cut(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos ? text : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

inline BusDevice AfterInquiry(const Answer& data, BusDevice record)
{
    record.inquiryString = UpToZero(data, 8, 28);
    record.vendorId = Cut(UpToZero(data, 8, 8));
    const std::string product = UpToZero(data, 16, 16);
    record.productId = product.empty() ? record.vendorId : Cut(product);
    record.revision = UpToZero(data, 32, 4);
    record.deviceType = Zendra::ZDSystemDevice::DeviceTypeText(data.empty() ? 0 : data[0] & 0x0f);
    return record;
}

inline BusDevice AfterSerialPage(const Answer& page, BusDevice record)
{
    const std::size_t length = page.size() > 3 ? page[3] : 0;
    if (length <= 32) {
        record.serialNum = length <= 1 ? "" : UpToZero(page, 4, length);
    }
    return record;
}

/** A text of ATA IDENTIFY DEVICE, of which each word holds its second character first. */
inline std::string AtaText(Answer data, std::size_t offset, std::size_t width)
{
    data.resize(std::max<std::size_t>(data.size(), 512), 0);
    Answer swapped(width);
    for (std::size_t i = 0; i < width; ++i) {
        swapped[i ^ 1U] = data[offset + i];
    }
    return UpToZero(swapped, 0, width);
}

inline BusDevice AfterAtaIdentify(const Answer& data, BusDevice record)
{
    const std::string model = AtaText(data, 54, 40);
    std::istringstream words(model);
    words.imbue(std::locale::classic());
    std::string word;
    if (words >> word) {
        record.vendorId = word;
    }
    if (words >> word) {
        record.productId = word;
    }
    record.shortIdent = model.substr(0, 23);
    record.revision = AtaText(data, 46, 8);
    record.serialNum = AtaText(data, 20, 20);
    record.otherIdentInfo = "Port:" + std::to_string(record.hostAdapter) +
                            "|Target:" + std::to_string(record.targetId) + "|Bus:" + std::to_string(record.bus) +
                            "|Lun:" + std::to_string(record.lun);
    return record;
}

inline BusDevice AfterAtaFirmware(const Answer& data, BusDevice record)
{
    record.revision.clear();
    for (const char c : AtaText(data, 46, 8)) {
        record.revision += c == ' ' ? "" : std::string(1, c);
    }
    const std::string model = AtaText(data, 54, 40);
    record.productId = model.substr(0, model.find(' '));
    return record;
}

inline BusDevice AfterNvmeIdentify(const Answer& data, BusDevice record)
{
    record.vendorId = "NVMe";
    record.productId = UpToZero(data, 24, 39);
    record.revision = UpToZero(data, 64, 4096 - 64);
    record.serialNum = UpToZero(data, 4, 19);
    record.deviceType = "Direct Access Device";
    return record;
}

}  // namespace ZendraTest

#endif
