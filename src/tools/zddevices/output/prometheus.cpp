#include "tools/zddevices/output/prometheus.h"

#include <algorithm>
#include <array>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <charconv>
#include <locale>
#include <map>
#include <utility>
#include <vector>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra::ZDDevices {

namespace {

using ZDSystemDevice::OpticalProperty;

/** Labels, or samples: their labels; and the value of each. */
using Pairs = std::vector<std::pair<std::string, std::string>>;

/** Labels between their braces: 'class="disk",asked="firmware"'. */
std::string Labels(const Pairs& labels)
{
    std::string text;
    for (const auto& [name, value] : labels) {
        text += (text.empty() ? "" : ",") + name + "=" + QuotedLabelValue(value);
    }
    return text;
}

/** Microseconds are as much as a scan's duration has to say. */
std::string Seconds(std::chrono::duration<double> duration)
{
    constexpr int microseconds = 6;
    std::array<char, 64> text{};
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), duration.count(), std::chars_format::fixed, microseconds);
    return {text.data(), end.ptr};
}

/** A family of metrics, all lines of which have to stand together. Each sample is its labels and its value. */
std::string Family(const std::string& name, const std::string& help, const Pairs& samples)
{
    std::string lines = "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
    for (const auto& [labels, value] : samples) {
        lines.append(name).append(labels.empty() ? "" : "{" + labels + "}").append(" " + value + "\n");
    }
    return lines;
}

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
    for (const Record& record : records) {
        Pairs labels;
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
    Pairs samples;
    for (const std::string& labels : LabelsOf(records, headings)) {
        samples.emplace_back(labels, "1");
    }
    return Family(name, help, samples);
}

std::string Capabilities(const std::vector<OpticalProperty>& drives, const std::vector<std::string>& headings)
{
    const std::vector<std::string> labels = LabelsOf(drives, headings);
    Pairs samples;
    for (std::size_t i = 0; i < drives.size(); ++i) {
        for (const Field<OpticalProperty>& field : KindOf<OpticalProperty>().fields) {
            if (field.content == Content::Capability && !NamesSeveral(drives[i])) {
                samples.emplace_back(labels[i] + "," + Labels({{"capability", LabelName(field.column.heading)}}),
                                     TextOf(drives[i], field) == "Yes" ? "1" : "0");
            }
        }
    }
    return Family("zendra_optical_capability",
                  "Whether the optical drive has the capability: 1 yes, 0 no. Absent where a host has several drives "
                  "and the capabilities are not known.",
                  samples);
}

std::string Scans(const std::vector<QuestionOutcome>& questions)
{
    Pairs complete;
    Pairs status;
    Pairs seconds;
    for (const QuestionOutcome& one : questions) {
        const std::string labels = Labels(
            {{"class", ClassOf(one.question.deviceClass.value()).word}, {"asked", WordOf(one.question.subject)}});
        complete.emplace_back(labels, one.status ? "1" : "0");
        if (one.status) {
            status.emplace_back(labels, std::to_string(*one.status));
        }
        seconds.emplace_back(labels, Seconds(one.elapsed));
    }
    return Family("zendra_device_scan_complete", "Whether the scan ended in the time that it had.", complete) +
           Family("zendra_device_scan_status",
                  "What the scan answered: 0 and 4 it ran, 6 there is no device file of the class, 5 it failed.",
                  status) +
           Family("zendra_device_scan_seconds", "How long the scan took, or was waited for.", seconds);
}

std::string MissingFiles(const std::vector<Missing>& missing)
{
    Pairs samples;
    for (const Missing& one : missing) {
        // Of a class as a whole its scan tells.
        if (!one.deviceFile.empty()) {
            samples.emplace_back(Labels({{"device_file", LabelText(one.deviceFile)}, {"reason", WordOf(one.reason)}}),
                                 "1");
        }
    }
    const auto denied =
        std::count_if(missing.begin(), missing.end(), [](const Missing& one) { return one.reason == Reason::Denied; });
    return Family("zendra_device_missing", "A device file that gave no record, and why.", samples) +
           Family("zendra_device_files_denied", "Device files that could not be opened for lack of privilege.",
                  {{"", std::to_string(denied)}});
}

}  // namespace

std::string QuotedLabelValue(std::string text)
{
    boost::algorithm::replace_all(text, "\\", "\\\\");
    boost::algorithm::replace_all(text, "\"", "\\\"");
    boost::algorithm::replace_all(text, "\n", "\\n");
    return '"' + text + '"';
}

std::string RenderPrometheus(const Inventory& inventory, std::chrono::system_clock::time_point begun)
{
    std::string text;
    if (inventory.devices) {
        text +=
            Info("zendra_device_info", "A storage device that answered; the address is host:channel:target:lun.",
                 *inventory.devices, {"DEVICE", "ADDRESS", "TYPE", "VENDOR", "PRODUCT", "SERIAL", "FIRMWARE", "WWN"});
    }
    if (inventory.firmware) {
        text += Info("zendra_disk_firmware_info", "The firmware of a disk, RAID volumes and M.2 disks left out.",
                     *inventory.firmware, {"SOFTWARE-ID", "VERSION", "SERIAL"});
    }
    if (inventory.drives) {
        const std::vector<std::string> labels = {"DRIVE", "VENDOR", "PRODUCT"};
        text += Info("zendra_optical_drive_info", "An optical drive in the kernel's table of such drives.",
                     *inventory.drives, labels);
        text += Capabilities(*inventory.drives, labels);
    }
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::seconds>(begun.time_since_epoch());
    return text + Scans(inventory.questions) + MissingFiles(inventory.missing) +
           Family("zendra_device_scan_timestamp_seconds", "When the scans began.",
                  {{"", std::to_string(sinceEpoch.count())}});
}

}  // namespace Zendra::ZDDevices
