#include "tools/zddevices/output/prometheus.h"

#include <array>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <charconv>
#include <locale>
#include <map>
#include <utility>

#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDSystemDevice::OpticalProperty;

/** Labels between their braces: 'class="disk",asked="firmware"'. */
std::string Labels(const std::vector<std::pair<std::string, std::string>>& labels)
{
    std::string text;
    for (const auto& [name, value] : labels) {
        text += (text.empty() ? "" : ",") + name + "=" + QuotedLabelValue(value);
    }
    return text;
}

/** Microseconds are as much as a scan's duration has to say. */
std::string Seconds(double seconds)
{
    constexpr int microseconds = 6;
    std::array<char, 64> text{};
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed, microseconds);
    return {text.data(), end.ptr};
}

/** One family of metrics; its lines have to stand together. */
class Family {
public:
    Family(const char* familyName, const std::string& help)
        : name(familyName), lines("# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n")
    {
    }

    void Add(const std::string& labels, const std::string& value)
    {
        lines += name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
    }

    const std::string& Lines() const { return lines; }

private:
    std::string name;
    std::string lines;
};

/** "software_id" for "SOFTWARE-ID". */
std::string LabelName(std::string heading)
{
    boost::algorithm::replace_all(heading, "-", "_");
    return boost::algorithm::to_lower_copy(heading, std::locale::classic());
}

/**
 * The labels of each record: the texts of the columns with these headings, and what tells records with equal texts
 * apart.
 */
template <typename Record>
std::vector<std::string> LabelsOf(const std::vector<Record>& records, const std::vector<std::string>& headings)
{
    const std::vector<const Field<Record>*> fields = FieldsOf<Record>(headings);
    std::map<std::string, std::size_t> counts;
    std::vector<std::string> all;
    all.reserve(records.size());
    for (const Record& record : records) {
        std::vector<std::pair<std::string, std::string>> labels;
        labels.reserve(fields.size());
        for (const Field<Record>* field : fields) {
            labels.emplace_back(LabelName(field->column.heading), LabelText(TextOf(record, *field)));
        }
        const std::string text = Labels(labels);
        all.push_back(text + "," + Labels({{"ordinal", std::to_string(++counts[text])}}));
    }
    return all;
}

/** A family with a sample for each record, whose labels are the columns with these headings. */
template <typename Record>
std::string Info(const char* name, const char* help, const std::vector<Record>& records,
                 const std::vector<std::string>& headings)
{
    Family info(name, help);
    for (const std::string& labels : LabelsOf(records, headings)) {
        info.Add(labels, "1");
    }
    return info.Lines();
}

std::string Capabilities(const std::vector<OpticalProperty>& drives, const std::vector<std::string>& headings)
{
    Family capability("zendra_optical_capability",
                      "Whether the optical drive has the capability: 1 yes, 0 no. Absent where a host has several "
                      "drives and the capabilities are not known.");
    const std::vector<std::string> labels = LabelsOf(drives, headings);
    for (std::size_t i = 0; i < drives.size(); ++i) {
        for (const Field<OpticalProperty>& field : KindOf<OpticalProperty>().fields) {
            if (field.content == Content::Capability && !NamesSeveral(drives[i])) {
                capability.Add(labels[i] + "," + Labels({{"capability", LabelName(field.column.heading)}}),
                               TextOf(drives[i], field) == "Yes" ? "1" : "0");
            }
        }
    }
    return capability.Lines();
}

std::string Scans(const std::vector<Scan>& scans)
{
    Family complete("zendra_device_scan_complete", "Whether the scan ended in the time that it had.");
    Family status("zendra_device_scan_status",
                  "What the scan answered: 0 and 4 it ran, 6 there is no device file of the class, 5 it failed.");
    Family seconds("zendra_device_scan_seconds", "How long the scan took, or was waited for.");
    for (const Scan& scan : scans) {
        const std::string labels = Labels({{"class", scan.deviceClass}, {"asked", scan.asked}});
        complete.Add(labels, scan.status ? "1" : "0");
        if (scan.status) {
            status.Add(labels, std::to_string(*scan.status));
        }
        seconds.Add(labels, Seconds(scan.elapsed.count()));
    }
    return complete.Lines() + status.Lines() + seconds.Lines();
}

}  // namespace

std::string QuotedLabelValue(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '\n') {
            quoted += "\\n";
            continue;
        }
        if (c == '\\' || c == '"') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + '"';
}

std::string RenderPrometheus(const Metrics& metrics)
{
    std::string text;
    if (metrics.devices) {
        text += Info("zendra_device_info", "A storage device that answered; the address is port:bus:target:lun.",
                     *metrics.devices, {"ADDRESS", "TYPE", "VENDOR", "PRODUCT", "SERIAL", "FIRMWARE"});
    }
    if (metrics.firmware) {
        text += Info("zendra_disk_firmware_info", "The firmware of a disk, RAID volumes and M.2 disks left out.",
                     *metrics.firmware, {"SOFTWARE-ID", "VERSION", "SERIAL"});
    }
    if (metrics.drives) {
        const std::vector<std::string> labels = {"DRIVE", "VENDOR", "PRODUCT"};
        text += Info("zendra_optical_drive_info", "An optical drive in the kernel's table of such drives.",
                     *metrics.drives, labels);
        text += Capabilities(*metrics.drives, labels);
    }
    text += Scans(metrics.scans);

    Family denied("zendra_device_files_denied", "Device files that could not be opened for lack of privilege.");
    denied.Add("", std::to_string(metrics.deniedFiles));
    Family begun("zendra_device_scan_timestamp_seconds", "When the scans began.");
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::seconds>(metrics.begun.time_since_epoch());
    begun.Add("", std::to_string(sinceEpoch.count()));
    return text + denied.Lines() + begun.Lines();
}

}  // namespace ZDDevices
}  // namespace Zendra
