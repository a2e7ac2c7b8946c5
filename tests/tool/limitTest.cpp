/**
 * @file
 * @brief On every simulated host a limit that is not reached changes nothing of what is reported.
 */
#include <algorithm>
#include <filesystem>
#include <map>

#include "simhost.h"
#include "simhostTest.h"
#include "toolTests.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"
#include "tools/zddevices/scan/inventory.h"

namespace Zendra {
namespace ZDDevices {
namespace {

/** Far beyond what a simulated host takes, which waits for nothing. */
constexpr std::chrono::seconds limit(600);

std::vector<std::filesystem::path> HostFiles()
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(SIMHOST_DIRECTORY)) {
        if (entry.path().extension() == ".host") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

/** Everything that the program would print of a report, and whether there are records in it. */
struct Printed {
    std::string text;
    bool hasRecords = false;
};

template <typename Record>
Printed Everything(const Report<Record>& report)
{
    std::string text = RenderJson(report, {"host", "2024-02-29T12:00:00Z"});
    text += report.records.empty() ? report.nothingFound : RenderTable(TableOf(report.records, {}), 0);
    for (const Unanswered& unanswered : report.unanswered) {
        text += unanswered.className + ": " + unanswered.failure + "\n";
    }
    return {text + report.remark, !report.records.empty()};
}

/** The reports of a program, by what is asked for. */
std::map<std::string, std::function<Printed(const Collection&)>> Reports()
{
    std::map<std::string, std::function<Printed(const Collection&)>> reports = {
        {"all", [](const Collection& how) { return Everything(CollectDevices(std::nullopt, how)); }},
        {"optical properties", [](const Collection& how) { return Everything(CollectOptical(how)); }},
        {"firmware", [](const Collection& how) { return Everything(CollectFirmware(how)); }},
    };
    for (const DeviceClass& one : deviceClasses) {
        reports[one.word] = [type = one.type](const Collection& how) { return Everything(CollectDevices(type, how)); };
    }
    return reports;
}

/**
 * Whether two classes ask the same device files, as they do where the sg driver is not there to make files of its own.
 * The answers of a simulated device depend on how often it was asked: what one class asks in this process is felt by
 * the next.
 */
bool ClassesShareFiles(const SimHost::Host& host)
{
    return host.modprobeStatus != 0 ||
           std::none_of(host.dev.begin(), host.dev.end(),
                        [](const SimHost::DevEntry& entry) { return entry.name.rfind("sg", 0) == 0; });
}

/** All devices, with each class asked in this process as if it were the first. */
Printed MergeOfTheClasses(SimHost::MountedHost& mounted)
{
    std::vector<ZDSystemDevice::SystemDevice> lists;
    for (const DeviceClass& one : deviceClasses) {
        mounted.BeginCall();
        const DeviceAnswer answer = AskForDevices(one.type);
        lists.insert(lists.end(), answer.records.begin(), answer.records.end());
    }
    return Everything(DescribeDevices(ZDSystemDevice::DEVICE_RESULT_OK, Merge(lists), std::nullopt));
}

TEST(Limit, ThatIsNotReachedChangesNothingOnAnySimulatedHost)
{
    SIMHOST_NEEDS_NAMESPACE();
    setenv("LC_ALL", "C", 1);
    std::size_t hosts = 0;
    std::size_t withDevices = 0;
    std::size_t mergedDirectly = 0;
    for (const std::filesystem::path& file : HostFiles()) {
        const SimHost::Host host = SimHost::ReadHost(file);
        SimHost::MountedHost mounted(host);
        for (const auto& [name, collect] : Reports()) {
            mounted.BeginCall();
            const Printed unlimited =
                name == "all" && ClassesShareFiles(host) ? MergeOfTheClasses(mounted) : collect({});
            mounted.BeginCall();
            const Printed limited = collect({limit});
            EXPECT_EQ(limited.text, unlimited.text) << file.stem() << ", " << name;
            withDevices += unlimited.hasRecords ? 1 : 0;
            mergedDirectly += name == "all" && !ClassesShareFiles(host) && unlimited.hasRecords ? 1 : 0;
        }
        ++hosts;
    }
    EXPECT_GT(hosts, 50U);
    EXPECT_GT(withDevices, 50U);
    EXPECT_GT(mergedDirectly, 15U);
}

}  // namespace
}  // namespace ZDDevices
}  // namespace Zendra
