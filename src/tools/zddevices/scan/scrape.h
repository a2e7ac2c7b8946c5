/**
 * @file
 * @brief Collects what one exposition of metrics holds.
 */
#ifndef ZENDRA_ZDDEVICES_SCRAPE_H
#define ZENDRA_ZDDEVICES_SCRAPE_H

#include <vector>

#include "tools/zddevices/options.h"
#include "tools/zddevices/output/prometheus.h"
#include "tools/zddevices/records/report.h"
#include "tools/zddevices/scan/inventory.h"

namespace Zendra {
namespace ZDDevices {

struct Scrape {
    /** Complete but for the denied device files. */
    Metrics metrics;
    /** The scans that gave no answer. */
    std::vector<Unanswered> unanswered;
};

/**
 * @brief Makes the scans that the options ask for, one after the other, or with a limit all at the same time.
 *
 * Without a subcommand and a class that is everything: the four classes, whose lists are merged as the facade's merged
 * call does it, the disks' firmware, and the optical drive's capabilities. The disks are then asked twice, since each
 * answer is the library's own.
 */
Scrape CollectScrape(const Options& options, const Collection& collection);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
