/**
 * @file
 * @brief On every simulated host the program learns what the library's facade answers, whichever way it asks.
 */
#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/deviceNames.h"
#include "simhost.h"
#include "simhostTest.h"
#include "toolTests.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/scan/access.h"
#include "tools/zddevices/scan/library.h"
#include "tools/zddevices/scan/logging.h"
#include "tools/zddevices/scan/questions.h"

namespace Zendra::ZDDevices {
namespace {

using ZDSystemDevice::SystemDevice;

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

/** Status and records as one list of texts. */
template <typename Record>
std::vector<std::string> Everything(unsigned int status, const std::vector<Record>& records)
{
    std::vector<std::string> texts{std::to_string(status)};
    for (const Record& record : records) {
        for (const Field<Record>& field : MembersOf<Record>()) {
            texts.push_back(record.*field.member);
        }
    }
    return texts;
}

template <typename Record>
std::vector<std::string> Everything(const Answer<Record>& answer)
{
    return Everything(answer.status, answer.records);
}

/** What of firmware is the library's. */
template <typename Identity>
std::vector<DiskFirmware> IdentitiesOf(const std::vector<Identity>& firmware)
{
    std::vector<DiskFirmware> identities;
    for (const ZDOptions::SoftwareIdentity_& one : firmware) {
        identities.push_back({one, {}, {}, {}});
    }
    return identities;
}

std::vector<std::string> Everything(const FirmwareAnswer& answer)
{
    return Everything(answer.status, IdentitiesOf(answer.records));
}

/** What the program has learned; every question must have an answer. Classes are merged as the library does it. */
std::vector<std::string> Everything(const Inventory& inventory)
{
    for (const QuestionOutcome& one : inventory.questions) {
        EXPECT_TRUE(one.status) << one.failure;
    }
    if (inventory.firmware) {
        return Everything(inventory.status, IdentitiesOf(*inventory.firmware));
    }
    if (inventory.drives) {
        return Everything(inventory.status, *inventory.drives);
    }
    if (inventory.facadeDevices) {
        return Everything(inventory.status, *inventory.facadeDevices);
    }
    std::vector<SystemDevice> records(inventory.devices.value().begin(), inventory.devices.value().end());
    for (SystemDevice& record : records) {
        // Of one class the library says zeros where it knows no address; a row then has none.
        if (inventory.questions.front().question.deviceClass && inventory.questions.size() == 1 &&
            record.port.empty()) {
            record.port = record.bus = record.target = record.lun = "0";
        }
    }
    return Everything(inventory.status, records);
}

/**
 * Whether two classes ask the same device files, as they do where the sg driver is not there to make files of its own.
 * The answers of a simulated device depend on how often it was asked: what one class asks in this process is felt by
 * the next, and not by one that asks in another process.
 */
bool ClassesShareFiles(const SimHost::Host& host)
{
    return host.modprobeStatus != 0 ||
           std::none_of(host.dev.begin(), host.dev.end(),
                        [](const SimHost::DevEntry& entry) { return entry.name.rfind("sg", 0) == 0; });
}

class Library : public testing::Test {
protected:
    void SetUp() override
    {
        SIMHOST_NEEDS_NAMESPACE();
        setenv("LC_ALL", "C", 1);
    }

    /** Calls `check` with each host while it is mounted. */
    template <typename Check>
    void OnEveryHost(Check check)
    {
        if (IsSkipped()) {
            return;
        }
        std::size_t hosts = 0;
        for (const std::filesystem::path& file : HostFiles()) {
            SCOPED_TRACE(file.stem());
            const SimHost::Host host = SimHost::ReadHost(file);
            SimHost::MountedHost mounted(host);
            check(host, mounted);
            ++hosts;
        }
        EXPECT_GT(hosts, 50U);
    }

    /** What the program learns in another process, with these options. */
    static std::vector<std::string> Learn(SimHost::MountedHost& mounted, const Options& options)
    {
        mounted.BeginCall();
        return Everything(TakeInventory(options, nullptr));
    }
};

/** By the facade, file by file, with a time limit, and one after the other with a log. */
std::vector<Options> Roads(const Options& what)
{
    std::vector<Options> roads(4, what);
    roads[0].asLibrary = true;
    roads[2].timeLimit = limit;
    roads[3].logLevel = 1;
    return roads;
}

TEST_F(Library, EachClassAnswersWhatTheFacadeAnswers)
{
    std::size_t withDevices = 0;
    OnEveryHost([&](const SimHost::Host& /*host*/, SimHost::MountedHost& mounted) {
        for (const DeviceClass& one : deviceClasses) {
            mounted.BeginCall();
            const std::vector<std::string> expected = Everything(AskForDevices(one.type));
            Options options;
            options.type = one.type;
            for (const Options& road : Roads(options)) {
                EXPECT_EQ(Learn(mounted, road), expected) << one.word;
            }
            withDevices += expected.size() > 1 ? 1 : 0;
        }
    });
    EXPECT_GT(withDevices, 50U);
}

std::vector<std::string> Sorted(std::vector<std::string> texts)
{
    std::sort(texts.begin(), texts.end());
    return texts;
}

TEST_F(Library, AllClassesTogetherHaveWhatTheMergedListOfTheFacadeHas)
{
    std::size_t mergedDirectly = 0;
    std::size_t losesDevices = 0;
    OnEveryHost([&](const SimHost::Host& host, SimHost::MountedHost& mounted) {
        mounted.BeginCall();
        const std::vector<std::string> expected = Everything(AskForDevices(std::nullopt));
        for (const Options& road : Roads({})) {
            if (road.asLibrary) {
                EXPECT_EQ(Learn(mounted, road), expected);
            } else if (!ClassesShareFiles(host)) {
                // The merged list may lose a device without an address to one whose address looks like its number.
                const std::vector<std::string> learned = Sorted(Learn(mounted, road));
                const std::vector<std::string> merged = Sorted(expected);
                EXPECT_TRUE(std::includes(learned.begin(), learned.end(), merged.begin(), merged.end()));
                losesDevices += learned.size() > merged.size() ? 1 : 0;
            }
        }
        mergedDirectly += ClassesShareFiles(host) || expected.size() == 1 ? 0 : 1;
    });
    EXPECT_GT(mergedDirectly, 15U);
    EXPECT_LE(losesDevices, 3 * Roads({}).size());
}

TEST_F(Library, FirmwareAndCapabilitiesAreThoseOfTheFacade)
{
    std::size_t withRecords = 0;
    OnEveryHost([&](const SimHost::Host& /*host*/, SimHost::MountedHost& mounted) {
        for (const Command command : {Command::Firmware, Command::Optical}) {
            mounted.BeginCall();
            const std::vector<std::string> expected =
                command == Command::Firmware ? Everything(AskForFirmware()) : Everything(AskForOptical());
            Options options;
            options.command = command;
            for (const Options& road : Roads(options)) {
                EXPECT_EQ(Learn(mounted, road), expected);
            }
            withRecords += expected.size() > 1 ? 1 : 0;
        }
    });
    EXPECT_GT(withRecords, 30U);
}

bool Ask(const std::string& /*deviceFile*/)
{
    return true;
}

/** Names in /dev, without directories, as the doctor collects them. */
std::vector<std::string> NamesInDev()
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev", error)) {
        if (!entry.is_directory(error)) {
            names.push_back(entry.path().filename());
        }
    }
    return names;
}

TEST_F(Library, ADeviceFileByItselfIsListedAsInTheListOfItsClass)
{
    std::size_t listedFiles = 0;
    std::size_t otherFiles = 0;
    OnEveryHost([&](const SimHost::Host& host, SimHost::MountedHost& mounted) {
        for (const DeviceClass& one : deviceClasses) {
            mounted.BeginCall();
            const DeviceAnswer list = AskForDevices(one.type);
            std::multiset<std::string> expected;
            for (const SystemDevice& device : list.records) {
                expected.insert(device.vendor + "|" + device.product);
            }
            std::vector<std::string> names = NamesInDev();
            if (one.type == ZDSystemDevice::SYS_DEVICE_SCSI) {
                const char* unused = host.modprobeStatus == 0 ? "sd" : "sg";
                names.erase(std::remove_if(names.begin(), names.end(),
                                           [&](const std::string& name) { return name.rfind(unused, 0) == 0; }),
                            names.end());
            }
            mounted.BeginCall();
            const DeviceFileAsker ask = AskerOf(one.type);
            std::multiset<std::string> listed;
            for (const std::string& name : ZDSystemDevice::DeviceFileNames(names, one.type)) {
                const DeviceFileAnswer answer = ask("/dev/" + name, {Ask});
                if (answer.listed) {
                    listed.insert(answer.vendor + "|" + answer.product);
                } else {
                    ++otherFiles;
                }
            }
            EXPECT_EQ(listed, expected) << one.word;
            listedFiles += listed.size();
        }
    });
    EXPECT_GT(listedFiles, 100U);
    EXPECT_GT(otherFiles, 20U);
}

/** What `what` writes to standard error. */
template <typename What>
std::string WrittenToStandardError(What what)
{
    testing::internal::CaptureStderr();
    what();
    return testing::internal::GetCapturedStderr();
}

TEST_F(Library, EachLogMessageIsOneLineWhateverTheDevicesSend)
{
    std::size_t messagesWithLineFeeds = 0;
    OnEveryHost([&](const SimHost::Host& /*host*/, SimHost::MountedHost& mounted) {
        static std::vector<std::string> places;
        static std::size_t lineFeeds;
        places.clear();
        lineFeeds = 0;
        Log::SetSink([](unsigned level, const char* file, int line, const std::string& message) {
            places.push_back("[" + std::to_string(level) + "] " + file + ":" + std::to_string(line) + " ");
            lineFeeds += message.find('\n') < message.size() - 1 ? 1 : 0;
        });
        Log::SetMinLogLevel(4);
        mounted.BeginCall();
        AskForDevices(std::nullopt);
        messagesWithLineFeeds += lineFeeds;

        EnableLog(4);
        mounted.BeginCall();
        std::istringstream written(WrittenToStandardError([] { AskForDevices(std::nullopt); }));
        Log::SetMinLogLevel(0);
        Log::SetSink(nullptr);
        std::size_t lines = 0;
        for (std::string line; std::getline(written, line); ++lines) {
            ASSERT_LT(lines, places.size()) << line;
            EXPECT_EQ(line.substr(0, places[lines].size()), places[lines]);
            EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) {
                return c == '\t' || (c >= ' ' && c <= '~');
            })) << line;
        }
        EXPECT_EQ(lines, places.size());
    });
    EXPECT_GT(messagesWithLineFeeds, 2U);
}

TEST_F(Library, TheWatchIsToldOfEachFailureWithItsError)
{
    std::size_t failures = 0;
    for (const unsigned int logLevel : {0U, 4U}) {
        OnEveryHost([&](const SimHost::Host& /*host*/, SimHost::MountedHost& /*mounted*/) {
            Log::SetSink([](unsigned /*level*/, const char* /*file*/, int /*line*/, const std::string& /*message*/) {});
            Log::SetMinLogLevel(logLevel);
            for (const DeviceClass& one : deviceClasses) {
                for (const std::string& path : DeviceFilesOf(one.type)) {
                    Watch watch{Ask};
                    watch.after = [&](const DeviceRequest& request) {
                        EXPECT_EQ(request.status == ZDSystemDevice::DEV_SUCCESS, request.error == 0)
                            << path << ", request " << request.code << ", error " << request.error;
                        EXPECT_NE(request.argument, nullptr);
                        failures += request.error == 0 ? 0 : 1;
                    };
                    AskerOf(one.type)(path, watch);
                }
            }
            Log::SetMinLogLevel(0);
            Log::SetSink(nullptr);
        });
    }
    EXPECT_GT(failures, 50U);
}

TEST_F(Library, WhatFailsBecauseADeviceIsNoAtaDiskDoesNotHideWhatCameBefore)
{
    std::size_t found = 0;
    OnEveryHost([&](const SimHost::Host& host, SimHost::MountedHost& /*mounted*/) {
        // A disk that answers INQUIRY with CHECK CONDITION, and IDENTIFY DEVICE with EINVAL.
        if (std::filesystem::path(host.name).stem() == "check_condition_drops_the_device") {
            AskFileByFile(ZDSystemDevice::SYS_DEVICE_SCSI, Ask, [&](const FileAnswer& file) {
                EXPECT_EQ(file.path, "/dev/sg0");
                EXPECT_EQ(file.error, 0);
                ++found;
            });
        }
    });
    EXPECT_EQ(found, 1U);
}

}  // namespace
}  // namespace Zendra::ZDDevices
