/**
 * @file
 * @brief zddevices: shows what libdeviceCollector finds on this host.
 */
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <variant>
#include <vector>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/diff/compare.h"
#include "tools/zddevices/diff/diffReport.h"
#include "tools/zddevices/diff/inventoryFile.h"
#include "tools/zddevices/doctor/doctor.h"
#include "tools/zddevices/doctor/doctorReport.h"
#include "tools/zddevices/options.h"
#include "tools/zddevices/output/console.h"
#include "tools/zddevices/output/csv.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/prometheus.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/arrange.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"
#include "tools/zddevices/scan/logging.h"
#include "tools/zddevices/scan/progress.h"
#include "tools/zddevices/scan/questions.h"

namespace Zendra::ZDDevices {

namespace {

/** Part of the program's interface: scripts rely on these numbers. The help text lists them. */
enum ExitCode : int {
    EXIT_CODE_OK = 0,       ///< The scan ran, also when nothing is attached.
    EXIT_CODE_FAILURE = 1,  ///< The scan failed or its result could not be written.
    EXIT_CODE_USAGE = 2,    ///< The command line makes no sense.
    /** The scan ran, but device files gave no record, or devices could not be asked. */
    EXIT_CODE_INCOMPLETE = 3
};

template <typename Record>
std::string Render(const Report<Record>& report, const Options& options, const ReportOrigin& origin)
{
    if (options.format == Format::Json) {
        return RenderJson(report, origin);
    }
    if (options.format == Format::Csv) {
        return RenderCsv(TableOf(report.records, options.columns, ValueOf<Record>), options.headings);
    }
    if (report.records.empty()) {
        // Without headings the output is for a program that takes each line for a row.
        return options.headings == Headings::None ? std::string() : report.nothingFound + "\n";
    }
    return RenderTable(TableOf(report.records, options.columns), TerminalWidth(STDOUT_FILENO), options.headings);
}

/** What shows on a terminal that devices take their time; none where nobody looks. */
std::unique_ptr<Progress> MakeProgress(const Options& options)
{
    // A log on the terminal tells more, and would be torn by the line.
    return options.logLevel.value_or(0) == 0 && Progress::IsOfUse() ? std::make_unique<Progress>() : nullptr;
}

Inventory TakeInventory(const Options& options)
{
    const std::unique_ptr<Progress> progress = MakeProgress(options);
    return TakeInventory(options, progress.get());
}

/** What a scan needs of its environment, which root's cron, for one, does not give it. */
void PrepareEnvironment()
{
    // modprobe is run by a shell.
    const char* const path = std::getenv("PATH");
    // An empty one would stand for the current directory, which may be anybody's.
    const std::string directories = path == nullptr || *path == '\0' ? "/usr/bin:/bin" : path;
    setenv("PATH", (directories + ":/usr/sbin:/sbin").c_str(), 1);
    // Where it is ignored, the end of modprobe cannot be waited for.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
}

int FailUsage(const std::string& message)
{
    Complain((Printable(message) + "\nTry \"zddevices --help\".").c_str());
    return EXIT_CODE_USAGE;
}

int FailScan(unsigned int status, const Inventory& inventory)
{
    ComplainUntil(DescribeFailedScan(status), inventory.end);
    return EXIT_CODE_FAILURE;
}

/** Says what an answer lacks; the exit code. */
int ShowWhatIsMissing(const Inventory& inventory)
{
    for (const std::string& line : DescribeMissing(inventory.missing, geteuid() == 0)) {
        ComplainUntil(line, inventory.end);
    }
    return inventory.missing.empty() ? EXIT_CODE_OK : EXIT_CODE_INCOMPLETE;
}

int ShowMetrics(const Options& options)
{
    const auto begun = std::chrono::system_clock::now();
    const Inventory inventory = TakeInventory(options);
    WriteOutput(RenderPrometheus(inventory, begun));
    for (const QuestionOutcome& one : inventory.questions) {
        if (one.status && !ScanRan(*one.status)) {
            return FailScan(*one.status, inventory);
        }
    }
    return ShowWhatIsMissing(inventory);
}

/** What people are told in place of a table without rows. */
std::string DescribeNothing(const std::string& complete, const std::vector<Missing>& missing)
{
    const auto lacks = [&missing](auto condition) { return std::any_of(missing.begin(), missing.end(), condition); };
    if (lacks([](const Missing& one) { return one.reason == Reason::NoAnswerInTime; })) {
        return "Nothing was found in time.";
    }
    return lacks([](const Missing& one) { return one.reason != Reason::Denied; }) ? "Nothing was found." : complete;
}

/** Leaves the records that are asked for, in the order that is asked for. */
template <typename Record>
void Arrange(Report<Record>& report, const Options& options)
{
    if (!report.records.empty() && !options.filters.empty()) {
        Select(report.records, options.filters);
        report.nothingFound = "Nothing matches the filter.";
    }
    SortBy(report.records, options.sortedBy);
}

template <typename Record>
int ShowReport(const Options& options, const ReportOrigin& origin, const Inventory& inventory, Report<Record> report)
{
    report.missing = inventory.missing;
    report.nothingFound = DescribeNothing(report.nothingFound, report.missing);
    Arrange(report, options);
    WriteOutput(Render(report, options, origin));
    if (report.missing.empty() && !ScanRan(report.status)) {
        return FailScan(report.status, inventory);
    }
    if (!report.remark.empty()) {
        ComplainUntil(report.remark, inventory.end);
    }
    return ShowWhatIsMissing(inventory);
}

int Show(const Options& options)
{
    if (options.logLevel && !EnableLog(*options.logLevel)) {
        return FailUsage("--log-level: the logging library that zddevices was built with takes no level");
    }
    if (options.format == Format::Prometheus) {
        return ShowMetrics(options);
    }
    ReportOrigin origin = HereAndNow();
    origin.type = options.type ? ClassOf(*options.type).word : "";
    for (const Filter& filter : options.filters) {
        origin.filters.push_back(filter.heading + "=" + filter.pattern);
    }
    Inventory found = TakeInventory(options);
    if (found.drives) {
        return ShowReport(options, origin, found, DescribeOptical(found.status, std::move(*found.drives)));
    }
    if (found.firmware) {
        return ShowReport(options, origin, found, DescribeFirmware(found.status, std::move(*found.firmware)));
    }
    if (found.facadeDevices) {
        return ShowReport(options, origin, found,
                          DescribeDevices(found.status, std::move(*found.facadeDevices), options.type));
    }
    return ShowReport(options, origin, found,
                      DescribeDevices(found.status, std::move(found.devices.value()), options.type));
}

int ShowDiagnosis(const Options& options)
{
    const ReportOrigin origin = HereAndNow();
    const auto started = std::chrono::steady_clock::now();
    const Duration limit = options.timeLimit.value_or(usualTimeForAll);
    std::unique_ptr<Progress> progress = MakeProgress(options);
    const Diagnosis diagnosis = Diagnose(
        LookAtHost(limit), limit,
        [&](const std::vector<FileOfClass>& files) { return CheckInWorkers(files, limit, started, progress.get()); },
        KernelDevices::Read);
    progress.reset();
    WriteOutput(options.format == Format::Json ? RenderDiagnosisJson(diagnosis, origin)
                                               : RenderDiagnosis(diagnosis, TerminalWidth(STDOUT_FILENO)));
    return diagnosis.AllVisible() ? EXIT_CODE_OK : EXIT_CODE_INCOMPLETE;
}

/** As diff(1) has it: 0 the same, 1 different, 2 trouble. */
int ShowDifference(const Options& options)
{
    try {
        const InventoryFile before = ReadInventoryFile(options.oldInventory);
        const InventoryFile after = ReadInventoryFile(options.newInventory);
        const Difference difference = Compare(before, after);
        WriteOutput(options.format == Format::Json
                        ? RenderDifferenceJson(difference, before, after)
                        : RenderDifference(difference, before, TerminalWidth(STDOUT_FILENO), options.headings));
        return difference.IsEmpty() ? 0 : 1;
    } catch (const NobodyReads&) {
    } catch (const std::bad_alloc&) {
        Complain("out of memory");
    } catch (const std::exception& error) {
        Complain(Printable(error.what()).c_str());
    }
    return EXIT_CODE_USAGE;
}

int Run(int argc, const char* const* argv)
{
    const CommandLine commandLine = ParseCommandLine(argc, argv);
    if (const auto* wanted = std::get_if<TextWanted>(&commandLine)) {
        WriteOutput(wanted->text);
        return EXIT_CODE_OK;
    }
    if (const auto* error = std::get_if<UsageError>(&commandLine)) {
        return FailUsage(error->message);
    }
    const auto& options = std::get<Options>(commandLine);
    if (options.command == Command::Diff) {
        return ShowDifference(options);
    }
    return options.command == Command::Doctor ? ShowDiagnosis(options) : Show(options);
}

}  // namespace

}  // namespace Zendra::ZDDevices

int main(int argc, char** argv)
{
    using namespace Zendra::ZDDevices;
    PrepareConsole();
    PrepareEnvironment();
    // Only the characters: which of them are printable, and how wide. Numbers and messages stay as they are.
    static_cast<void>(std::setlocale(LC_CTYPE, ""));
    try {
        return Run(argc, argv);
    } catch (const NobodyReads&) {
        // "zddevices | head -1" has what it wants.
    } catch (const std::bad_alloc&) {
        Complain("out of memory");
    } catch (const std::exception& error) {
        Complain(error.what());
    } catch (...) {
        Complain("unknown failure");
    }
    return EXIT_CODE_FAILURE;
}
