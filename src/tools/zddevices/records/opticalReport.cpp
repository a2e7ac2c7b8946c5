#include "tools/zddevices/records/opticalReport.h"

#include <algorithm>
#include <string>
#include <utility>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::OpticalProperty;

/** A medium, and whether the drive takes it. */
using Capability = std::pair<const char*, const std::string*>;

/** The media of those capabilities that the drive has, in words. */
std::string Media(const std::vector<Capability>& capabilities)
{
    std::string media;
    for (const auto& [medium, answer] : capabilities) {
        if (*answer == "Yes") {
            media += (media.empty() ? "" : " ") + std::string(medium);
        }
    }
    return CellText(media);
}

std::string ReadsCell(const OpticalProperty& drive)
{
    return Media({{"DVD", &drive.dvd_read_}, {"MRW", &drive.mrw_r_}});
}

std::string WritesCell(const OpticalProperty& drive)
{
    return Media({{"CD-R", &drive.cd_r_write_},
                  {"CD-RW", &drive.cd_rw_write_},
                  {"DVD-R", &drive.dvd_r_write_},
                  {"DVD-RAM", &drive.dvd_ram_write_},
                  {"MRW", &drive.mrw_w_},
                  {"RAM", &drive.ram_w_}});
}

/** A column for one capability: "Yes" or "No". */
template <std::string OpticalProperty::*field>
RecordColumn<OpticalProperty> CapabilityColumn(const char* heading)
{
    return {{heading, 0.05, Overflow::Keep}, Shown::WhenAsked, TextCell<field>};
}

const std::vector<RecordColumn<OpticalProperty>>& Columns()
{
    static const std::vector<RecordColumn<OpticalProperty>> columns = {
        {{"DRIVE", 0.15, Overflow::Wrap}, Shown::ByDefault, TextCell<&OpticalProperty::drive_name_>},
        {{"VENDOR", 0.15, Overflow::Wrap}, Shown::ByDefault, TextCell<&OpticalProperty::vendor_>},
        {{"PRODUCT", 0.25, Overflow::Wrap}, Shown::ByDefault, TextCell<&OpticalProperty::product_>},
        {{"READS", 0.10, Overflow::Wrap}, Shown::ByDefault, ReadsCell},
        {{"WRITES", 0.35, Overflow::Wrap}, Shown::ByDefault, WritesCell},
        CapabilityColumn<&OpticalProperty::dvd_read_>("DVD-READ"),
        CapabilityColumn<&OpticalProperty::mrw_r_>("MRW-READ"),
        CapabilityColumn<&OpticalProperty::cd_r_write_>("CD-R-WRITE"),
        CapabilityColumn<&OpticalProperty::cd_rw_write_>("CD-RW-WRITE"),
        CapabilityColumn<&OpticalProperty::dvd_r_write_>("DVD-R-WRITE"),
        CapabilityColumn<&OpticalProperty::dvd_ram_write_>("DVD-RAM-WRITE"),
        CapabilityColumn<&OpticalProperty::mrw_w_>("MRW-WRITE"),
        CapabilityColumn<&OpticalProperty::ram_w_>("RAM-WRITE")};
    return columns;
}

void WriteObject(const OpticalProperty& drive, JsonWriter& json)
{
    json.Key("drive_name_");
    json.RecordText(drive.drive_name_);
    json.Key("vendor_");
    json.RecordText(drive.vendor_);
    json.Key("product_");
    json.RecordText(drive.product_);
    json.Key("dvd_ram_write_");
    json.RecordText(drive.dvd_ram_write_);
    json.Key("cd_rw_write_");
    json.RecordText(drive.cd_rw_write_);
    json.Key("cd_r_write_");
    json.RecordText(drive.cd_r_write_);
    json.Key("dvd_read_");
    json.RecordText(drive.dvd_read_);
    json.Key("dvd_r_write_");
    json.RecordText(drive.dvd_r_write_);
    json.Key("mrw_r_");
    json.RecordText(drive.mrw_r_);
    json.Key("mrw_w_");
    json.RecordText(drive.mrw_w_);
    json.Key("ram_w_");
    json.RecordText(drive.ram_w_);
}

}  // namespace

bool NamesSeveral(const OpticalProperty& drive)
{
    // The kernel separates the drives of its table by tabs.
    return drive.drive_name_.find('\t') != std::string::npos;
}

Report DescribeOptical(unsigned int status, std::vector<OpticalProperty> drives)
{
    Report report;
    report.schema = "zddevices-optical/1";
    report.recordsKey = "drives";
    report.status = status;
    report.nothingFound = ClassOf(ZDSystemDevice::SYS_DEVICE_CDDVD).nothingFound;
    if (std::any_of(drives.begin(), drives.end(), NamesSeveral)) {
        report.remark = "this host has several optical drives; the library describes one only, so what these can read "
                        "and write is not known";
    }
    ComposeFrom(std::move(drives), Columns(), WriteObject, report);
    return report;
}

std::vector<std::string> OpticalColumnNames()
{
    return HeadingsOf(Columns());
}

}  // namespace ZDDevices
}  // namespace Zendra
