/**
 * @file
 * @brief zddevices: shows what libdeviceCollector finds on this host.
 */
#include <unistd.h>

#include <clocale>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <variant>

#include "tools/zddevices/access.h"
#include "tools/zddevices/console.h"
#include "tools/zddevices/exitCode.h"
#include "tools/zddevices/inventory.h"
#include "tools/zddevices/json.h"
#include "tools/zddevices/logging.h"
#include "tools/zddevices/options.h"
#include "tools/zddevices/progress.h"
#include "tools/zddevices/status.h"
#include "tools/zddevices/table.h"
#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

std::string Render(const Report& report, Format format, const Occasion& occasion)
{
    if (format == Format::Json) {
        return RenderJson(report, occasion);
    }
    const Sheet sheet = report.sheet();
    if (sheet.rows.empty()) {
        return report.nothingFound + "\n";
    }
    return RenderTable(sheet, OutputWidth());
}

Report Collect(const Options& options)
{
    std::optional<Progress> progress;
    // A log on the terminal tells more, and would be torn by the line.
    if (options.logLevel.value_or(0) == 0 && Progress::IsOfUse()) {
        progress.emplace();
    }
    const Collection collection{options.timeLimit, progress ? &*progress : nullptr};
    switch (options.command) {
    case Command::Optical:
        return CollectOptical(collection);
    case Command::Firmware:
        return CollectFirmware(collection);
    case Command::Devices:
        break;
    }
    return CollectDevices(options.type, collection);
}

/** The class whose device files the answer depends on; none when it is all of them. */
std::optional<ZDSystemDevice::SysDeviceType> AskedClass(const Options& options)
{
    switch (options.command) {
    case Command::Optical:
        return ZDSystemDevice::SYS_DEVICE_CDDVD;
    case Command::Firmware:
        return ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
    case Command::Devices:
        break;
    }
    return options.type;
}

int FailUsage(const std::string& message)
{
    Complain((Printable(message) + "\nTry \"zddevices --help\".").c_str());
    return EXIT_CODE_USAGE;
}

std::string DescribeUnanswered(const Unanswered& unanswered)
{
    const std::string device = unanswered.device.empty() ? "" : " (" + unanswered.device + ")";
    return Printable("class " + unanswered.className + ": " + unanswered.failure + device);
}

int Show(const Options& options)
{
    if (options.logLevel && !EnableLog(*options.logLevel)) {
        return FailUsage("--log-level: the logging library that zddevices was built with takes no level");
    }
    const Occasion occasion = HereAndNow();
    const Report report = Collect(options);
    // Asked after the scan: loading the sg driver has made the device files of the generic class.
    const std::vector<DeniedFile> denied = FindDeniedFiles(AskedClass(options));
    WriteOutput(Render(report, options.format, occasion));
    if (report.unanswered.empty() && !ScanRan(report.status)) {
        Complain(
            ("the scan failed: " + StatusName(report.status) + " (" + std::to_string(report.status) + ")").c_str());
        return EXIT_CODE_FAILURE;
    }
    if (!report.remark.empty()) {
        Complain(report.remark.c_str());
    }
    for (const Unanswered& unanswered : report.unanswered) {
        Complain(DescribeUnanswered(unanswered).c_str());
    }
    if (!denied.empty()) {
        Complain(DescribeDenied(denied, geteuid() == 0).c_str());
    }
    return denied.empty() && report.unanswered.empty() ? EXIT_CODE_OK : EXIT_CODE_INCOMPLETE;
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
    return Show(std::get<Options>(commandLine));
}

}  // namespace

}  // namespace ZDDevices
}  // namespace Zendra

int main(int argc, char** argv)
{
    using namespace Zendra::ZDDevices;
    PrepareConsole();
    // Only the characters: which of them are printable, and how wide. Numbers and messages stay as they are.
    static_cast<void>(std::setlocale(LC_CTYPE, ""));
    try {
        return Run(argc, argv);
    } catch (const std::bad_alloc&) {
        Complain("out of memory");
    } catch (const std::exception& error) {
        Complain(error.what());
    } catch (...) {
        Complain("unknown failure");
    }
    return EXIT_CODE_FAILURE;
}
