#include "tools/zddevices/scan/questions.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "module/osinfos/systemdevice/deviceMerge.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/scan/library.h"

namespace Zendra::ZDDevices {

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

/** Moves the records of an answer to `records`; its status, or none when there is no answer. */
template <typename Record>
std::optional<unsigned int> TakeAnswer(QuestionOutcome& outcome, std::optional<std::vector<Record>>& records)
{
    if (!records) {
        records.emplace();
    }
    if (!outcome.answer) {
        return std::nullopt;
    }
    for (auto text = outcome.answer->begin() + 1; text != outcome.answer->end();) {
        Record& record = records->emplace_back();
        for (const Field<Record>& field : MembersOf<Record>()) {
            record.*field.member = std::move(*text++);
        }
    }
    return static_cast<unsigned int>(std::stoul(outcome.answer->front()));
}

Strings Ask(const Question& question, const Watch* watch)
{
    switch (question.subject) {
    case Subject::Firmware:
        return TextsOfAnswer(AskForFirmware(watch));
    case Subject::Capabilities:
        return TextsOfAnswer(AskForOptical(watch));
    case Subject::Devices:
        break;
    }
    return TextsOfAnswer(AskForDevices(question.deviceClass, watch));
}

std::optional<unsigned int> TakeAnswerOf(QuestionOutcome& outcome, Inventory& inventory)
{
    switch (outcome.question.subject) {
    case Subject::Firmware:
        return TakeAnswer(outcome, inventory.firmware);
    case Subject::Capabilities:
        return TakeAnswer(outcome, inventory.drives);
    case Subject::Devices:
        break;
    }
    return TakeAnswer(outcome, inventory.devices);
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
    questions.reserve(deviceClasses.size());
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
    Inventory inventory;
    for (Outcome& outcome : RunWorkers(tasks, options.timeLimit, observer, logs ? 1 : allAtOnce)) {
        if (outcome.threw && !options.timeLimit) {
            throw std::runtime_error(outcome.failure);
        }
        const Question& question = questions[inventory.questions.size()];
        QuestionOutcome& one = inventory.questions.emplace_back(QuestionOutcome{std::move(outcome), question, {}});
        one.status = TakeAnswerOf(one, inventory);
        one.answer.reset();
    }
    inventory.status = StatusOf(inventory.questions);
    if (inventory.devices && !options.type && questions.front().deviceClass) {
        std::vector<ZDSystemDevice::SystemDevice> merged;
        ZDSystemDevice::MergeByAddress(std::move(*inventory.devices), merged);
        inventory.devices = std::move(merged);
    }
    return inventory;
}

}  // namespace Zendra::ZDDevices
