#include "tools/zddevices/doctor/doctor.h"

#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "toolTests.h"
#include "tools/zddevices/doctor/doctorReport.h"

namespace Zendra::ZDDevices {
namespace {

/** The answer to an SG_IO request, with this SCSI status and sense data. */
class ScsiAnswer {
public:
    explicit ScsiAnswer(std::vector<unsigned char> senseData, unsigned char page = 0)
        : sense(std::move(senseData)), command({0x12, static_cast<unsigned char>(page == 0 ? 0 : 1), page})
    {
        header.cmdp = command.data();
        header.sbp = sense.data();
        header.mx_sb_len = 32;
        header.sb_len_wr = static_cast<unsigned char>(sense.size());
        header.status = 0x02;
        sense.resize(32);
        header.sbp = sense.data();
    }

    RequestResult Describe(int error = 0) const { return ZDDevices::Describe({SG_IO, &header, 0, error}); }

    sg_io_hdr_t header{};

private:
    std::vector<unsigned char> sense;
    std::array<unsigned char, 6> command;
};

TEST(Request, HasItsNameAndSaysWhatItAsksFor)
{
    int value = 30536;
    const std::vector<std::pair<unsigned int, std::string>> names = {
        {SG_GET_VERSION_NUM, "SG_GET_VERSION_NUM: the version of the SCSI command interface"},
        {SG_GET_SCSI_ID, "SG_GET_SCSI_ID: the SCSI address"},
        {SCSI_IOCTL_GET_IDLUN, "SCSI_IOCTL_GET_IDLUN: channel, target and LUN"},
        {SCSI_IOCTL_GET_BUS_NUMBER, "SCSI_IOCTL_GET_BUS_NUMBER: the SCSI host's number"},
        {HDIO_DRIVE_CMD, "HDIO_DRIVE_CMD: ATA IDENTIFY DEVICE"},
        {0x1234, "ioctl 0x1234: something else"}};
    for (const auto& [code, text] : names) {
        const RequestResult good = Describe({code, &value, ZDSystemDevice::DEV_SUCCESS, 0});
        EXPECT_EQ(good.request + ": " + good.asks, text);
        EXPECT_EQ(good.error, 0);
        EXPECT_EQ(good.remark, "");
        EXPECT_EQ(Describe({code, &value, ZDSystemDevice::DEV_FAILURE, EIO}).error, EIO);
    }
    EXPECT_EQ(ScsiAnswer({}).Describe().asks, "INQUIRY, standard data");
    EXPECT_EQ(ScsiAnswer({}, 0x80).Describe().asks, "INQUIRY, unit serial number");
}

TEST(Request, InterfaceThatIsTooOldIsRemarkedOn)
{
    int version = 29999;
    EXPECT_EQ(Describe({SG_GET_VERSION_NUM, &version, ZDSystemDevice::DEV_SUCCESS, 0}).remark,
              "too old to carry commands; the library then sends none");
    EXPECT_EQ(Describe({SG_GET_VERSION_NUM, &version, ZDSystemDevice::DEV_FAILURE, ENOTTY}).remark, "");
}

TEST(Request, NvmeAnswerWithoutDataIsRemarkedOn)
{
    std::array<unsigned char, 4096> data{};
    nvme_admin_cmd command{};
    command.addr = reinterpret_cast<std::uintptr_t>(data.data());
    command.data_len = static_cast<std::uint32_t>(data.size());
    const auto describe = [&](int error) { return Describe({NVME_IOCTL_ADMIN_CMD, &command, 0, error}); };
    EXPECT_EQ(describe(0).asks, "NVMe Identify Controller");
    EXPECT_EQ(describe(0).remark, "the device gave no data");
    EXPECT_EQ(describe(EACCES).remark, "");
    data[4095] = 1;
    EXPECT_EQ(describe(0).remark, "");
}

TEST(Request, SenseDataOfBothFormatsAndSilenceAreToldInWords)
{
    const std::vector<std::pair<std::vector<unsigned char>, std::string>> senses = {
        {{0x70, 0, 0x06, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x29, 0x01},
         "the device answered with SCSI status 0x02, sense key 0x6, additional sense 0x29/0x01"},
        {{0x72, 0x03, 0x11, 0x00},
         "the device answered with SCSI status 0x02, sense key 0x3, additional sense 0x11/0x00"},
        {{0x70, 0, 0x06}, "the device answered with SCSI status 0x02"},
        {{}, "the device answered with SCSI status 0x02"}};
    for (const auto& [bytes, text] : senses) {
        ScsiAnswer answer(bytes);
        EXPECT_EQ(answer.Describe().remark, "");
        answer.header.info = SG_INFO_CHECK;
        EXPECT_EQ(answer.Describe().remark, text);
        EXPECT_EQ(answer.Describe(EIO).remark, "");
        answer.header.host_status = 3;
        EXPECT_EQ(answer.Describe().remark, "nothing came back from the device (host status 0x3)");
        // DID_ERROR: VMware's adapter gives it with every answer that is shorter than the room for it.
        answer.header.host_status = 7;
        EXPECT_EQ(answer.Describe().remark, "the host adapter reported an error (host status 0x7)");
    }
}

TEST(Tape, NodeThatRewindsIsAskedThroughItsTwin)
{
    std::map<std::string, dev_t> numbers = {{"/dev/st1", makedev(9, 1)}, {"/dev/nst1", makedev(9, 0x81)}};
    const auto numberOf = [&](const std::string& path) { return numbers[path]; };
    EXPECT_EQ(TapeNodeToAsk("/dev/st1", numberOf), "/dev/nst1");
    EXPECT_EQ(TapeNodeToAsk("/dev/nst1", numberOf), "/dev/nst1");
    for (const dev_t other : {makedev(0, 0), makedev(9, 0x80), makedev(21, 0x81)}) {
        numbers["/dev/nst1"] = other;
        EXPECT_EQ(TapeNodeToAsk("/dev/st1", numberOf), "");
    }
    // No tape node at all.
    EXPECT_EQ(TapeNodeToAsk("/dev/st2", numberOf), "/dev/st2");
}

TEST(CharacterDevice, HasANumberAndOtherFilesHaveNone)
{
    EXPECT_EQ(CharacterDevice("/dev/null"), makedev(1, 3));
    EXPECT_EQ(CharacterDevice("/dev"), 0U);
    EXPECT_EQ(CharacterDevice("/dev/nothing/there"), 0U);
}

CheckedFile Found(Visibility visibility, int openError = 0, std::vector<RequestResult> requests = {})
{
    CheckedFile file;
    file.visibility = visibility;
    file.openError = openError;
    file.requests = std::move(requests);
    return file;
}

/** A host with these names whose device files are as told; others are visible. */
struct ToldHost {
    HostFacts facts;
    std::map<std::string, CheckedFile> files;
    /** What the kernel has. */
    std::vector<KernelDevice> devices;
    std::vector<std::pair<std::string, ZDSystemDevice::SysDeviceType>> asked;

    explicit ToldHost(std::vector<std::string> names)
    {
        facts.sgUsed = facts.sgLoaded = facts.modprobeFindsSg = facts.mayLoadModules = facts.userIsRoot = true;
        facts.names = std::move(names);
    }

    Diagnosis Examine()
    {
        return Diagnose(
            facts, std::chrono::milliseconds(1500),
            [&](const std::vector<FileOfClass>& toAsk) {
                std::vector<CheckedFile> answer;
                for (const auto& [type, path] : toAsk) {
                    asked.emplace_back(path, type);
                    answer.push_back(files.count(path) > 0 ? files[path] : Found(Visibility::Visible));
                    answer.back().path = path;
                }
                return answer;
            },
            [&] { return KernelDevices(devices); });
    }

    /** The advice in one text, "" when all is visible and there is nothing to say. */
    std::string Advice()
    {
        std::string text;
        for (const std::string& one : Examine().advice) {
            text += one + "\n";
        }
        return text;
    }
};

TEST(Doctor, AsksEachFileOfEachClass)
{
    ToldHost host({"sg1", "sda", "sda1", "hda", "nvme0n1", "nvme0", "sr0", "st0", "nst0", "null", "sg0"});
    const Diagnosis diagnosis = host.Examine();
    EXPECT_TRUE(diagnosis.AllVisible());
    EXPECT_TRUE(diagnosis.advice.empty());
    const std::vector<std::pair<std::string, ZDSystemDevice::SysDeviceType>> expected = {
        {"/dev/st0", ZDSystemDevice::SYS_DEVICE_TAPE},
        {"/dev/sg0", ZDSystemDevice::SYS_DEVICE_SCSI},
        {"/dev/sg1", ZDSystemDevice::SYS_DEVICE_SCSI},
        {"/dev/hda", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
        {"/dev/nvme0n1", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
        {"/dev/sda", ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE},
        {"/dev/sr0", ZDSystemDevice::SYS_DEVICE_CDDVD}};
    EXPECT_EQ(host.asked, expected);
}

TEST(Doctor, TheGenericClassFollowsModprobeAndNotTheFiles)
{
    struct Case {
        bool used, loaded, found, mayLoad;
        const char* path;
        const char* advice;
        const char* state;
    };
    const std::vector<Case> cases = {
        {true, true, true, true, "/dev/sg0", "", "loaded"},
        {false, true, false, true, "/dev/sda", "The sg driver is loaded, but",
         "loaded, but not used: \"modprobe sg\" fails"},
        {false, false, false, true, "/dev/sda", "finds none", "not loaded, and cannot be: \"modprobe sg\" fails"},
        {false, false, true, false, "/dev/sda", "may not load it", "not loaded, and this user may not load it"},
        // As "install sg /bin/false" in modprobe's configuration has it.
        {false, false, true, true, "/dev/sda", "look for a line about sg in /etc/modprobe.d",
         "not loaded, and cannot be: \"modprobe sg\" fails"}};
    for (const Case& one : cases) {
        ToldHost host({"sg0", "sda"});
        host.facts.sgUsed = one.used;
        host.facts.sgLoaded = one.loaded;
        host.facts.modprobeFindsSg = one.found;
        host.facts.mayLoadModules = one.mayLoad;
        const Diagnosis diagnosis = host.Examine();
        ASSERT_EQ(host.asked.size(), 2U);
        EXPECT_EQ(host.asked[0], std::make_pair(std::string(one.path), ZDSystemDevice::SYS_DEVICE_SCSI));
        if (*one.advice == '\0') {
            EXPECT_TRUE(diagnosis.advice.empty());
        } else {
            ASSERT_EQ(diagnosis.advice.size(), 1U);
            EXPECT_NE(diagnosis.advice[0].find(one.advice), std::string::npos) << diagnosis.advice[0];
            EXPECT_NE(diagnosis.advice[0].find("modprobe"), std::string::npos);
        }
        EXPECT_NE(RenderDiagnosis(diagnosis).find(std::string("(sg): ") + one.state + "\n"), std::string::npos)
            << RenderDiagnosis(diagnosis);
    }
}

TEST(Doctor, EachKindOfTroubleHasItsAdvice)
{
    const std::vector<std::pair<CheckedFile, std::string>> troubles = {
        {Found(Visibility::Denied, EACCES),
         "1 device file could not be opened for lack of privilege (/dev/sda); even root may not here"},
        {Found(Visibility::CannotBeOpened, EBUSY), "1 device file (/dev/sda) is in use by another program"},
        {Found(Visibility::CannotBeOpened, ENXIO), "1 device file (/dev/sda) cannot be opened: no device or no driver"},
        {Found(Visibility::NoAnswerInTime), "1 device file (/dev/sda) has not answered in time"},
        {Found(Visibility::WorkerDied), "1 device file (/dev/sda) gave no answer, because the process that asks"},
        {Found(Visibility::NotAskedInTime), "1 device file (/dev/sda) was not asked, because the time was over"},
        {Found(Visibility::NoUsableAnswer, 0, {{"HDIO_DRIVE_CMD", "x", EACCES, ""}}), "CAP_SYS_RAWIO"},
        {Found(Visibility::NoUsableAnswer, 0, {{"HDIO_DRIVE_CMD", "x", EPERM, ""}}),
         "nothing there answers as a SCSI, ATA or NVMe device"}};
    for (const auto& [file, text] : troubles) {
        ToldHost host({"sda", "sdb"});
        host.files["/dev/sda"] = file;
        const Diagnosis diagnosis = host.Examine();
        EXPECT_FALSE(diagnosis.AllVisible());
        ASSERT_EQ(diagnosis.advice.size(), 1U);
        EXPECT_NE(diagnosis.advice[0].find(text), std::string::npos) << diagnosis.advice[0];
        EXPECT_EQ(diagnosis.advice[0].find("/dev/sdb"), std::string::npos);
    }
}

TEST(Doctor, AnOrdinaryUserIsToldToBecomeRoot)
{
    ToldHost host({"sda"});
    host.facts.userIsRoot = false;
    host.files["/dev/sda"] = Found(Visibility::Denied, EACCES);
    EXPECT_NE(host.Advice().find("run zddevices as root"), std::string::npos);
    host.files["/dev/sda"] = Found(Visibility::NoUsableAnswer, 0, {{"NVME_IOCTL_ADMIN_CMD", "x", EACCES, ""}});
    EXPECT_NE(host.Advice().find("Membership of the group is not enough"), std::string::npos);
}

TEST(Doctor, ATapeThatWasNotAskedIsNoTrouble)
{
    ToldHost host({"st0"});
    host.files["/dev/st0"] = Found(Visibility::NotAsked);
    const Diagnosis diagnosis = host.Examine();
    EXPECT_TRUE(diagnosis.AllVisible());
    EXPECT_NE(RenderDiagnosis(diagnosis).find("/dev/st0  may be opened; not asked"), std::string::npos);
}

TEST(Doctor, ADiskThatIsVisibleInOneClassIsNoTroubleInAnother)
{
    ToldHost host({"sda"});
    host.facts.sgUsed = host.facts.modprobeFindsSg = false;
    const Diagnosis diagnosis = Diagnose(
        host.facts, std::chrono::seconds(1),
        [](const std::vector<FileOfClass>& toAsk) {
            std::vector<CheckedFile> files;
            for (const auto& [type, path] : toAsk) {
                const bool asDisk = type == ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE;
                files.push_back(Found(asDisk ? Visibility::Visible : Visibility::NoUsableAnswer));
                files.back().path = path;
            }
            return files;
        },
        [] { return KernelDevices({}); });
    EXPECT_TRUE(diagnosis.AllVisible());
    ASSERT_EQ(diagnosis.advice.size(), 1U);
    EXPECT_NE(diagnosis.advice[0].find("modprobe sg"), std::string::npos);
}

TEST(Doctor, DisksThatTheLibraryNeverLooksAtAreNamed)
{
    ToldHost host({"vdb", "vda", "vda1", "xvda", "mmcblk0", "mmcblk0p1", "nvme0n1", "nvme10n1", "loop0", "vd", "vdA",
                   "mmcblk", "nvmen1", "nvme10n", "nvme10n1p1", "n1", "null", "nvme-fabrics"});
    const Diagnosis diagnosis = host.Examine();
    EXPECT_EQ(diagnosis.notLookedAt,
              std::vector<std::string>({"/dev/mmcblk0", "/dev/nvme10n1", "/dev/vda", "/dev/vdb", "/dev/xvda"}));
    EXPECT_TRUE(diagnosis.AllVisible());
    EXPECT_NE(host.Advice().find("5 device files (/dev/mmcblk0, /dev/nvme10n1, /dev/vda, /dev/vdb, /dev/xvda) are not"),
              std::string::npos);
}

KernelDevice ScsiDevice(std::vector<std::string> files, unsigned int scsiType, const std::string& state = "running")
{
    KernelDevice device;
    device.files = std::move(files);
    device.address = "6:0:1:0";
    device.scsiType = scsiType;
    device.hasDriver = true;
    device.state = state;
    return device;
}

TEST(Doctor, ADiskThatIsOfflineIsNotToBeRemoved)
{
    const std::vector<CheckedFile> failures = {Found(Visibility::CannotBeOpened, ENXIO),
                                               Found(Visibility::NoUsableAnswer), Found(Visibility::NoAnswerInTime)};
    for (const CheckedFile& failure : failures) {
        ToldHost host({"sda", "sg0"});
        host.files["/dev/sda"] = failure;
        host.devices = {ScsiDevice({"/dev/sda", "/dev/sg0"}, 0x00, "offline")};
        const Diagnosis diagnosis = host.Examine();
        EXPECT_FALSE(diagnosis.AllVisible());
        EXPECT_EQ(diagnosis.advice,
                  std::vector<std::string>(
                      {"1 device file (/dev/sda) is out of service: look at the kernel's messages (dmesg), at cables "
                       "and power. When the device answers again, run as root: echo running > "
                       "/sys/class/scsi_device/6:0:1:0/device/state"}));
        const std::string text = RenderDiagnosis(diagnosis);
        EXPECT_NE(text.find("  /dev/sda  NOT VISIBLE: out of service: the kernel has set it \"offline\"\n"),
                  std::string::npos)
            << text;
        const nlohmann::json json =
            nlohmann::json::parse(RenderDiagnosisJson(diagnosis, {"host", "2024-02-29T12:00:00Z"}));
        const nlohmann::json& file = json.at("classes").at(2).at("device_files").at(0);
        EXPECT_EQ(file.at("visibility"), "offline");
        EXPECT_EQ(file.at("state"), "offline");
    }
}

TEST(Doctor, ADeviceInServiceKeepsItsTroubleAndShowsItsState)
{
    ToldHost host({"sda"});
    host.files["/dev/sda"] = Found(Visibility::NoAnswerInTime);
    host.devices = {ScsiDevice({"/dev/sda"}, 0x00)};
    const Diagnosis diagnosis = host.Examine();
    EXPECT_EQ(diagnosis.classes[2].files[0].visibility, Visibility::NoAnswerInTime);
    EXPECT_EQ(diagnosis.classes[2].files[0].state, "running");
}

TEST(Doctor, AnNvmeControllerOutOfServiceHasNoScsiState)
{
    ToldHost host({"nvme0n1"});
    host.files["/dev/nvme0n1"] = Found(Visibility::CannotBeOpened, ENODEV);
    KernelDevice controller;
    controller.files = {"/dev/nvme0n1", "/dev/nvme0"};
    controller.state = "dead";
    host.devices = {controller};
    EXPECT_EQ(host.Advice(), "1 device file (/dev/nvme0n1) is out of service: look at the kernel's messages (dmesg), "
                             "at cables and power.\n");
}

TEST(Doctor, ATapeWithoutItsDriverIsNamedWithTheModuleThatHelps)
{
    ToldHost host({"sg0"});
    host.devices = {ScsiDevice({"/dev/sg0"}, 0x01)};
    host.devices.front().hasDriver = false;
    const Diagnosis diagnosis = host.Examine();
    EXPECT_FALSE(diagnosis.AllVisible());
    EXPECT_EQ(diagnosis.advice,
              std::vector<std::string>({"/dev/sg0: the tape drive at 6:0:1:0 lacks a driver: modprobe st."}));
    const nlohmann::json json = nlohmann::json::parse(RenderDiagnosisJson(diagnosis, {"host", "2024-02-29T12:00:00Z"}));
    EXPECT_EQ(json.at("without_file").dump(),
              R"([{"device_file":"/dev/sg0","errno":null,"message":"the tape drive at 6:0:1:0 lacks a driver: )"
              R"(modprobe st","reason":"no_driver"}])");
}

TEST(Doctor, AChangerNeedsNoDriverButSg)
{
    for (const bool hasSg : {true, false}) {
        ToldHost host(hasSg ? std::vector<std::string>({"sg0"}) : std::vector<std::string>());
        host.devices = {ScsiDevice(hasSg ? std::vector<std::string>({"/dev/sg0"}) : std::vector<std::string>(), 0x08)};
        host.devices.front().hasDriver = false;
        const Diagnosis diagnosis = host.Examine();
        EXPECT_EQ(diagnosis.AllVisible(), hasSg);
        EXPECT_EQ(diagnosis.withoutFile.size(), hasSg ? 0U : 1U);
    }
}

TEST(Doctor, NvmeDisksBeyondTheNinthAreJudgedByWhatIsListed)
{
    ToldHost host({"nvme10n1", "nvme10", "nvme11n1", "nvme11"});
    for (const char* const name : {"/dev/nvme10", "/dev/nvme11"}) {
        KernelDevice& controller = host.devices.emplace_back();
        controller.files = {std::string(name) + "n1", name};
        controller.state = "live";
        controller.hasDriver = true;
    }
    EXPECT_EQ(host.Advice(), "");
    host.files["/dev/nvme11"] = Found(Visibility::NoUsableAnswer);
    EXPECT_EQ(host.Examine().notLookedAt, std::vector<std::string>({"/dev/nvme11n1"}));
}

TEST(Doctor, AVirtualMachineWithVirtioDisksOnlyIsToldWhyTheListIsEmpty)
{
    const std::string advice = ToldHost({"vda", "vdb", "vda1"}).Advice();
    EXPECT_NE(advice.find("This virtual machine's disks are virtio block devices, so the list is empty."),
              std::string::npos);
    EXPECT_EQ(advice.find("There is no device file to look at"), std::string::npos);
}

TEST(Doctor, AHostWithoutDeviceFilesIsToldSo)
{
    EXPECT_NE(ToldHost({"null"}).Advice().find("There is no device file to look at"), std::string::npos);
}

TEST(Doctor, ADirectoryThatCannotBeListedIsAllThereIsToSay)
{
    ToldHost host({});
    host.facts.directoryError = EACCES;
    host.facts.userIsRoot = false;
    const Diagnosis diagnosis = host.Examine();
    EXPECT_FALSE(diagnosis.AllVisible());
    EXPECT_EQ(RenderDiagnosis(diagnosis),
              "Driver for generic SCSI devices (sg): loaded\n"
              "\nWhat to know and to do:\n"
              "- The device files cannot be listed (/dev): Permission denied (EACCES); run zddevices as root.\n");
}

TEST(Doctor, SaysInWordsWhatIsVisibleAndWhy)
{
    ToldHost host({"st0", "sg0", "sda", "sdb", "sdc", "sdd"});
    host.files["/dev/st0"] = Found(Visibility::Visible);
    host.files["/dev/st0"].askedThrough = "/dev/nst0";
    host.files["/dev/sg0"] = Found(Visibility::Visible);
    host.files["/dev/sg0"].vendor = "HALVARD ";
    host.files["/dev/sg0"].product = "HX\x1b[2J 900";
    host.files["/dev/sda"] = Found(Visibility::NoAnswerInTime);
    host.files["/dev/sdb"] = Found(Visibility::CannotBeOpened, ENXIO);
    host.files["/dev/sdc"] = Found(Visibility::NoUsableAnswer, 0,
                                   {{"SG_GET_VERSION_NUM", "the version", ENOTTY, ""},
                                    {"SG_IO", "INQUIRY", 0, "odd"},
                                    {"HDIO_DRIVE_CMD", "ATA IDENTIFY DEVICE", 0, ""}});
    const std::string text = RenderDiagnosis(host.Examine());
    const std::string expected = "Driver for generic SCSI devices (sg): loaded\n"
                                 "\n"
                                 "Tape drives: 1 device file\n"
                                 "  /dev/st0  visible\n"
                                 "      asked through /dev/nst0, which does not rewind the tape\n"
                                 "\n"
                                 "Generic SCSI devices: 1 device file\n"
                                 "  /dev/sg0  visible: HALVARD HX\\x1b[2J 900\n"
                                 "\n"
                                 "Disks: 4 device files\n"
                                 "  /dev/sda  NOT VISIBLE: no answer within 1.5 seconds\n"
                                 "  /dev/sdb  NOT VISIBLE: open: No such device or address (ENXIO)\n"
                                 "  /dev/sdc  NOT VISIBLE: does not answer as a device that is listed\n"
                                 "      SG_GET_VERSION_NUM (the version): Inappropriate ioctl for device (ENOTTY)\n"
                                 "      SG_IO (INQUIRY): odd\n"
                                 "  /dev/sdd  visible\n"
                                 "\n"
                                 "Optical drives: no device file (/dev/sr*)\n"
                                 "\n"
                                 "What to know and to do:\n";
    EXPECT_EQ(text.substr(0, expected.size()), expected);
}

TEST(Doctor, AdviceIsBrokenBetweenWordsToFitATerminal)
{
    ToldHost host({"sda", "vda"});
    host.files["/dev/sda"] = Found(Visibility::NoAnswerInTime);
    const Diagnosis diagnosis = host.Examine();
    const std::string whole = RenderDiagnosis(diagnosis);
    std::string rejoined;
    std::istringstream lines(RenderDiagnosis(diagnosis, 60));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 60U) << line;
        const bool goesOn = rejoined.find("What to know") != std::string::npos && line.rfind("  ", 0) == 0;
        rejoined += goesOn ? line.substr(1) : (rejoined.empty() ? "" : "\n") + line;
    }
    EXPECT_EQ(rejoined + "\n", whole);
}

TEST(Doctor, EndsWithASentenceWhenAllIsWell)
{
    const std::string text = RenderDiagnosis(ToldHost({"sda"}).Examine());
    EXPECT_NE(text.find("\nThe library sees everything that has a device file.\n"), std::string::npos);
    EXPECT_EQ(text.find("What to know"), std::string::npos);
}

TEST(Doctor, AnErrorWithoutANameIsNumberAndText)
{
    ToldHost host({"sda"});
    host.files["/dev/sda"] = Found(Visibility::CannotBeOpened, 4242);
    const std::string json = RenderDiagnosisJson(host.Examine(), {"host", "2024-02-29T12:00:00Z"});
    std::vector<std::string> found;
    const std::function<void(const nlohmann::json&)> look = [&](const nlohmann::json& value) {
        if (value.is_object() && value.contains("number") && value.at("number") == 4242) {
            found.push_back(value.dump());
        }
        if (value.is_structured()) {
            std::for_each(value.begin(), value.end(), look);
        }
    };
    look(nlohmann::json::parse(json));
    EXPECT_EQ(found, std::vector<std::string>({R"({"name":null,"number":4242,"text":"Unknown error 4242"})"}));
}

TEST(Doctor, ACheckedFileComesThroughBetweenProcessesWhole)
{
    CheckedFile file = Found(Visibility::NotAsked, ENXIO, {{"SG_IO", "INQUIRY", EIO, ""}, {"X", "Y", 0, "odd"}});
    file.path = "/dev/st0";
    file.askedThrough = "/dev/nst0";
    file.vendor = "V\n";
    file.product = "P\xff";
    const std::vector<std::string> texts = TextsOf(file);
    const CheckedFile copy = CheckedFileFrom(texts);
    EXPECT_EQ(TextsOf(copy), texts);
    EXPECT_EQ(copy.visibility, Visibility::NotAsked);
    EXPECT_EQ(copy.openError, ENXIO);
    EXPECT_EQ(copy.product, "P\xff");
    ASSERT_EQ(copy.requests.size(), 2U);
    EXPECT_EQ(copy.requests[0].error, EIO);
    EXPECT_EQ(copy.requests[1].remark, "odd");
    EXPECT_THROW(CheckedFileFrom({}), std::runtime_error);
    EXPECT_THROW(CheckedFileFrom({"/dev/st0", "", "0", "x", "", ""}), std::invalid_argument);
}

TEST(Doctor, FilesAreAskedInWorkersAndKeepTheirOrder)
{
    std::vector<FileOfClass> toAsk;
    for (int i = 0; i < 70; ++i) {
        toAsk.push_back({ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, "/nowhere/sd" + std::to_string(i)});
    }
    const std::vector<CheckedFile> files =
        CheckInWorkers(toAsk, std::chrono::minutes(5), std::chrono::steady_clock::now(), nullptr);
    ASSERT_EQ(files.size(), toAsk.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(files[i].path, toAsk[i].path);
        EXPECT_EQ(files[i].visibility, Visibility::CannotBeOpened);
        EXPECT_EQ(files[i].openError, ENOENT);
    }
}

TEST(Doctor, ManyDeviceFilesCostNoMoreCallsOfModprobe)
{
    char directory[] = "/tmp/doctorTest.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string modprobe = std::string(directory) + "/modprobe";
    const std::string calls = std::string(directory) + "/calls";
    std::ofstream(modprobe) << "#!/bin/sh\necho >>" << calls << "\n";
    ASSERT_EQ(0, chmod(modprobe.c_str(), S_IRWXU));
    const std::string path = std::getenv("PATH");
    setenv("PATH", (std::string(directory) + ":" + path).c_str(), 1);
    std::vector<FileOfClass> toAsk;
    for (int i = 0; i < 40; ++i) {
        for (const ZDSystemDevice::SysDeviceType type :
             {ZDSystemDevice::SYS_DEVICE_SCSI, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE}) {
            toAsk.push_back({type, "/nowhere/sd" + std::to_string(i)});
        }
    }
    CheckInWorkers(toAsk, std::chrono::minutes(5), std::chrono::steady_clock::now(), nullptr);
    setenv("PATH", path.c_str(), 1);
    // One that may hang, and one for each class.
    EXPECT_EQ(std::filesystem::file_size(calls), 3U);
    std::filesystem::remove_all(directory);
}

TEST(Doctor, ManyDevicesThatDoNotAnswerCostTheTimeOfOne)
{
    // The library never gets beyond loading its module.
    char directory[] = "/tmp/doctorTest.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string modprobe = std::string(directory) + "/modprobe";
    std::ofstream(modprobe) << "#!/bin/sh\nexec sleep 60\n";
    ASSERT_EQ(0, chmod(modprobe.c_str(), S_IRWXU));
    const std::string path = std::getenv("PATH");
    setenv("PATH", (std::string(directory) + ":" + path).c_str(), 1);
    std::vector<FileOfClass> toAsk;
    for (int i = 0; i < 40; ++i) {
        toAsk.push_back({ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE, "/nowhere/sd" + std::to_string(i)});
    }
    const auto started = std::chrono::steady_clock::now();
    const std::vector<CheckedFile> files = CheckInWorkers(toAsk, std::chrono::seconds(2), started, nullptr);
    const Duration elapsed = std::chrono::steady_clock::now() - started;
    setenv("PATH", path.c_str(), 1);
    std::filesystem::remove_all(directory);
    EXPECT_GE(elapsed, std::chrono::seconds(2));
    EXPECT_LT(elapsed, std::chrono::seconds(3));
    ASSERT_EQ(files.size(), toAsk.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(files[i].path, toAsk[i].path);
        EXPECT_EQ(files[i].visibility, Visibility::NotAskedInTime);
    }
}

TEST(Doctor, ADeviceThatWasAskedIsToldFromOneThatWasNot)
{
    Outcome late;
    late.late = true;
    EXPECT_EQ(FileWithoutAnswer("/dev/sda", late).visibility, Visibility::NotAskedInTime);
    late.deviceFile = "/dev/sda";
    EXPECT_EQ(FileWithoutAnswer("/dev/sda", late).visibility, Visibility::NoAnswerInTime);
    EXPECT_EQ(FileWithoutAnswer("/dev/sda", Outcome()).visibility, Visibility::WorkerDied);
    EXPECT_EQ(FileWithoutAnswer("/dev/sda", late).path, "/dev/sda");
}

}  // namespace
}  // namespace Zendra::ZDDevices
