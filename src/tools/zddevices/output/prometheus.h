/**
 * @file
 * @brief The inventory as metrics, in Prometheus' text exposition format (version 0.0.4).
 *
 * One run gives one complete set of series; docs/prometheus.md says what each is for.
 */
#ifndef ZENDRA_ZDDEVICES_PROMETHEUS_H
#define ZENDRA_ZDDEVICES_PROMETHEUS_H

#include <chrono>
#include <string>

#include "tools/zddevices/scan/questions.h"

namespace Zendra::ZDDevices {

/** A label's value, in its quotation marks: backslash, quotation mark and line feed are written as the format asks. */
std::string QuotedLabelValue(std::string text);

/**
 * @brief The exposition: valid UTF-8 without control characters other than line feeds, whatever the records hold.
 *
 * No two samples have the same name and labels: records whose texts are equal are told apart by their `ordinal`, "1"
 * for the first of them in the order of the records, so that a device's series does not depend on other kinds of
 * devices. The locale changes nothing.
 *
 * @param inventory the answers to questions that each concern one class. What was not asked for has no series, not
 *                  even a heading.
 * @param begun when the run began.
 */
std::string RenderPrometheus(const Inventory& inventory, std::chrono::system_clock::time_point begun);

}  // namespace Zendra::ZDDevices

#endif
