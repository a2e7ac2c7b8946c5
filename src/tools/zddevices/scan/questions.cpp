#include "tools/zddevices/scan/questions.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "module/osinfos/systemdevice/deviceMerge.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/scan/library.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using Strings = std::vector<std::string>;

bool LibraryLogs(const Options& options)
{
    return options.logLevel.value_or(0) > 0;
}

/** The answer as a worker sends it: the status, then the texts of each record. */
template <typename Record>
Strings TextsOfAnswer(Answer<Record> answer)
{
    Strings texts{std::to_string(answer.status)};
    for (Record& record : answer.records) {
        for (const Field<Record>& field : MembersOf<Record>()) {
            texts.push_back(std::move(record.*field.member));
        }
    }
    return texts;
}

/** Appends the records of an answer to `records`; the status, or none when there is no answer or the texts are none. */
template <typename Record>
std::optional<unsigned int> TakeAnswer(std::optional<Strings> answer, std::optional<std::vector<Record>>& records)
{
    if (!records) {
        records.emplace();
    }
    Strings texts = answer.value_or(Strings());
    const std::vector<Field<Record>>& members = MembersOf<Record>();
    if (texts.size() % members.size() != 1) {
        return std::nullopt;
    }
    auto next = texts.begin() + 1;
    while (next != texts.end()) {
        Record& record = records->emplace_back();
        for (const Field<Record>& field : members) {
            record.*field.member = std::move(*next++);
        }
    }
    return static_cast<unsigned int>(std::stoul(texts.front()));
}

Strings Ask(const Question& question, const Watch* watch)
{
    if (question.subject == Subject::Firmware) {
        return TextsOfAnswer(AskForFirmware(watch));
    }
    if (question.subject == Subject::Capabilities) {
        return TextsOfAnswer(AskForOptical(watch));
    }
    return TextsOfAnswer(AskForDevices(question.deviceClass, watch));
}

std::optional<unsigned int> TakeAnswerOf(const Question& question, std::optional<Strings> answer, Inventory& inventory)
{
    if (question.subject == Subject::Firmware) {
        return TakeAnswer(std::move(answer), inventory.firmware);
    }
    if (question.subject == Subject::Capabilities) {
        return TakeAnswer(std::move(answer), inventory.drives);
    }
    return TakeAnswer(std::move(answer), inventory.devices);
}

unsigned int StatusOf(const std::vector<QuestionOutcome>& questions)
{
    if (questions.size() == 1) {
        return questions.front().status.value_or(ZDSystemDevice::DEV_FAILURE);
    }
    const bool anyAnswered = std::any_of(questions.begin(), questions.end(),
                                         [](const QuestionOutcome& one) { return one.status.has_value(); });
    return anyAnswered ? ZDSystemDevice::DEVICE_RESULT_OK : ZDSystemDevice::DEV_FAILURE;
}

}  // namespace

const char* WordOf(Subject subject)
{
    if (subject == Subject::Firmware) {
        return "firmware";
    }
    return subject == Subject::Capabilities ? "capabilities" : "devices";
}

std::vector<Question> QuestionsOf(const Options& options)
{
    const Question firmware{ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, Subject::Firmware};
    const Question capabilities{ZDSystemDevice::SYS_DEVICE_CDDVD, Subject::Capabilities};
    if (options.command == Command::Firmware) {
        return {firmware};
    }
    if (options.command == Command::Optical) {
        return {capabilities};
    }
    const bool forMetrics = options.format == Format::Prometheus;
    if (options.type || (LibraryLogs(options) && !forMetrics)) {
        return {{options.type}};
    }
    std::vector<Question> questions;
    for (const DeviceClass& one : deviceClasses) {
        questions.push_back({one.type});
    }
    if (forMetrics) {
        questions.insert(questions.end(), {firmware, capabilities});
    }
    return questions;
}

Inventory TakeInventory(const Options& options, Observer* observer)
{
    const std::vector<Question> questions = QuestionsOf(options);
    const bool logs = LibraryLogs(options);
    std::vector<Task> tasks;
    tasks.reserve(questions.size());
    for (const Question& question : questions) {
        tasks.emplace_back([&question, logs](const NoteDeviceFile& noteDeviceFile) {
            const Watch watch{noteDeviceFile};
            return Ask(question, logs ? nullptr : &watch);
        });
    }
    std::vector<Outcome> outcomes = RunWorkers(tasks, options.timeLimit, observer, logs ? 1 : allAtOnce);
    Inventory inventory;
    for (std::size_t i = 0; i < questions.size(); ++i) {
        Outcome& outcome = outcomes[i];
        if (outcome.threw && !options.timeLimit) {
            throw std::runtime_error(outcome.failure);
        }
        QuestionOutcome one{questions[i], std::nullopt, outcome.failure, outcome.deviceFile, outcome.elapsed};
        one.status = TakeAnswerOf(questions[i], std::move(outcome.answer), inventory);
        if (!one.status && one.failure.empty()) {
            one.failure = improperAnswer;
        }
        inventory.questions.push_back(std::move(one));
    }
    inventory.status = StatusOf(inventory.questions);
    if (inventory.devices && !options.type && questions.front().deviceClass) {
        std::vector<ZDSystemDevice::SystemDevice> merged;
        ZDSystemDevice::MergeByAddress(std::move(*inventory.devices), merged);
        inventory.devices = std::move(merged);
    }
    return inventory;
}

}  // namespace ZDDevices
}  // namespace Zendra
