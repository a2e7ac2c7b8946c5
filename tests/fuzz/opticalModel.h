/**
 * @file
 * @brief What the library must make of the kernel's table of optical drives.
 */
#ifndef ZENDRA_TESTS_FUZZ_OPTICALMODEL_H
#define ZENDRA_TESTS_FUZZ_OPTICALMODEL_H

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "check.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra {
namespace Fuzz {

/** A drive that answered. */
struct OpticalDrive {
    std::string path;
    std::string vendor;
    std::string product;
};

/** Pieces of `size` bytes, or of more where there would be too many; 0: all in one. */
inline std::vector<std::string> Pieces(const std::string& text, std::size_t size)
{
    constexpr std::size_t mostPieces = 64;
    const std::size_t length = size == 0 ? text.size() : std::max(size, text.size() / mostPieces);
    std::vector<std::string> pieces;
    for (std::size_t start = 0; start < text.size(); start += length) {
        pieces.push_back(text.substr(start, length));
    }
    return pieces;
}

/** What each read of 4095 bytes brings of a program's output, up to its first NUL: the rest of it is lost. */
inline std::vector<std::string> Chunks(const std::vector<std::string>& pieces)
{
    constexpr std::size_t readSize = 4095;
    std::vector<std::string> chunks;
    for (const std::string& piece : pieces) {
        for (std::size_t start = 0; start < piece.size(); start += readSize) {
            const std::string chunk = piece.substr(start, readSize);
            chunks.push_back(chunk.substr(0, chunk.find('\0')));
        }
    }
    return chunks;
}

/** The lines as the library counts them: the end of the text counts as one more, a line that is too long as the last.
 */
inline std::vector<std::string> OpticalLines(std::string table)
{
    constexpr std::size_t longestLine = 255;
    std::vector<std::string> lines;
    while (!table.empty()) {
        const std::size_t length = std::min(table.find('\n'), table.size());
        if (length > longestLine) {
            lines.push_back(table.substr(0, longestLine));
            return lines;
        }
        lines.push_back(table.substr(0, length));
        table.erase(0, length + 1);
    }
    lines.emplace_back();
    return lines;
}

/** The record, or nothing. */
inline std::optional<ZDSystemDevice::OpticalProperty> ExpectOptical(const std::vector<std::string>& lines,
                                                                    const std::vector<OpticalDrive>& drives)
{
    using ZDSystemDevice::OpticalProperty;
    std::vector<std::pair<std::string, std::string>> rows;
    for (const std::string& line : lines) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        std::string name = line.substr(0, colon);
        std::string value = line.substr(std::min(line.find_first_not_of(':', colon), line.size()));
        if (value.find(':') != std::string::npos) {
            continue;
        }
        for (std::string* part : {&name, &value}) {
            const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
            while (!part->empty() && isBlank(part->front())) {
                part->erase(0, 1);
            }
            while (!part->empty() && isBlank(part->back())) {
                part->pop_back();
            }
        }
        rows.emplace_back(name, value);
    }
    if (rows.empty()) {
        return std::nullopt;
    }
    const auto first = [&](const std::string& name) {
        const auto row = std::find_if(rows.begin(), rows.end(), [&](const auto& r) { return r.first == name; });
        return row == rows.end() ? std::optional<std::string>() : row->second;
    };
    OpticalProperty property;
    if (const auto drive = first("drive name")) {
        property.drive_name_ = "/dev/" + *drive;
        for (const OpticalDrive& candidate : drives) {
            if (candidate.path == property.drive_name_) {
                property.vendor_ = candidate.vendor;
                property.product_ = candidate.product;
            }
        }
    }
    const std::pair<const char*, std::string OpticalProperty::*> capabilities[] = {
        {"Can write CD-R", &OpticalProperty::cd_r_write_},
        {"Can write CD-RW", &OpticalProperty::cd_rw_write_},
        {"Can read DVD", &OpticalProperty::dvd_read_},
        {"Can write DVD-R", &OpticalProperty::dvd_r_write_},
        {"Can write DVD-RAM", &OpticalProperty::dvd_ram_write_},
        {"Can read MRW", &OpticalProperty::mrw_r_},
        {"Can write MRW", &OpticalProperty::mrw_w_},
        {"Can write RAM", &OpticalProperty::ram_w_}};
    for (const auto& [row, field] : capabilities) {
        property.*field = first(row) == std::optional<std::string>("1") ? "Yes" : "No";
    }
    return property;
}

inline void RequireEqual(const ZDSystemDevice::OpticalProperty& actual, const ZDSystemDevice::OpticalProperty& expected)
{
    RequireEqual(actual.drive_name_, expected.drive_name_, "drive_name_");
    RequireEqual(actual.vendor_, expected.vendor_, "vendor_");
    RequireEqual(actual.product_, expected.product_, "product_");
    RequireEqual(actual.dvd_ram_write_, expected.dvd_ram_write_, "dvd_ram_write_");
    RequireEqual(actual.cd_rw_write_, expected.cd_rw_write_, "cd_rw_write_");
    RequireEqual(actual.cd_r_write_, expected.cd_r_write_, "cd_r_write_");
    RequireEqual(actual.dvd_read_, expected.dvd_read_, "dvd_read_");
    RequireEqual(actual.dvd_r_write_, expected.dvd_r_write_, "dvd_r_write_");
    RequireEqual(actual.mrw_r_, expected.mrw_r_, "mrw_r_");
    RequireEqual(actual.mrw_w_, expected.mrw_w_, "mrw_w_");
    RequireEqual(actual.ram_w_, expected.ram_w_, "ram_w_");
    for (const auto* text : {&actual.drive_name_, &actual.vendor_, &actual.product_}) {
        Require(HasNoNul(*text), "no text of a record holds a NUL byte");
    }
}

}  // namespace Fuzz
}  // namespace Zendra

#endif
