#include "tools/zddevices/scan/questions.h"

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "module/osinfos/systemdevice/firmwareIdentity.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/scan/access.h"
#include "tools/zddevices/scan/asking.h"
#include "tools/zddevices/scan/library.h"
#include "tools/zddevices/scan/logging.h"
#include "tools/zddevices/scan/recordTexts.h"
#include "tools/zddevices/scan/rows.h"

namespace Zendra::ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;
using ZDSystemDevice::SystemDevice;

/** Whether the devices of a class are asked one by one; otherwise the facade is asked. */
bool IsAskedByFile(const Question& question, const Options& options)
{
    return !options.asLibrary && question.subject != Subject::Capabilities;
}

/** @param disk empty where it is not known; then the identity's own texts stand for model and revision. */
DiskFirmware FirmwareWithIdentity(const ZDOptions::SoftwareIdentity_& identity, const StorageDevice& disk)
{
    const auto known = [](const std::string& text, const std::string& otherwise) {
        return text.empty() ? boost::algorithm::trim_copy(otherwise) : text;
    };
    return {identity, disk.device, known(disk.model, identity.SoftwareID),
            known(disk.revision, identity.VersionString)};
}

/** An answer of the facade: the texts before the records, then those of each record. */
template <typename Record>
Strings TextsOf(Answer<Record> answer)
{
    Strings texts{std::to_string(answer.status), ""};
    for (Record& record : answer.records) {
        AppendTexts(std::move(record), texts);
    }
    return texts;
}

/** The facade's answer, which does not say whose the firmware is. */
Answer<DiskFirmware> WithoutDevices(const FirmwareAnswer& answer)
{
    Answer<DiskFirmware> result{answer.status, {}};
    for (const ZDOptions::SoftwareIdentity_& identity : answer.records) {
        result.records.push_back(FirmwareWithIdentity(identity, {}));
    }
    return result;
}

/** The records of such an answer; none when there is none. */
template <typename Record>
std::vector<Record> RecordsOf(std::optional<Strings> answer)
{
    std::vector<Record> records;
    if (answer && answer->size() >= textsBeforeRecords) {
        const auto textsOfRecord = static_cast<std::ptrdiff_t>(MembersOf<Record>().size());
        for (auto text = answer->begin() + textsBeforeRecords; answer->end() - text >= textsOfRecord;) {
            records.push_back(TakeRecord<Record>(text));
        }
    }
    return records;
}

Strings AskFacade(const Question& question)
{
    Strings texts = question.subject == Subject::Firmware       ? TextsOf(WithoutDevices(AskForFirmware()))
                    : question.subject == Subject::Capabilities ? TextsOf(AskForOptical())
                                                                : TextsOf(AskForDevices(question.deviceClass));
    // The log is whole. Whether the lists used the sg driver shows no more than by making sure of it as they do.
    EnableLog(0);
    if (question.subject != Subject::Capabilities && !LoadSgDriver()) {
        texts[1] = notUsingSg;
    }
    return texts;
}

/**
 * Loads the sg driver where it has no device files yet: the list of the generic class does, but only then they appear.
 */
void MakeGenericFiles(std::optional<Duration> limit)
{
    constexpr int share = 4;
    const Strings files = DeviceFilesOf(ZDSystemDevice::SYS_DEVICE_SCSI);
    // Without its own, the generic class takes those of the disks.
    if (std::none_of(files.begin(), files.end(),
                     [](const std::string& file) { return file.rfind("/dev/sg", 0) == 0; })) {
        RunWorkers({[](const Tell& /*tell*/) { return Strings{LoadSgDriver() ? "sg" : ""}; }},
                   {limit ? std::make_optional(*limit / share) : std::nullopt});
    }
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

/** Appends the records of device files, each with its file. */
void AppendDevices(std::vector<FileAnswer> answers, std::vector<StorageDevice>& devices)
{
    for (FileAnswer& answer : answers) {
        if (answer.record) {
            StorageDevice& device = devices.emplace_back();
            static_cast<SystemDevice&>(device) = std::move(*answer.record);
            device.device_files = answer.path + "\n";
            device.model = std::move(answer.model);
            device.revision = std::move(answer.revision);
        }
    }
}

std::vector<DiskFirmware> FirmwareOf(const std::vector<FileAnswer>& files, const KernelDevices& kernel)
{
    std::vector<StorageDevice> disks;
    AppendDevices(files, disks);
    std::vector<DiskFirmware> found;
    const std::vector<StorageDevice> rows = RowsOfFiles(std::move(disks), kernel);
    for (const StorageDevice& disk : rows) {
        if (ZDSystemDevice::HasFirmwareIdentity(disk)) {
            found.push_back(FirmwareWithIdentity(ZDSystemDevice::FirmwareIdentityOf(disk), disk));
        }
    }
    return found;
}

bool LacksSomething(const AskedOutcome& outcome)
{
    return !outcome.failure.empty() || !outcome.lost.empty() ||
           std::any_of(outcome.files.begin(), outcome.files.end(),
                       [](const FileAnswer& file) { return !file.record.has_value(); });
}

/** The kernel's table of optical drives stays when the last one goes; the library makes a record of it all the same. */
bool IsTableWithoutDrive(const ZDSystemDevice::OpticalProperty& drive)
{
    return drive.drive_name_ == "/dev/";
}

/** Moves the records of a facade's answer to the inventory. */
void TakeRecords(Subject subject, const std::optional<Strings>& answer, const Options& options, Inventory& inventory)
{
    switch (subject) {
    case Subject::Devices:
        inventory.facadeDevices = RecordsOf<SystemDevice>(answer);
        break;
    case Subject::Firmware:
        inventory.firmware = RecordsOf<DiskFirmware>(answer);
        break;
    case Subject::Capabilities:
        inventory.drives = RecordsOf<ZDSystemDevice::OpticalProperty>(answer);
        if (inventory.drives && !options.asLibrary) {
            std::vector<ZDSystemDevice::OpticalProperty>& drives = *inventory.drives;
            drives.erase(std::remove_if(drives.begin(), drives.end(), IsTableWithoutDrive), drives.end());
        }
        break;
    }
}

/** Collects what is missing, each device file once. */
class MissingFiles {
public:
    void Add(Missing one)
    {
        if (one.deviceFile.empty() || accounted.insert(one.deviceFile).second) {
            missing.push_back(std::move(one));
        }
    }

    /** What the answer about the device files of a class lacks. */
    void AddFilesOf(const DeviceClass& deviceClass, const AskedOutcome& outcome, const KernelDevices& kernel)
    {
        const std::size_t before = missing.size();
        std::string notAsked = outcome.failure;
        if (notAsked.empty()) {
            // Workers that were not held up have asked every file that they found.
            notAsked = outcome.lost.empty() ? "it appeared while other devices were asked" : "it was not asked in time";
        }
        for (const LostFile& lost : outcome.lost) {
            Add({lost.path, lost.late ? Reason::NoAnswerInTime : Reason::WorkerDied, 0, lost.failure, {}});
        }
        std::set<const KernelDevice*> answered;
        for (const FileAnswer& file : outcome.files) {
            if (file.record) {
                accounted.insert(file.path);
                answered.insert(kernel.OfFile(file.path));
            }
        }
        for (const FileAnswer& file : outcome.files) {
            const KernelDevice* const device = file.record ? nullptr : kernel.OfFile(file.path);
            if (deviceClass.type == ZDSystemDevice::SYS_DEVICE_TAPE && device != nullptr &&
                answered.count(device) > 0) {
                // A tape drive has a file for each mode, of which most are never set up.
                accounted.insert(file.path);
            } else if (!file.record && !IsDirectory(file.path)) {
                Add(WhyNoRecord({file.path, file.openError, file.error}, device));
            }
        }
        // Listed again: sg's files appear while the generic class is asked; without that driver it asks none of them.
        const bool hasOwnFiles = outcome.usesSgDriver || deviceClass.type != ZDSystemDevice::SYS_DEVICE_SCSI;
        for (const std::string& path : DeviceFilesOf(deviceClass.type)) {
            if (accounted.count(path) > 0 || IsDirectory(path)) {
                continue;
            }
            if (MayNotRead(path)) {
                Add(WhyDenied(DeniedFileAt(path)));
            } else if (hasOwnFiles) {
                Add({path, Reason::NotAsked, 0, notAsked, {}});
            }
        }
        if (!outcome.failure.empty() && missing.size() == before) {
            AddClass(deviceClass, outcome);
        }
    }

    /** A class, or all classes that the facade was asked for, about which nothing is known. */
    void AddClass(const DeviceClass& deviceClass, const AskedOutcome& outcome)
    {
        Add({{},
             outcome.late ? Reason::NoAnswerInTime : Reason::WorkerDied,
             0,
             std::string("class ") + deviceClass.word + ": " + outcome.failure,
             {}});
    }

    void AddFound(const std::vector<StorageDevice>& devices)
    {
        for (const StorageDevice& device : devices) {
            const std::string& paths = device.device_files;
            std::size_t begin = 0;
            for (std::size_t end = paths.find('\n'); end != std::string::npos; end = paths.find('\n', begin)) {
                accounted.insert(paths.substr(begin, end - begin));
                begin = end + 1;
            }
        }
    }

    void AddDenied(std::optional<ZDSystemDevice::SysDeviceType> type)
    {
        for (const DeniedFile& file : FindDeniedFiles(type)) {
            Add(WhyDenied(file));
        }
    }

    const std::set<std::string>& Accounted() const { return accounted; }

    std::vector<Missing> Take()
    {
        std::stable_sort(missing.begin(), missing.end(), [](const Missing& left, const Missing& right) {
            return strverscmp(left.deviceFile.c_str(), right.deviceFile.c_str()) < 0;
        });
        return std::move(missing);
    }

private:
    std::set<std::string> accounted;
    std::vector<Missing> missing;
};

/**
 * What all answers lack.
 * @param outcomeOf of each question.
 * @param found devices, and of each the files that have a record.
 */
std::vector<Missing> FindMissing(const Options& options, const std::vector<Question>& questions,
                                 const std::vector<const AskedOutcome*>& outcomeOf,
                                 const std::vector<StorageDevice>& found, const KernelDevices& kernel)
{
    MissingFiles missing;
    missing.AddFound(found);
    bool usesSgDriver = true;
    for (std::size_t i = 0; i < questions.size(); ++i) {
        const std::optional<ZDSystemDevice::SysDeviceType> type = questions[i].deviceClass;
        const AskedOutcome& outcome = *outcomeOf[i];
        usesSgDriver = usesSgDriver && outcome.usesSgDriver;
        const bool byFile = IsAskedByFile(questions[i], options);
        // A directory that nobody may list gives no file to ask.
        if (!byFile || MayNotRead("/dev")) {
            missing.AddDenied(type);
        }
        for (const DeviceClass& deviceClass : deviceClasses) {
            if (deviceClass.type != type.value_or(deviceClass.type)) {
                continue;
            }
            if (byFile) {
                missing.AddFilesOf(deviceClass, outcome, kernel);
            } else if (!outcome.failure.empty()) {
                missing.AddClass(deviceClass, outcome);
            }
        }
    }
    if (!usesSgDriver && IsDirectory("/sys/module/sg")) {
        missing.Add(
            {{},
             Reason::NoDriver,
             0,
             "the sg driver is loaded, but \"modprobe sg\" fails, without which it is not used: devices with no file "
             "but /dev/sg* are missing; zddevices doctor tells more",
             {}});
    }
    std::error_code error;
    if (IsAskedByFile(questions.front(), options) && (std::filesystem::is_empty("/sys", error) || error)) {
        missing.Add(
            {{},
             Reason::NotAsked,
             0,
             "there is nothing in /sys: what only the kernel knows of the devices (size, transport, state, which "
             "device files are one device) is not known",
             {}});
    }
    const bool everyClass = questions.size() > 1;
    for (Missing& one :
         DevicesWithoutFile(kernel, everyClass ? std::nullopt : questions.front().deviceClass, missing.Accounted())) {
        missing.Add(std::move(one));
    }
    return missing.Take();
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
    if (options.type || options.asLibrary) {
        return {{options.type}};
    }
    std::vector<Question> questions;
    questions.reserve(deviceClasses.size());
    for (const DeviceClass& one : deviceClasses) {
        questions.push_back({one.type});
    }
    if (options.format == Format::Prometheus) {
        questions.insert(questions.end(), {firmware, capabilities});
    }
    return questions;
}

Inventory TakeInventory(const Options& options, Observer* observer)
{
    const Clock::time_point started = Clock::now();
    const std::vector<Question> questions = QuestionsOf(options);
    std::vector<Asked> asked;
    std::map<ZDSystemDevice::SysDeviceType, std::size_t> placeOfClass;
    std::vector<std::size_t> places;
    places.reserve(questions.size());
    for (const Question& question : questions) {
        places.push_back(asked.size());
        if (!IsAskedByFile(question, options)) {
            asked.push_back({std::nullopt, [&question](const Tell& /*tell*/) { return AskFacade(question); }});
            continue;
        }
        // Devices and firmware come from the same answers.
        const auto [place, isNew] = placeOfClass.emplace(question.deviceClass.value(), asked.size());
        places.back() = place->second;
        if (isNew) {
            asked.push_back({question.deviceClass});
        }
    }
    if (asked.front().files) {
        MakeGenericFiles(options.timeLimit);
    }
    // What workers log at the same time would be mixed.
    const std::size_t jobs = options.logLevel.value_or(0) > 0 ? 1 : options.jobs;
    const bool wantsDevices = options.command == Command::Devices && !options.asLibrary;
    const bool needsKernel = wantsDevices || options.command == Command::Firmware;
    KernelDevices kernel({});
    const auto readKernel = [&] {
        if (needsKernel) {
            kernel = KernelDevices::Read();
        }
    };
    // With many disks that takes as long as asking them.
    const std::vector<AskedOutcome> outcomes = Ask(asked, {options.timeLimit, started, observer, jobs, readKernel});
    // A device that fails may be out of service now, because it was asked.
    if (std::any_of(outcomes.begin(), outcomes.end(), LacksSomething)) {
        readKernel();
    }
    Inventory inventory;
    if (options.timeLimit) {
        inventory.end = started + *options.timeLimit;
    }
    std::vector<StorageDevice> devices;
    for (std::size_t i = 0; i < questions.size(); ++i) {
        const AskedOutcome& outcome = outcomes[places[i]];
        if (outcome.threw && !options.timeLimit) {
            throw std::runtime_error(outcome.failure);
        }
        inventory.questions.push_back({questions[i], outcome.status, outcome.failure, outcome.elapsed});
        if (!asked[places[i]].files) {
            TakeRecords(questions[i].subject, outcome.answer, options, inventory);
        } else if (questions[i].subject == Subject::Firmware) {
            inventory.firmware = FirmwareOf(outcome.files, kernel);
        } else {
            AppendDevices(outcome.files, devices);
        }
    }
    inventory.status = StatusOf(inventory.questions);
    if (wantsDevices) {
        inventory.devices = options.type ? RowsOfFiles(devices, kernel) : RowsOfDevices(devices, kernel);
    }
    std::vector<const AskedOutcome*> outcomeOf(questions.size());
    std::transform(places.begin(), places.end(), outcomeOf.begin(),
                   [&outcomes](std::size_t place) { return &outcomes[place]; });
    inventory.missing = FindMissing(options, questions, outcomeOf, devices, kernel);
    return inventory;
}

}  // namespace Zendra::ZDDevices
