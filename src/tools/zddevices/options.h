/**
 * @file
 * @brief The command line.
 */
#ifndef ZENDRA_ZDDEVICES_OPTIONS_H
#define ZENDRA_ZDDEVICES_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/records/arrange.h"

namespace Zendra::ZDDevices {

/** The subcommands; Devices is what runs without one. */
enum class Command { Devices, Optical, Firmware, Doctor, Diff };

enum class Format { Table, Csv, Json, Prometheus };

constexpr std::size_t usualJobs = 16;

/** What the user asks for. */
struct Options {
    Command command = Command::Devices;
    /** For Devices: the class to list unmerged; all classes, merged, when absent. */
    std::optional<ZDSystemDevice::SysDeviceType> type;
    Format format = Format::Table;
    /** Whether the library's own list is wanted, as DeviceCollector gives it. */
    bool asLibrary = false;
    /** How many workers may ask devices at a time. */
    std::size_t jobs = usualJobs;
    /** How long to wait for the devices; without limit when absent. */
    std::optional<std::chrono::nanoseconds> timeLimit;
    /** The headings of the table's columns, in their order; empty for the columns that are usual. */
    std::vector<std::string> columns;
    Headings headings = Headings::Shown;
    /** Which records are wanted: those that match all of these. */
    std::vector<Filter> filters;
    /** The heading of the column to sort by; empty for the usual order. */
    std::string sortedBy;
    /** For Diff: the paths of the two files. */
    std::string oldInventory;
    std::string newInventory;
    /** How much the library is to say on standard error; absent when the option was not given. */
    std::optional<unsigned int> logLevel;
};

/** The command line asks for a text on standard output, and nothing else: help or version. */
struct TextWanted {
    std::string text;
};

/** The command line makes no sense; one line, without its end, that says why. */
struct UsageError {
    std::string message;
};

using CommandLine = std::variant<Options, TextWanted, UsageError>;

/** Reads the command line; does nothing else. */
CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace Zendra::ZDDevices

#endif
