#include "tools/zddevices/scan/inventory.h"

#include <iterator>
#include <utility>

#include "module/osinfos/systemdevice/deviceCollector.h"
#include "module/osinfos/systemdevice/deviceMerge.h"

namespace Zendra {
namespace ZDDevices {

namespace {

/** The answers to the tasks that got one, as one; each record list behind the other. */
template <typename Record>
Answer<Record> AskInTime(const std::vector<Task>& tasks, const Collection& collection,
                         std::vector<Unanswered>& unanswered)
{
    // What is reported where there is nothing of the library's to report.
    Answer<Record> all{ZDSystemDevice::DEV_FAILURE, {}};
    const std::vector<Outcome> outcomes = RunIsolated(tasks, collection.limit, collection.progress);
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        const Outcome& outcome = outcomes[i];
        std::optional<Answer<Record>> answer;
        if (outcome.answer) {
            answer = Decode<Record>(*outcome.answer);
        }
        if (!answer) {
            unanswered.push_back({tasks[i].name, DescribeFailure(outcome), outcome.device});
            continue;
        }
        all.status = answer->status;
        all.records.insert(all.records.end(), std::make_move_iterator(answer->records.begin()),
                           std::make_move_iterator(answer->records.end()));
    }
    return all;
}

/** The answer to a call in this process. */
template <typename Record>
Answer<Record> AskHere(const std::function<Answer<Record>()>& ask, const Collection& collection)
{
    std::optional<BackgroundProgress> progress;
    if (collection.progress != nullptr) {
        progress.emplace(*collection.progress);
    }
    return ask();
}

/** The answer to a call that a subcommand makes for one class. */
template <typename Record>
Answer<Record> Ask(const char* className, const std::function<Answer<Record>()>& ask, const Collection& collection,
                   std::vector<Unanswered>& unanswered)
{
    return collection.limit ? AskInTime<Record>({MakeTask<Record>(className, ask)}, collection, unanswered)
                            : AskHere<Record>(ask, collection);
}

template <typename Record>
Report<Record> Complete(Report<Record> report, std::vector<Unanswered> unanswered)
{
    report.unanswered = std::move(unanswered);
    if (!report.unanswered.empty()) {
        report.nothingFound = "Nothing was found in time.";
    }
    return report;
}

}  // namespace

DeviceAnswer AskForDevices(std::optional<ZDSystemDevice::SysDeviceType> type)
{
    ZDSystemDevice::DeviceCollector collector;
    DeviceAnswer answer;
    answer.status =
        type ? collector.GetIndividualDevice(answer.records, *type) : collector.GetAllDevice(answer.records);
    return answer;
}

OpticalAnswer AskForOptical()
{
    OpticalAnswer answer;
    answer.status = ZDSystemDevice::DeviceCollector().GetOpticalProperties(answer.records);
    return answer;
}

FirmwareAnswer AskForFirmware()
{
    FirmwareAnswer answer;
    answer.status = ZDSystemDevice::DeviceCollector().GetDiskDriverSoftwareIdentities(answer.records);
    return answer;
}

Task MakeDeviceTask(const DeviceClass& deviceClass)
{
    return MakeTask<ZDSystemDevice::SystemDevice>(deviceClass.word,
                                                  [type = deviceClass.type] { return AskForDevices(type); });
}

std::string DescribeFailure(const Outcome& outcome)
{
    return outcome.failure.empty() ? "its process gave no proper answer" : outcome.failure;
}

std::vector<ZDSystemDevice::SystemDevice> Merge(std::vector<ZDSystemDevice::SystemDevice> listsOfTheClasses)
{
    std::vector<ZDSystemDevice::SystemDevice> devices;
    ZDSystemDevice::MergeByAddress(std::move(listsOfTheClasses), devices);
    return devices;
}

Report<ZDSystemDevice::SystemDevice> CollectDevices(std::optional<ZDSystemDevice::SysDeviceType> type,
                                                    const Collection& collection)
{
    if (!collection.limit) {
        DeviceAnswer answer = AskHere<ZDSystemDevice::SystemDevice>([type] { return AskForDevices(type); }, collection);
        return DescribeDevices(answer.status, std::move(answer.records), type);
    }
    std::vector<Task> tasks;
    for (const DeviceClass& deviceClass : deviceClasses) {
        if (!type || *type == deviceClass.type) {
            tasks.push_back(MakeDeviceTask(deviceClass));
        }
    }
    std::vector<Unanswered> unanswered;
    DeviceAnswer answer = AskInTime<ZDSystemDevice::SystemDevice>(tasks, collection, unanswered);
    if (!type) {
        answer.records = Merge(std::move(answer.records));
        if (unanswered.size() < tasks.size()) {
            // A merged list is one, whatever the classes were.
            answer.status = ZDSystemDevice::DEVICE_RESULT_OK;
        }
    }
    return Complete(DescribeDevices(answer.status, std::move(answer.records), type), std::move(unanswered));
}

Report<ZDSystemDevice::OpticalProperty> CollectOptical(const Collection& collection)
{
    std::vector<Unanswered> unanswered;
    OpticalAnswer answer = Ask<ZDSystemDevice::OpticalProperty>(ClassOf(ZDSystemDevice::SYS_DEVICE_CDDVD).word,
                                                                AskForOptical, collection, unanswered);
    return Complete(DescribeOptical(answer.status, std::move(answer.records)), std::move(unanswered));
}

Report<ZDOptions::SoftwareIdentity_> CollectFirmware(const Collection& collection)
{
    std::vector<Unanswered> unanswered;
    FirmwareAnswer answer = Ask<ZDOptions::SoftwareIdentity_>(ClassOf(ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE).word,
                                                              AskForFirmware, collection, unanswered);
    return Complete(DescribeFirmware(answer.status, std::move(answer.records)), std::move(unanswered));
}

}  // namespace ZDDevices
}  // namespace Zendra
