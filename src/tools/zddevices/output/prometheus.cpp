#include "tools/zddevices/output/prometheus.h"

#include <array>
#include <charconv>
#include <map>
#include <utility>

#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/deviceReport.h"
#include "tools/zddevices/records/opticalReport.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDOptions::SoftwareIdentity_;
using ZDSystemDevice::OpticalProperty;
using ZDSystemDevice::SystemDevice;

struct Label {
    const char* name;
    std::string value;
};

/** "{name="value",...}" */
std::string LabelSet(const std::vector<Label>& labels)
{
    std::string set;
    for (const Label& label : labels) {
        set += (set.empty() ? "{" : ",") + std::string(label.name) + "=" + QuotedLabelValue(label.value);
    }
    return set + "}";
}

/** Tells records with equal labels apart. */
class Ordinals {
public:
    std::string Next(const std::vector<Label>& labels) { return std::to_string(++counts[LabelSet(labels)]); }

private:
    std::map<std::string, std::size_t> counts;
};

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

std::string Devices(const std::vector<SystemDevice>& devices)
{
    Family info("zendra_device_info", "A storage device that answered; the address is port:bus:target:lun.");
    Ordinals ordinals;
    for (const SystemDevice& device : devices) {
        const std::string address = AddressCell(device);
        std::vector<Label> labels = {{"address", address == unknownText ? "" : address},
                                     {"type", LabelText(device.device_type)},
                                     {"vendor", LabelText(device.vendor)},
                                     {"product", LabelText(device.product)},
                                     {"serial", LabelText(device.serial_number)},
                                     {"firmware", LabelText(device.firmware_revision)}};
        labels.push_back({"ordinal", ordinals.Next(labels)});
        info.Add(LabelSet(labels), "1");
    }
    return info.Lines();
}

std::string Firmware(const std::vector<SoftwareIdentity_>& identities)
{
    Family info("zendra_disk_firmware_info", "The firmware of a disk, RAID volumes and M.2 disks left out.");
    Ordinals ordinals;
    for (const SoftwareIdentity_& identity : identities) {
        std::vector<Label> labels = {{"software_id", LabelText(identity.SoftwareID)},
                                     {"version", LabelText(identity.VersionString)},
                                     {"serial", LabelText(identity.SerialNumber)}};
        labels.push_back({"ordinal", ordinals.Next(labels)});
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
    Ordinals ordinals;
    for (const OpticalProperty& drive : drives) {
        std::vector<Label> labels = {{"drive", LabelText(drive.drive_name_)},
                                     {"vendor", LabelText(drive.vendor_)},
                                     {"product", LabelText(drive.product_)}};
        labels.push_back({"ordinal", ordinals.Next(labels)});
        info.Add(LabelSet(labels), "1");
        if (NamesSeveral(drive)) {
            continue;
        }
        const std::pair<const char*, const std::string*> capabilities[] = {
            {"dvd_read", &drive.dvd_read_},       {"mrw_read", &drive.mrw_r_},
            {"cd_r_write", &drive.cd_r_write_},   {"cd_rw_write", &drive.cd_rw_write_},
            {"dvd_r_write", &drive.dvd_r_write_}, {"dvd_ram_write", &drive.dvd_ram_write_},
            {"mrw_write", &drive.mrw_w_},         {"ram_write", &drive.ram_w_}};
        for (const auto& [word, answer] : capabilities) {
            std::vector<Label> capabilityLabels = labels;
            capabilityLabels.push_back({"capability", word});
            capability.Add(LabelSet(capabilityLabels), *answer == "Yes" ? "1" : "0");
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
