#include "module/osinfos/systemdevice/opticalTable.h"

#include <array>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <sstream>
#include <utility>

namespace Zendra::ZDSystemDevice::OpticalTable {

namespace {

/** Which row tells of which capability. */
constexpr std::array<std::pair<const char*, std::string OpticalProperty::*>, 8> capabilities = {{
    {"Can write CD-R", &OpticalProperty::cd_r_write_},
    {"Can write CD-RW", &OpticalProperty::cd_rw_write_},
    {"Can read DVD", &OpticalProperty::dvd_read_},
    {"Can write DVD-R", &OpticalProperty::dvd_r_write_},
    {"Can write DVD-RAM", &OpticalProperty::dvd_ram_write_},
    {"Can read MRW", &OpticalProperty::mrw_r_},
    {"Can write MRW", &OpticalProperty::mrw_w_},
    {"Can write RAM", &OpticalProperty::ram_w_},
}};

}  // namespace

std::vector<std::string> SplitLines(const std::string& table)
{
    std::vector<std::string> lines;
    std::istringstream text(table);
    std::array<char, longestLine + 1> line{};
    while (text) {
        text.getline(line.data(), line.size());
        lines.emplace_back(line.data());
    }
    return lines;
}

Rows ReadRows(const std::vector<std::string>& lines)
{
    Rows rows;
    for (const std::string& line : lines) {
        std::vector<std::string> parts;
        boost::algorithm::split(parts, line, boost::algorithm::is_any_of(":"), boost::algorithm::token_compress_on);
        if (parts.size() != 2) {
            continue;
        }
        for (std::string& part : parts) {
            boost::algorithm::trim_if(part, boost::algorithm::is_any_of(" \t"));
        }
        rows.emplace(parts[0], parts[1]);
    }
    return rows;
}

void StoreRows(const Rows& rows, OpticalProperty& drive)
{
    const auto driveName = rows.find("drive name");
    if (driveName != rows.end()) {
        drive.drive_name_ = "/dev/" + driveName->second;
    }
    for (const auto& [rowName, field] : capabilities) {
        const auto row = rows.find(rowName);
        if (row != rows.end()) {
            drive.*field = row->second == "1" ? "Yes" : "No";
        }
    }
}

}  // namespace Zendra::ZDSystemDevice::OpticalTable
