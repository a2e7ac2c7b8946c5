#include "tools/zddevices/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <charconv>
#include <cmath>
#include <locale>
#include <utility>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/storageDevice.h"

namespace Zendra::ZDDevices {

namespace {

constexpr const char* programName = "zddevices";
constexpr const char* version = ZENDRA_VERSION;

/** Where the descriptions begin; with lines of at most 47 characters they end before column 80. */
constexpr std::size_t descriptionColumn = 32;

const char* const footer = "Examples:\n"
                           "  zddevices                         every storage device, each listed once\n"
                           "  zddevices --type disk             the disks, as their device files stand\n"
                           "  zddevices --format json | jq -r '.devices[].serial_number'\n"
                           "  zddevices --filter 'serial=ZC1*'  the devices whose serial numbers begin so\n"
                           "  zddevices optical                 what the optical drive can read and write\n"
                           "  zddevices firmware --format json  disk firmware as CIM software identities\n"
                           "  zddevices --timeout 10            what answers within ten seconds\n"
                           "  zddevices doctor                  why a device is missing, and what to do\n"
                           "  zddevices diff old.json new.json  which devices came, went or changed\n"
                           "  zddevices --log-level 4 2>trace   what was asked of each device, in a file\n"
                           "\n"
                           "In tables \"-\" means: not known. Blanks around a text and control characters\n"
                           "behind it are left out; any other byte that is not printable is shown as \\xNN.\n"
                           "JSON holds the texts as the device gave them, with U+FFFD in place of each byte\n"
                           "that is not UTF-8. The format prometheus is for its text collectors; without\n"
                           "--type or a subcommand it holds the devices, firmware and optical drives.\n"
                           "\n"
                           "Exit codes:\n"
                           "  0  the scan ran, also when no device is there\n"
                           "  1  failure: the scan failed or its result could not be written\n"
                           "  2  wrong usage\n"
                           "  3  the scan ran, but device files gave no record, or devices have no file;\n"
                           "     standard error says which, and why\n"
                           "diff: 0 nothing has changed, 1 something has, 2 the files cannot be compared";

/** Words that an option takes, and what each means. */
template <typename T>
using Words = std::vector<std::pair<std::string, T>>;

Words<ZDSystemDevice::SysDeviceType> Types()
{
    Words<ZDSystemDevice::SysDeviceType> types;
    for (const DeviceClass& one : deviceClasses) {
        types.emplace_back(one.word, one.type);
    }
    return types;
}

const Words<Format> formats = {
    {"csv", Format::Csv}, {"json", Format::Json}, {"prometheus", Format::Prometheus}, {"table", Format::Table}};

const Words<unsigned int> logLevels = {{"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}, {"4", 4}};

/** What runs in place of the list of devices. */
struct Subcommand {
    Command command;
    const char* name;
    const char* description;
    /** The headings that --columns knows. */
    std::vector<std::string> (*headings)();
};

constexpr Subcommand subcommands[] = {
    {Command::Optical, "optical", "What the optical drive can read and write",
     HeadingsOf<ZDSystemDevice::OpticalProperty>},
    {Command::Firmware, "firmware",
     "The disks' firmware as CIM software identities,\n"
     "without RAID volumes and M.2 disks",
     HeadingsOf<DiskFirmware>},
    {Command::Doctor, "doctor",
     "What this host lets the library see, and what\n"
     "to do where that is not everything. Loads the\n"
     "sg driver, as every scan does",
     HeadingsOf<StorageDevice>},
    {Command::Diff, "diff",
     "What has changed: diff OLD NEW compares two\n"
     "files from --format json, or two fleet.json",
     HeadingsOf<StorageDevice>},
};

/** 'unknown format "x" (csv, json, prometheus or table)'. */
CLI::ParseError Unknown(const std::string& what, const std::string& word, std::vector<std::string> known)
{
    const std::string last = known.back();
    known.pop_back();
    return CLI::ValidationError("unknown " + what + " \"" + word + "\" (" + boost::algorithm::join(known, ", ") +
                                " or " + last + ")");
}

template <typename T>
T MeaningOf(const std::string& word, const Words<T>& words, const std::string& what)
{
    std::vector<std::string> known;
    for (const auto& [one, meaning] : words) {
        if (one == word) {
            return meaning;
        }
        known.push_back(one);
    }
    throw Unknown(what, word, known);
}

/** The heading of the column; capitals do not matter, nor do blanks around the name. */
std::string ParseColumn(const std::string& column, const std::vector<std::string>& known)
{
    const std::locale& classic = std::locale::classic();
    const std::string name = boost::algorithm::trim_copy(column, classic);
    const auto found = std::find_if(known.begin(), known.end(), [&](const std::string& heading) {
        return boost::algorithm::iequals(heading, name, classic);
    });
    if (found == known.end()) {
        throw Unknown("column", name, known);
    }
    return *found;
}

/** Headings out of names separated by commas. */
std::vector<std::string> ParseColumns(const std::string& list, const std::vector<std::string>& known)
{
    std::vector<std::string> columns;
    boost::algorithm::split(columns, list, boost::algorithm::is_any_of(","));
    for (std::string& column : columns) {
        column = ParseColumn(column, known);
    }
    return columns;
}

/** "serial=ZC1*". */
Filter ParseFilter(const std::string& text, const std::vector<std::string>& known)
{
    const std::size_t sign = text.find('=');
    if (sign == std::string::npos) {
        throw CLI::ValidationError("--filter", "\"" + text + "\" is not of the form COLUMN=PATTERN");
    }
    return {ParseColumn(text.substr(0, sign), known), text.substr(sign + 1)};
}

/** Seconds as a decimal number: as many as somebody would wait. */
std::chrono::nanoseconds ParseSeconds(const std::string& text)
{
    constexpr double shortest = 0.001;
    constexpr double longest = 86400;
    double seconds = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (result.ec != std::errc() || result.ptr != end || !(seconds >= shortest && seconds <= longest)) {
        throw CLI::ValidationError("--timeout", "\"" + text + "\" is no number of seconds from 0.001 to 86400");
    }
    constexpr double nanosecondsInASecond = 1e9;
    return std::chrono::nanoseconds(std::llround(seconds * nanosecondsInASecond));
}

std::size_t ParseJobs(const std::string& text)
{
    constexpr std::size_t most = 1000;
    std::size_t jobs = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, jobs);
    if (result.ec != std::errc() || result.ptr != end || jobs < 1 || jobs > most) {
        throw CLI::ValidationError("--jobs", "\"" + text + "\" is no number from 1 to 1000");
    }
    return jobs;
}

/** Help text without what our options say better themselves: type names and the values that are accepted. */
class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() { column_width(descriptionColumn); }

    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override
    {
        return std::string("\nUsage: ") + programName + " [OPTIONS] [SUBCOMMAND]\n";
    }

    std::string make_option_opts(const CLI::Option* option) const override
    {
        return option->get_type_size() == 0 ? std::string() : " " + option->get_type_name();
    }
};

/** Options that are good by themselves, and make no sense together. */
void RefuseNonsense(const Options& options, const CLI::App& app)
{
    const auto refuse = [&app](bool nonsense, const std::string& option, const std::string& why) {
        if (nonsense && app.count(option) > 0) {
            throw CLI::ValidationError(option + why);
        }
    };
    refuse(options.command != Command::Devices, "--type", " makes no sense with a subcommand");
    // The one writes no table, and says by itself what was asked and answered; the other asks no device.
    const bool doctor = options.command == Command::Doctor;
    const bool diff = options.command == Command::Diff;
    const std::string withIt = std::string(" makes no sense with ") + (doctor ? "doctor" : "diff");
    for (const char* option : {"--columns", "--filter", "--sort", "--log-level", "--as-library", "--jobs"}) {
        refuse(doctor || diff, option, withIt);
    }
    refuse(doctor, "--no-headings", withIt);
    refuse(diff, "--timeout", withIt);
    const bool metrics = options.format == Format::Prometheus;
    refuse((doctor || diff) && options.format == Format::Csv, "--format", " csv" + withIt);
    refuse((doctor || diff) && metrics, "--format", " prometheus" + withIt);
    refuse(options.asLibrary, "--jobs", " makes no sense with --as-library");
    refuse(metrics, "--as-library", " makes no sense with --format prometheus");
    for (const char* option : {"--no-headings", "--columns"}) {
        refuse(metrics || options.format == Format::Json, option, " makes sense for a table or csv only");
    }
    for (const char* option : {"--filter", "--sort"}) {
        refuse(metrics, option, " makes no sense with --format prometheus");
    }
}

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv)
{
    CLI::App app("Lists the storage devices of this host: disks, tape drives, optical drives and\n"
                 "whatever else answers as a SCSI device.",
                 programName);
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(footer);
    app.set_help_flag("-h,--help", "Show this text and exit");
    app.set_version_flag("-V,--version", version, "Show the version and exit");

    std::string type;
    app.add_option("-t,--type", type,
                   "List one class only, one line per device file:\n"
                   "tape, scsi, disk or optical. Without it, all\n"
                   "classes; a device with several device files is\n"
                   "then listed once")
        ->type_name("CLASS");
    std::string format = "table";
    app.add_option("-f,--format", format, "table (default), csv, json or prometheus")->type_name("FORMAT");
    std::string columns;
    app.add_option("--columns", columns,
                   "The table's columns, separated by commas, in\n"
                   "this order. A wrong name lists the right ones")
        ->type_name("LIST");
    bool noHeadings = false;
    app.add_flag("--no-headings", noHeadings, "Leave out the table's first line");
    std::vector<std::string> filters;
    app.add_option("--filter", filters,
                   "Show only what has this in a column: a pattern\n"
                   "like those for file names. Of several filters\n"
                   "all have to match")
        ->type_name("COLUMN=PATTERN")
        ->allow_extra_args(false);
    std::string sortedBy;
    app.add_option("--sort", sortedBy, "Sort by this column, numbers as numbers")->type_name("COLUMN");
    std::string logLevel;
    app.add_option("-l,--log-level", logLevel,
                   "What the library logs on standard error:\n"
                   "0 nothing (default), 1 failures, 3 outcomes,\n"
                   "4 every step, with --as-library also those of\n"
                   "its list of all devices")
        ->type_name("0..4");
    std::string timeLimit;
    app.add_option("--timeout", timeLimit,
                   "Show what answered within this time, and name\n"
                   "the device files that did not")
        ->type_name("SECONDS");

    bool asLibrary = false;
    app.add_flag("--as-library", asLibrary, "List what the library's own lists hold");
    std::string jobs;
    app.add_option("--jobs", jobs,
                   "Ask so many devices at a time (default 16);\n"
                   "with 1, one after the other")
        ->type_name("N");

    Options options;
    for (const Subcommand& one : subcommands) {
        // The program's options are taken before the subcommand's name and after it.
        CLI::App* subcommand = app.add_subcommand(one.name, one.description)->fallthrough();
        if (one.command == Command::Diff) {
            subcommand->add_option("OLD", options.oldInventory)->required();
            subcommand->add_option("NEW", options.newInventory)->required();
        }
    }
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
        auto* headings = asLibrary ? &HeadingsOf<ZDSystemDevice::SystemDevice> : &HeadingsOf<StorageDevice>;
        for (const Subcommand& one : subcommands) {
            if (app.got_subcommand(one.name)) {
                options.command = one.command;
                headings = one.headings;
            }
        }
        options.asLibrary = asLibrary;
        if (app.count("--jobs") > 0) {
            options.jobs = ParseJobs(jobs);
        }
        options.format = MeaningOf(format, formats, "format");
        options.headings = noHeadings ? Headings::None : Headings::Shown;
        if (app.count("--type") > 0) {
            options.type = MeaningOf(type, Types(), "type");
        }
        if (app.count("--log-level") > 0) {
            options.logLevel = MeaningOf(logLevel, logLevels, "log level");
        }
        if (app.count("--timeout") > 0) {
            options.timeLimit = ParseSeconds(timeLimit);
        }
        if (app.count("--columns") > 0) {
            options.columns = ParseColumns(columns, headings());
        } else if (asLibrary && options.command == Command::Firmware) {
            // Its list does not say whose the firmware is.
            options.columns = {"SOFTWARE-ID", "VERSION", "SERIAL"};
        }
        for (const std::string& filter : filters) {
            options.filters.push_back(ParseFilter(filter, headings()));
        }
        if (app.count("--sort") > 0) {
            options.sortedBy = ParseColumn(sortedBy, headings());
        }
        RefuseNonsense(options, app);
        return options;
    } catch (const CLI::CallForHelp&) {
        // Not app.help(): after a subcommand that would be the subcommand's, which has no options of its own.
        return TextWanted{app.get_formatter()->make_help(&app, programName, CLI::AppFormatMode::Normal)};
    } catch (const CLI::CallForVersion&) {
        return TextWanted{std::string(programName) + " " + version + "\n"};
    } catch (const CLI::ArgumentMismatch& error) {
        // CLI11 counts ("1 required CLASS missing"); the option's name stands before the colon.
        const std::string message = error.what();
        return UsageError{message.substr(0, message.find(':')) + " takes one value and may be given once"};
    } catch (const CLI::ParseError& error) {
        // An argument may be quoted in the message, line ends and all.
        std::string message = error.what();
        boost::algorithm::trim(message);
        return UsageError{message};
    }
}

}  // namespace Zendra::ZDDevices
