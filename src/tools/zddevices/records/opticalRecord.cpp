#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <cstring>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra::ZDDevices {

namespace {

using Drive = ZDSystemDevice::OpticalProperty;

std::string Reads(const Drive& drive);
std::string Writes(const Drive& drive);

constexpr Field<Drive> Capability(const char* heading, const char* key, std::string Drive::*member)
{
    return {{heading}, key, member, nullptr, InTable::WhenAsked, Content::Capability};
}

constexpr Field<Drive> fields[] = {
    // Heading, least width; key in JSON, text.
    {{"DRIVE", 8}, "drive_name", &Drive::drive_name_},
    {{"VENDOR", 8}, "vendor", &Drive::vendor_},
    {{"PRODUCT", 12}, "product", &Drive::product_},
    {{"READS", 8}, nullptr, nullptr, Reads},
    {{"WRITES", 12}, nullptr, nullptr, Writes},
    // A medium, and "-READ" or "-WRITE".
    Capability("DVD-READ", "dvd_read", &Drive::dvd_read_),
    Capability("MRW-READ", "mrw_r", &Drive::mrw_r_),
    Capability("CD-R-WRITE", "cd_r_write", &Drive::cd_r_write_),
    Capability("CD-RW-WRITE", "cd_rw_write", &Drive::cd_rw_write_),
    Capability("DVD-R-WRITE", "dvd_r_write", &Drive::dvd_r_write_),
    Capability("DVD-RAM-WRITE", "dvd_ram_write", &Drive::dvd_ram_write_),
    Capability("MRW-WRITE", "mrw_w", &Drive::mrw_w_),
    Capability("RAM-WRITE", "ram_w", &Drive::ram_w_),
};
static_assert(NameEachTextOnce(fields), "a text of the record has no field, or several");

/** The media of those capabilities that the drive has; the headings of the capabilities end with `ending`. */
std::string Media(const Drive& drive, const char* ending)
{
    std::string media;
    for (const Field<Drive>& field : fields) {
        const std::string heading = field.column.heading;
        if (field.content == Content::Capability && boost::algorithm::ends_with(heading, ending) &&
            drive.*field.member == "Yes") {
            media += (media.empty() ? "" : " ") + heading.substr(0, heading.size() - std::strlen(ending));
        }
    }
    return media;
}

std::string Reads(const Drive& drive)
{
    return Media(drive, "-READ");
}

std::string Writes(const Drive& drive)
{
    return Media(drive, "-WRITE");
}

}  // namespace

template <>
const RecordKind<Drive>& KindOf<Drive>()
{
    static const RecordKind<Drive> kind = {"zddevices-optical/1", "drives", {std::begin(fields), std::end(fields)}};
    return kind;
}

bool NamesSeveral(const Drive& drive)
{
    // The kernel separates the drives of its table by tabs.
    return TextOf(drive, fields[0]).find('\t') != std::string::npos;
}

Report<Drive> DescribeOptical(unsigned int status, std::vector<Drive> drives)
{
    const char* remark = "";
    if (std::any_of(drives.begin(), drives.end(), NamesSeveral)) {
        remark = "this host has several optical drives; the library describes one only, so what these can read "
                 "and write is not known";
    }
    return {status, std::move(drives), {}, ClassOf(ZDSystemDevice::SYS_DEVICE_CDDVD).nothingFound, remark};
}

}  // namespace Zendra::ZDDevices
