#include "tools/zddevices/scan/scrape.h"

#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Zendra {
namespace ZDDevices {

namespace {

using ZDOptions::SoftwareIdentity_;
using ZDSystemDevice::OpticalProperty;
using ZDSystemDevice::SystemDevice;

constexpr const char* devicesAsked = "devices";
constexpr const char* firmwareAsked = "firmware";
constexpr const char* capabilitiesAsked = "capabilities";

/** A scan that is to be made. */
struct Question {
    std::string deviceClass;
    std::string asked;
    /** Makes it in this process; the answer's bytes. */
    std::function<std::string()> askHere;
    /** Makes it in another. */
    Task task;
};

template <typename Record>
Question Ask(const std::string& deviceClass, const std::string& asked, std::function<Answer<Record>()> ask)
{
    const std::string name = asked == devicesAsked ? deviceClass : deviceClass + " " + asked;
    return {deviceClass, asked, [ask] { return Encode(ask()); }, MakeTask<Record>(name, ask)};
}

std::vector<Question> Questions(const Options& options)
{
    const bool everything = options.command == Command::Devices && !options.type;
    std::vector<Question> questions;
    for (const DeviceClass& deviceClass : deviceClasses) {
        if (options.command == Command::Devices && (everything || *options.type == deviceClass.type)) {
            questions.push_back(Ask<SystemDevice>(deviceClass.word, devicesAsked,
                                                  [type = deviceClass.type] { return AskForDevices(type); }));
        }
    }
    if (everything || options.command == Command::Firmware) {
        questions.push_back(Ask<SoftwareIdentity_>(ClassOf(ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE).word,
                                                   firmwareAsked, AskForFirmware));
    }
    if (everything || options.command == Command::Optical) {
        questions.push_back(
            Ask<OpticalProperty>(ClassOf(ZDSystemDevice::SYS_DEVICE_CDDVD).word, capabilitiesAsked, AskForOptical));
    }
    return questions;
}

std::vector<Outcome> AskHere(const std::vector<Question>& questions, Progress* progress)
{
    std::optional<BackgroundProgress> shown;
    if (progress != nullptr) {
        shown.emplace(*progress);
    }
    std::vector<Outcome> outcomes;
    for (const Question& question : questions) {
        const auto begun = std::chrono::steady_clock::now();
        Outcome outcome;
        outcome.answer = question.askHere();
        outcome.elapsed = std::chrono::steady_clock::now() - begun;
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

std::vector<Outcome> AskInTime(const std::vector<Question>& questions, const Collection& collection)
{
    std::vector<Task> tasks;
    tasks.reserve(questions.size());
    for (const Question& question : questions) {
        tasks.push_back(question.task);
    }
    return RunIsolated(tasks, collection.limit, collection.progress);
}

/** Takes the records of an answer to `records`; the status, or none when there is no answer. */
template <typename Record>
std::optional<unsigned int> Take(const Outcome& outcome, std::optional<std::vector<Record>>& records)
{
    if (!records) {
        records.emplace();
    }
    std::optional<Answer<Record>> answer;
    if (outcome.answer) {
        answer = Decode<Record>(*outcome.answer);
    }
    if (!answer) {
        return std::nullopt;
    }
    records->insert(records->end(), std::make_move_iterator(answer->records.begin()),
                    std::make_move_iterator(answer->records.end()));
    return answer->status;
}

}  // namespace

Scrape CollectScrape(const Options& options, const Collection& collection)
{
    const std::vector<Question> questions = Questions(options);
    Scrape scrape;
    Metrics& metrics = scrape.metrics;
    metrics.begun = std::chrono::system_clock::now();
    const std::vector<Outcome> outcomes =
        collection.limit ? AskInTime(questions, collection) : AskHere(questions, collection.progress);
    for (std::size_t i = 0; i < questions.size(); ++i) {
        const Question& question = questions[i];
        const Outcome& outcome = outcomes[i];
        Scan scan{question.deviceClass, question.asked, std::nullopt, outcome.elapsed};
        if (question.asked == devicesAsked) {
            scan.status = Take(outcome, metrics.devices);
        } else if (question.asked == firmwareAsked) {
            scan.status = Take(outcome, metrics.firmware);
        } else {
            scan.status = Take(outcome, metrics.drives);
        }
        if (!scan.status) {
            scrape.unanswered.push_back({question.task.name, DescribeFailure(outcome), outcome.device});
        }
        metrics.scans.push_back(std::move(scan));
    }
    if (metrics.devices && !options.type) {
        metrics.devices = Merge(std::move(*metrics.devices));
    }
    return scrape;
}

}  // namespace ZDDevices
}  // namespace Zendra
