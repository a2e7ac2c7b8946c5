/**
 * @file
 * @brief The inventory as metrics, in Prometheus' text exposition format (version 0.0.4).
 *
 * One run gives one complete set of series; docs/prometheus.md says what each is for. Knows nothing of how the
 * records were come by.
 */
#ifndef ZENDRA_ZDDEVICES_PROMETHEUS_H
#define ZENDRA_ZDDEVICES_PROMETHEUS_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra {
namespace ZDDevices {

/** One call of the library's facade. */
struct Scan {
    /** The class whose device files were asked: "disk". */
    std::string deviceClass;
    /** What for: "devices", "firmware" or "capabilities". */
    std::string asked;
    /** What the facade answered; absent when it did not in the time that it had. */
    std::optional<unsigned int> status;
    /** How long it took, or how long it was waited for. */
    std::chrono::duration<double> elapsed{};
};

/** What one run has found. What was not asked for is absent and has no series, not even a heading. */
struct Metrics {
    /** When the run began. */
    std::chrono::system_clock::time_point begun;
    std::vector<Scan> scans;
    std::optional<std::vector<ZDSystemDevice::SystemDevice>> devices;
    std::optional<std::vector<ZDOptions::SoftwareIdentity_>> firmware;
    std::optional<std::vector<ZDSystemDevice::OpticalProperty>> drives;
    /** How many device files this process may not open. */
    std::size_t deniedFiles = 0;
};

/** A label's value, in its quotation marks: backslash, quotation mark and line feed are written as the format asks. */
std::string QuotedLabelValue(const std::string& text);

/**
 * @brief The exposition: valid UTF-8 without control characters other than line feeds, whatever the records hold.
 *
 * No two samples have the same name and labels: records whose texts are equal are told apart by their `ordinal`, "1"
 * for the first of them in the order of the records, so that a device's series does not depend on other kinds of
 * devices. The locale changes nothing.
 */
std::string RenderPrometheus(const Metrics& metrics);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
