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

using ZDOptions::SoftwareIdentity_;
using ZDSystemDevice::OpticalProperty;
using ZDSystemDevice::SystemDevice;

struct Label {
    std::string name;
    std::string value;
};

/** "{name="value",...}" */
std::string LabelSet(const std::vector<Label>& labels)
{
    std::string set;
    for (const Label& label : labels) {
        set += (set.empty() ? "{" : ",") + label.name + "=" + QuotedLabelValue(label.value);
    }
    return set + "}";
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

    void Add(const std::string& labelSet, const std::string& value)
    {
        lines += name;
        lines += labelSet;
        lines += ' ';
        lines += value;
        lines += '\n';
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
std::vector<std::vector<Label>> LabelsOf(const std::vector<Record>& records, const std::vector<std::string>& headings)
{
    std::map<std::string, std::size_t> counts;
    std::vector<std::vector<Label>> all;
    all.reserve(records.size());
    const std::vector<const Field<Record>*> fields = FieldsOf<Record>(headings);
    for (const Record& record : records) {
        std::vector<Label> labels;
        labels.reserve(fields.size() + 1);
        for (const Field<Record>* field : fields) {
            labels.push_back({LabelName(field->column.heading), LabelText(TextOf(record, *field))});
        }
        labels.push_back({"ordinal", std::to_string(++counts[LabelSet(labels)])});
        all.push_back(std::move(labels));
    }
    return all;
}

std::string Devices(const std::vector<SystemDevice>& devices)
{
    Family info("zendra_device_info", "A storage device that answered; the address is port:bus:target:lun.");
    for (const auto& labels : LabelsOf(devices, {"ADDRESS", "TYPE", "VENDOR", "PRODUCT", "SERIAL", "FIRMWARE"})) {
        info.Add(LabelSet(labels), "1");
    }
    return info.Lines();
}

std::string Firmware(const std::vector<SoftwareIdentity_>& identities)
{
    Family info("zendra_disk_firmware_info", "The firmware of a disk, RAID volumes and M.2 disks left out.");
    for (const auto& labels : LabelsOf(identities, {"SOFTWARE-ID", "VERSION", "SERIAL"})) {
        info.Add(LabelSet(labels), "1");
    }
    return info.Lines();
}

std::string Drives(const std::vector<OpticalProperty>& drives)
{
    Family info("zendra_optical_drive_info", "An optical drive in the kernel's table of such drives.");
    Family capability("zendra_optical_capability",
                      "Whether the optical drive has the capability: 1 yes, 0 no. Absent where a host has several "
                      "drives and the capabilities are not known.");
    const std::vector<std::vector<Label>> all = LabelsOf(drives, {"DRIVE", "VENDOR", "PRODUCT"});
    for (std::size_t i = 0; i < drives.size(); ++i) {
        info.Add(LabelSet(all[i]), "1");
        for (const Field<OpticalProperty>& field : KindOf<OpticalProperty>().fields) {
            if (field.content == Content::Capability && !NamesSeveral(drives[i])) {
                std::vector<Label> labels = all[i];
                labels.push_back({"capability", LabelName(field.column.heading)});
                capability.Add(LabelSet(labels), TextOf(drives[i], field) == "Yes" ? "1" : "0");
            }
        }
    }
    return info.Lines() + capability.Lines();
}

std::string Scans(const std::vector<Scan>& scans)
{
    Family complete("zendra_device_scan_complete", "Whether the scan ended in the time that it had.");
    Family status("zendra_device_scan_status",
                  "What the scan answered: 0 and 4 it ran, 6 there is no device file of the class, 5 it failed.");
    Family seconds("zendra_device_scan_seconds", "How long the scan took, or was waited for.");
    for (const Scan& scan : scans) {
        const std::string labels = LabelSet({{"class", scan.deviceClass}, {"asked", scan.asked}});
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
        text += Devices(*metrics.devices);
    }
    if (metrics.firmware) {
        text += Firmware(*metrics.firmware);
    }
    if (metrics.drives) {
        text += Drives(*metrics.drives);
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
