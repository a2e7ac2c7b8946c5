#include "tools/zddevices/doctor/doctor.h"

#include <fcntl.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "toolTests.h"
#include "tools/zddevices/doctor/doctorReport.h"

namespace Zendra {
namespace ZDDevices {
namespace {

constexpr int descriptor = 77;
constexpr unsigned char disk = 0;
constexpr unsigned char opticalDrive = 5;

/** Opens what it was told of, and answers what was scripted, in that order and nothing else. */
class ScriptedKernel : public DeviceKernel {
public:
    ~ScriptedKernel() override
    {
        EXPECT_TRUE(answers.empty()) << answers.size() << " questions were not asked";
        EXPECT_EQ(opened, closed);
    }

    int Open(const std::string& path) override
    {
        const auto found = openResults.find(path);
        if (found == openResults.end()) {
            ADD_FAILURE() << "unexpected open of " << path;
            return -ENOENT;
        }
        opened += found->second >= 0 ? 1 : 0;
        return found->second;
    }

    int Ioctl(int asked, unsigned long request, void* argument) override
    {
        EXPECT_EQ(asked, descriptor);
        if (answers.empty() || answers.front().request != request) {
            ADD_FAILURE() << "unexpected request " << request;
            return -ENOTTY;
        }
        const Answer answer = answers.front();
        answers.pop_front();
        return answer.give(argument);
    }

    void Close(int closedDescriptor) override
    {
        EXPECT_EQ(closedDescriptor, descriptor);
        ++closed;
    }

    bool MayNotRead(const std::string& path) override { return denied == path; }

    dev_t CharacterDevice(const std::string& path) override
    {
        const auto found = numbers.find(path);
        return found != numbers.end() ? found->second : 0;
    }

    void Answers(unsigned long request, int result)
    {
        answers.push_back({request, [result](void* /*argument*/) { return result; }});
    }

    void AnswersVersion(int version = 30536)
    {
        answers.push_back({SG_GET_VERSION_NUM, [version](void* argument) {
                               *static_cast<int*>(argument) = version;
                               return 0;
                           }});
    }

    /** An INQUIRY; the page is 0 for the standard data. */
    void AnswersInquiry(unsigned char page, unsigned char type, const std::string& vendor, const std::string& product,
                        const std::function<void(sg_io_hdr_t&)>& also = nullptr)
    {
        answers.push_back({SG_IO, [=](void* argument) {
                               auto& header = *static_cast<sg_io_hdr_t*>(argument);
                               EXPECT_EQ(header.interface_id, 'S');
                               EXPECT_EQ(header.dxfer_direction, SG_DXFER_FROM_DEV);
                               EXPECT_EQ(header.cmd_len, 6);
                               EXPECT_EQ(header.cmdp[0], 0x12);
                               EXPECT_EQ(header.cmdp[1], page == 0 ? 0 : 1);
                               EXPECT_EQ(header.cmdp[2], page);
                               EXPECT_GE(header.dxfer_len, 64U);
                               auto* data = static_cast<unsigned char*>(header.dxferp);
                               data[0] = type;
                               std::memcpy(data + 8, vendor.data(), vendor.size());
                               std::memcpy(data + 16, product.data(), product.size());
                               if (also) {
                                   also(header);
                               }
                               return 0;
                           }});
    }

    void AnswersAddress(int error = 0)
    {
        Answers(SCSI_IOCTL_GET_IDLUN, -error);
        Answers(SCSI_IOCTL_GET_BUS_NUMBER, -error);
    }

    void AnswersIdentify(int result)
    {
        answers.push_back({HDIO_DRIVE_CMD, [result](void* argument) {
                               EXPECT_EQ(static_cast<unsigned char*>(argument)[0], 0xEC);
                               EXPECT_EQ(static_cast<unsigned char*>(argument)[3], 1);
                               return result;
                           }});
    }

    std::map<std::string, int> openResults;
    std::map<std::string, dev_t> numbers;
    std::string denied;

private:
    struct Answer {
        unsigned long request;
        std::function<int(void*)> give;
    };
    std::deque<Answer> answers;
    int opened = 0;
    int closed = 0;
};

/** The requests that failed or drew a remark, with the reason. */
std::string Complaints(const Finding& finding)
{
    std::string text;
    for (const Question& question : finding.questions) {
        if (question.error != 0 || !question.remark.empty()) {
            text += question.request + ": " + (question.error != 0 ? DescribeError(question.error) : question.remark) +
                    "\n";
        }
    }
    return text;
}

class Probe : public testing::Test {
protected:
    Finding Ask(const std::string& path, Manner manner)
    {
        if (kernel.openResults.empty()) {
            kernel.openResults[path] = descriptor;
        }
        return ProbeDeviceFile(path, manner, kernel);
    }

    ScriptedKernel kernel;
};

TEST_F(Probe, DiskThatAnswersIsVisible)
{
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, disk, "HALVARD ", "HX 900          ");
    kernel.AnswersAddress();
    kernel.AnswersInquiry(0x80, disk, "", "");
    const Finding finding = Ask("/dev/sda", Manner::ScsiDisk);
    EXPECT_EQ(finding.visibility, Visibility::Visible);
    EXPECT_EQ(finding.vendor, "HALVARD ");
    EXPECT_EQ(finding.product, "HX 900          ");
    EXPECT_EQ(finding.questions.size(), 5U);
    EXPECT_EQ(Complaints(finding), "");
}

TEST_F(Probe, WhatIsNotNeededMayFail)
{
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, disk, "HALVARD ", "HX 900");
    kernel.AnswersAddress(EINVAL);
    kernel.Answers(SG_IO, -EIO);
    const Finding finding = Ask("/dev/sda", Manner::ScsiDisk);
    EXPECT_EQ(finding.visibility, Visibility::Visible);
    EXPECT_EQ(Complaints(finding), "SCSI_IOCTL_GET_IDLUN: Invalid argument (EINVAL)\n"
                                   "SCSI_IOCTL_GET_BUS_NUMBER: Invalid argument (EINVAL)\n"
                                   "SG_IO: Input/output error (EIO)\n");
}

TEST_F(Probe, OnlyDisksAndTapesAreAskedForASerialNumber)
{
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, opticalDrive, "QEMU", "QEMU DVD-ROM");
    kernel.AnswersAddress();
    EXPECT_EQ(Ask("/dev/sr0", Manner::Optical).visibility, Visibility::Visible);
}

TEST_F(Probe, AtaDiskBehindScsiMustAnswerIdentifyToo)
{
    for (const int result : {0, -EIO}) {
        kernel.AnswersVersion();
        kernel.AnswersInquiry(0, disk, "ATA     ", "SEAVIEW");
        kernel.AnswersAddress();
        kernel.AnswersInquiry(0x80, disk, "", "");
        kernel.AnswersIdentify(result);
        const Finding finding = Ask("/dev/sda", Manner::ScsiDisk);
        EXPECT_EQ(finding.visibility, result == 0 ? Visibility::Visible : Visibility::NoUsableAnswer);
        EXPECT_EQ(Complaints(finding), result == 0 ? "" : "HDIO_DRIVE_CMD: Input/output error (EIO)\n");
    }
}

TEST_F(Probe, IdentifyIsTheSecondTryOfDisksTapesAndOpticalDrives)
{
    for (const Manner manner : {Manner::ScsiDisk, Manner::Tape, Manner::Optical}) {
        for (const int result : {0, -ENOTTY}) {
            kernel.Answers(SG_GET_VERSION_NUM, -ENOTTY);
            kernel.AnswersIdentify(result);
            const Finding finding = Ask("/dev/x", manner);
            EXPECT_EQ(finding.visibility, result == 0 ? Visibility::Visible : Visibility::NoUsableAnswer);
            EXPECT_EQ(finding.questions.size(), 2U);
        }
    }
}

TEST_F(Probe, NamelessDiskOrDriveIsTriedByIdentifyAndATapeIsTakenAsItIs)
{
    const std::vector<std::pair<Manner, bool>> manners = {
        {Manner::ScsiDisk, true}, {Manner::Optical, true}, {Manner::Generic, true}, {Manner::Tape, false}};
    for (const auto& [manner, asksIdentify] : manners) {
        kernel.AnswersVersion();
        kernel.AnswersInquiry(0, disk, "", "");
        if (asksIdentify) {
            kernel.AnswersIdentify(-EINVAL);
        }
        EXPECT_EQ(Ask("/dev/x", manner).visibility, asksIdentify ? Visibility::NoUsableAnswer : Visibility::Visible);
    }
}

TEST_F(Probe, GenericFileThatRefusesInquiryGetsNoSecondTry)
{
    kernel.AnswersVersion();
    kernel.Answers(SG_IO, -ENOMEM);
    const Finding finding = Ask("/dev/sg0", Manner::Generic);
    EXPECT_EQ(finding.visibility, Visibility::NoUsableAnswer);
    EXPECT_EQ(Complaints(finding), "SG_IO: Cannot allocate memory (ENOMEM)\n");
}

TEST_F(Probe, GenericFileIsAskedForItsAddressInItsOwnWay)
{
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, opticalDrive, "QEMU", "QEMU DVD-ROM");
    kernel.Answers(SG_GET_SCSI_ID, 0);
    EXPECT_EQ(Ask("/dev/sg0", Manner::Generic).visibility, Visibility::Visible);
}

TEST_F(Probe, WithoutTheDriverAndForIdeDisksIdentifyIsTheOnlyQuestion)
{
    for (const Manner manner : {Manner::GenericWithoutDriver, Manner::IdeDisk}) {
        kernel.AnswersIdentify(0);
        EXPECT_EQ(Ask("/dev/x", manner).visibility, Visibility::Visible);
        kernel.AnswersIdentify(-EACCES);
        EXPECT_EQ(Ask("/dev/x", manner).visibility, Visibility::NoUsableAnswer);
    }
}

TEST_F(Probe, NvmeDiskIsAskedToIdentifyItsController)
{
    kernel.Answers(NVME_IOCTL_ADMIN_CMD, 0);
    EXPECT_EQ(Ask("/dev/nvme0n1", Manner::NvmeDisk).visibility, Visibility::Visible);
    kernel.Answers(NVME_IOCTL_ADMIN_CMD, -EACCES);
    EXPECT_EQ(Ask("/dev/nvme0n1", Manner::NvmeDisk).visibility, Visibility::NoUsableAnswer);
    kernel.Answers(NVME_IOCTL_ADMIN_CMD, 0x2002);
    const Finding finding = Ask("/dev/nvme0n1", Manner::NvmeDisk);
    EXPECT_EQ(finding.visibility, Visibility::Visible);
    EXPECT_EQ(Complaints(finding), "NVME_IOCTL_ADMIN_CMD: the device answered with NVMe status 0x2002\n");
}

TEST_F(Probe, OldInterfaceCarriesNoCommands)
{
    kernel.AnswersVersion(29999);
    kernel.AnswersIdentify(-EINVAL);
    const Finding finding = Ask("/dev/sda", Manner::ScsiDisk);
    EXPECT_EQ(finding.visibility, Visibility::NoUsableAnswer);
    EXPECT_NE(Complaints(finding).find("too old to carry commands"), std::string::npos);
}

TEST_F(Probe, SenseDataOfBothFormatsAndSilenceAreToldInWords)
{
    const std::vector<std::pair<std::vector<unsigned char>, std::string>> senses = {
        {{0x70, 0, 0x06, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x29, 0x01},
         "the device answered with SCSI status 0x02, sense key 0x6, additional sense 0x29/0x01"},
        {{0x72, 0x03, 0x11, 0x00},
         "the device answered with SCSI status 0x02, sense key 0x3, additional sense 0x11/0x00"},
        {{0x70, 0, 0x06}, "the device answered with SCSI status 0x02"},
        {{}, "the device answered with SCSI status 0x02"}};
    for (const auto& [bytes, text] : senses) {
        const std::vector<unsigned char> sense = bytes;
        kernel.AnswersVersion();
        kernel.AnswersInquiry(0, disk, "", "", [sense](sg_io_hdr_t& header) {
            header.info = SG_INFO_CHECK;
            header.status = 0x02;
            header.sb_len_wr = static_cast<unsigned char>(sense.size());
            std::copy(sense.begin(), sense.end(), header.sbp);
        });
        kernel.AnswersIdentify(-EINVAL);
        const Finding finding = Ask("/dev/sg0", Manner::Generic);
        EXPECT_EQ(finding.questions.at(1).remark, text);
        EXPECT_EQ(finding.visibility, Visibility::NoUsableAnswer);
    }
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, disk, "", "", [](sg_io_hdr_t& header) {
        header.info = SG_INFO_CHECK;
        header.host_status = 3;
    });
    kernel.AnswersIdentify(-EINVAL);
    EXPECT_EQ(Ask("/dev/sg0", Manner::Generic).questions.at(1).remark,
              "nothing came back from the device (host status 0x3)");
}

TEST_F(Probe, FileThatMayNotBeReadIsNotOpened)
{
    kernel.denied = "/dev/sda";
    const Finding finding = ProbeDeviceFile("/dev/sda", Manner::ScsiDisk, kernel);
    EXPECT_EQ(finding.visibility, Visibility::Denied);
    EXPECT_EQ(finding.openError, EACCES);
}

TEST_F(Probe, ErrorsOfOpenAreToldApart)
{
    const std::map<int, Visibility> errors = {
        {EPERM, Visibility::Denied}, {ENXIO, Visibility::CannotBeOpened}, {EBUSY, Visibility::CannotBeOpened}};
    for (const auto& [error, visibility] : errors) {
        kernel.openResults["/dev/sda"] = -error;
        const Finding finding = Ask("/dev/sda", Manner::ScsiDisk);
        EXPECT_EQ(finding.visibility, visibility);
        EXPECT_EQ(finding.openError, error);
    }
}

TEST_F(Probe, RewindingTapeNodeIsAskedThroughItsTwin)
{
    kernel.numbers = {{"/dev/st1", makedev(9, 1)}, {"/dev/nst1", makedev(9, 0x81)}};
    kernel.openResults["/dev/nst1"] = descriptor;
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, disk, "", "");
    const Finding finding = Ask("/dev/st1", Manner::Tape);
    EXPECT_EQ(finding.visibility, Visibility::Visible);
    EXPECT_EQ(finding.path, "/dev/st1");
    EXPECT_EQ(finding.askedThrough, "/dev/nst1");
}

TEST_F(Probe, RewindingTapeNodeWithoutATwinIsNotOpened)
{
    for (const dev_t other : {makedev(0, 0), makedev(9, 0x80), makedev(21, 0x81)}) {
        kernel.numbers = {{"/dev/st1", makedev(9, 1)}, {"/dev/nst1", other}};
        const Finding finding = ProbeDeviceFile("/dev/st1", Manner::Tape, kernel);
        EXPECT_EQ(finding.visibility, Visibility::NotAsked);
        EXPECT_TRUE(finding.questions.empty());
    }
}

TEST_F(Probe, TapeNodeThatDoesNotRewindIsOpenedItself)
{
    kernel.numbers = {{"/dev/nst1", makedev(9, 0x81)}};
    kernel.AnswersVersion();
    kernel.AnswersInquiry(0, disk, "", "");
    const Finding finding = Ask("/dev/nst1", Manner::Tape);
    EXPECT_EQ(finding.visibility, Visibility::Visible);
    EXPECT_EQ(finding.askedThrough, "");
}

Finding Found(Visibility visibility, int openError = 0, std::vector<Question> questions = {})
{
    Finding finding;
    finding.visibility = visibility;
    finding.openError = openError;
    finding.questions = std::move(questions);
    return finding;
}

/** A host with these names whose device files are as told; others are visible. */
struct Ward {
    HostFacts facts;
    std::map<std::string, Finding> findings;
    std::vector<std::pair<std::string, Manner>> asked;

    explicit Ward(std::vector<std::string> names)
    {
        facts.sgLoaded = facts.modprobeFindsSg = facts.mayLoadModules = facts.userIsRoot = true;
        facts.names = std::move(names);
    }

    Diagnosis Examine()
    {
        return Diagnose(facts, std::chrono::milliseconds(1500), [&](const std::vector<Patient>& patients) {
            std::vector<Finding> answer;
            for (const Patient& patient : patients) {
                asked.emplace_back(patient.path, patient.manner);
                const auto found = findings.find(patient.path);
                answer.push_back(found != findings.end() ? found->second : Found(Visibility::Visible));
                answer.back().path = patient.path;
            }
            return answer;
        });
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

TEST(Doctor, AsksEachFileOfEachClassInItsManner)
{
    Ward ward({"sg1", "sda", "sda1", "hda", "nvme0n1", "nvme0", "sr0", "st0", "nst0", "null", "sg0"});
    const Diagnosis diagnosis = ward.Examine();
    EXPECT_TRUE(diagnosis.AllVisible());
    EXPECT_TRUE(diagnosis.advice.empty());
    const std::vector<std::pair<std::string, Manner>> expected = {
        {"/dev/st0", Manner::Tape},    {"/dev/sg0", Manner::Generic},      {"/dev/sg1", Manner::Generic},
        {"/dev/hda", Manner::IdeDisk}, {"/dev/nvme0n1", Manner::NvmeDisk}, {"/dev/sda", Manner::ScsiDisk},
        {"/dev/sr0", Manner::Optical}};
    EXPECT_EQ(ward.asked, expected);
}

TEST(Doctor, TheGenericClassFollowsModprobeAndNotTheFiles)
{
    struct Case {
        bool loaded, found, mayLoad;
        Manner manner;
        const char* path;
        const char* advice;
        const char* state;
    };
    const std::vector<Case> cases = {
        {true, true, false, Manner::Generic, "/dev/sg0", "", "loaded"},
        {false, true, true, Manner::Generic, "/dev/sg0", "", "not loaded; the next scan loads it"},
        {true, false, true, Manner::GenericWithoutDriver, "/dev/sda", "The sg driver is loaded, but",
         "loaded, but not used: \"modprobe sg\" fails"},
        {false, false, true, Manner::GenericWithoutDriver, "/dev/sda", "finds none",
         "not loaded, and cannot be: \"modprobe sg\" fails"},
        {false, true, false, Manner::GenericWithoutDriver, "/dev/sda", "may not load it",
         "not loaded, and this user may not load it"}};
    for (const Case& one : cases) {
        Ward ward({"sg0", "sda"});
        ward.facts.sgLoaded = one.loaded;
        ward.facts.modprobeFindsSg = one.found;
        ward.facts.mayLoadModules = one.mayLoad;
        const Diagnosis diagnosis = ward.Examine();
        EXPECT_EQ(diagnosis.sgUsed, one.manner == Manner::Generic);
        ASSERT_EQ(ward.asked.size(), 2U);
        EXPECT_EQ(ward.asked[0], std::make_pair(std::string(one.path), one.manner));
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

TEST(Doctor, ADriverThatTheNextScanLoadsHasNoFilesYet)
{
    Ward ward({"sda"});
    ward.facts.sgLoaded = false;
    const Diagnosis diagnosis = ward.Examine();
    EXPECT_TRUE(diagnosis.classes.at(1).findings.empty());
    EXPECT_NE(RenderDiagnosis(diagnosis).find("not loaded; the next scan loads it"), std::string::npos);
}

TEST(Doctor, EachKindOfTroubleHasItsAdvice)
{
    const std::vector<std::pair<Finding, std::string>> troubles = {
        {Found(Visibility::Denied, EACCES),
         "1 device file could not be opened for lack of privilege (/dev/sda); even root may not here"},
        {Found(Visibility::CannotBeOpened, EBUSY), "1 device file (/dev/sda) is in use by another program"},
        {Found(Visibility::CannotBeOpened, ENXIO), "1 device file (/dev/sda) cannot be opened: no device or no driver"},
        {Found(Visibility::NoAnswerInTime), "1 device file (/dev/sda) has not answered in time"},
        {Found(Visibility::NoUsableAnswer, 0, {{"HDIO_DRIVE_CMD", "x", EACCES, ""}}), "CAP_SYS_RAWIO"},
        {Found(Visibility::NoUsableAnswer, 0, {{"HDIO_DRIVE_CMD", "x", EPERM, ""}}),
         "nothing there answers as a SCSI, ATA or NVMe device"}};
    for (const auto& [finding, text] : troubles) {
        Ward ward({"sda", "sdb"});
        ward.findings["/dev/sda"] = finding;
        const Diagnosis diagnosis = ward.Examine();
        EXPECT_FALSE(diagnosis.AllVisible());
        ASSERT_EQ(diagnosis.advice.size(), 1U);
        EXPECT_NE(diagnosis.advice[0].find(text), std::string::npos) << diagnosis.advice[0];
        EXPECT_EQ(diagnosis.advice[0].find("/dev/sdb"), std::string::npos);
    }
}

TEST(Doctor, AnOrdinaryUserIsToldToBecomeRoot)
{
    Ward ward({"sda"});
    ward.facts.userIsRoot = false;
    ward.findings["/dev/sda"] = Found(Visibility::Denied, EACCES);
    EXPECT_NE(ward.Advice().find("run zddevices as root"), std::string::npos);
    ward.findings["/dev/sda"] = Found(Visibility::NoUsableAnswer, 0, {{"NVME_IOCTL_ADMIN_CMD", "x", EACCES, ""}});
    EXPECT_NE(ward.Advice().find("Membership of the group is not enough"), std::string::npos);
}

TEST(Doctor, ATapeThatWasNotAskedIsNoTrouble)
{
    Ward ward({"st0"});
    ward.findings["/dev/st0"] = Found(Visibility::NotAsked);
    const Diagnosis diagnosis = ward.Examine();
    EXPECT_TRUE(diagnosis.AllVisible());
    EXPECT_NE(RenderDiagnosis(diagnosis).find("/dev/st0  may be opened; not asked"), std::string::npos);
}

TEST(Doctor, ADiskThatIsVisibleInOneClassIsNoTroubleInAnother)
{
    Ward ward({"sda"});
    ward.facts.modprobeFindsSg = false;
    const Diagnosis diagnosis = Diagnose(ward.facts, std::chrono::seconds(1), [](const std::vector<Patient>& patients) {
        const bool asDisk = patients.at(0).manner == Manner::ScsiDisk;
        Finding finding = Found(asDisk ? Visibility::Visible : Visibility::NoUsableAnswer);
        finding.path = patients.at(0).path;
        return std::vector<Finding>{finding};
    });
    EXPECT_TRUE(diagnosis.AllVisible());
    ASSERT_EQ(diagnosis.advice.size(), 1U);
    EXPECT_NE(diagnosis.advice[0].find("modprobe sg"), std::string::npos);
}

TEST(Doctor, DisksThatTheLibraryNeverLooksAtAreNamed)
{
    Ward ward({"vdb", "vda", "vda1", "xvda", "mmcblk0", "mmcblk0p1", "nvme0n1", "nvme10n1", "loop0", "vd", "vdA",
               "mmcblk", "nvmen1", "nvme10n", "nvme10n1p1", "n1", "null", "nvme-fabrics"});
    const Diagnosis diagnosis = ward.Examine();
    EXPECT_EQ(diagnosis.notLookedAt,
              std::vector<std::string>({"/dev/mmcblk0", "/dev/nvme10n1", "/dev/vda", "/dev/vdb", "/dev/xvda"}));
    EXPECT_TRUE(diagnosis.AllVisible());
    EXPECT_NE(ward.Advice().find("5 device files (/dev/mmcblk0, /dev/nvme10n1, /dev/vda, /dev/vdb, /dev/xvda) are not"),
              std::string::npos);
}

TEST(Doctor, AHostWithoutDeviceFilesIsToldSo)
{
    EXPECT_NE(Ward({"null"}).Advice().find("There is no device file to look at"), std::string::npos);
}

TEST(Doctor, ADirectoryThatCannotBeListedIsAllThereIsToSay)
{
    Ward ward({});
    ward.facts.directoryError = EACCES;
    ward.facts.userIsRoot = false;
    const Diagnosis diagnosis = ward.Examine();
    EXPECT_FALSE(diagnosis.AllVisible());
    EXPECT_EQ(RenderDiagnosis(diagnosis),
              "Driver for generic SCSI devices (sg): loaded\n"
              "\nWhat to know and to do:\n"
              "- The device files cannot be listed (/dev): Permission denied (EACCES); run zddevices as root.\n");
}

TEST(Doctor, SaysInWordsWhatIsVisibleAndWhy)
{
    Ward ward({"st0", "sg0", "sda", "sdb", "sdc", "sdd"});
    ward.findings["/dev/st0"] = Found(Visibility::Visible);
    ward.findings["/dev/st0"].askedThrough = "/dev/nst0";
    ward.findings["/dev/sg0"] = Found(Visibility::Visible);
    ward.findings["/dev/sg0"].vendor = "HALVARD ";
    ward.findings["/dev/sg0"].product = "HX\x1b[2J 900";
    ward.findings["/dev/sda"] = Found(Visibility::NoAnswerInTime);
    ward.findings["/dev/sdb"] = Found(Visibility::CannotBeOpened, ENXIO);
    ward.findings["/dev/sdc"] = Found(Visibility::NoUsableAnswer, 0,
                                      {{"SG_GET_VERSION_NUM", "the version", ENOTTY, ""},
                                       {"SG_IO", "INQUIRY", 0, "odd"},
                                       {"HDIO_DRIVE_CMD", "ATA IDENTIFY DEVICE", 0, ""}});
    const std::string text = RenderDiagnosis(ward.Examine());
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
    Ward ward({"sda", "vda"});
    ward.findings["/dev/sda"] = Found(Visibility::NoAnswerInTime);
    const Diagnosis diagnosis = ward.Examine();
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
    const std::string text = RenderDiagnosis(Ward({"sda"}).Examine());
    EXPECT_NE(text.find("\nThe library sees everything that has a device file.\n"), std::string::npos);
    EXPECT_EQ(text.find("What to know"), std::string::npos);
}

TEST(Doctor, AnErrorWithoutANameIsNumberAndText)
{
    Ward ward({"sda"});
    ward.findings["/dev/sda"] = Found(Visibility::CannotBeOpened, 4242);
    const std::string json = RenderDiagnosisJson(ward.Examine(), {"host", "2024-02-29T12:00:00Z"});
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

TEST(Doctor, AFindingComesThroughBetweenProcessesWhole)
{
    Finding finding = Found(Visibility::NoUsableAnswer, 0, {{"SG_IO", "INQUIRY", EIO, ""}, {"X", "Y", 0, "odd"}});
    finding.path = "/dev/st0";
    finding.askedThrough = "/dev/nst0";
    finding.vendor = "V\n";
    finding.product = "P\xff";
    const Finding copy = UnpackFinding(PackFinding(finding));
    EXPECT_EQ(copy.path, finding.path);
    EXPECT_EQ(copy.visibility, finding.visibility);
    EXPECT_EQ(copy.askedThrough, finding.askedThrough);
    EXPECT_EQ(copy.vendor, "V\n");
    EXPECT_EQ(copy.product, "P\xEF\xBF\xBD");
    EXPECT_EQ(Complaints(copy), "SG_IO: Input/output error (EIO)\nX: odd\n");
    EXPECT_EQ(UnpackFinding(PackFinding(Found(Visibility::CannotBeOpened, ENXIO))).openError, ENXIO);
}

TEST(Doctor, AFindingOutOfOtherBytesIsAnError)
{
    Finding finding = Found(Visibility::NotAsked, ENXIO, {{"SG_IO", "INQUIRY", EIO, "odd"}});
    finding.path = "/dev/st0";
    const std::string bytes = PackFinding(finding);
    EXPECT_EQ(bytes, R"([5,[["/dev/st0","","6","",""],["SG_IO","INQUIRY","5","odd"]]])");
    for (const std::string& wrong : std::vector<std::string>{
             "",
             "{}",
             "[1]",
             "[6,[[\"/dev/st0\",\"\",\"6\",\"\",\"\"]]]",
             "[5,[]]",
             "[5,[[\"/dev/st0\",\"\",\"6\",\"\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"6\",\"\",\"\",\"\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"x\",\"\",\"\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"06\",\"\",\"\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"2147483648\",\"\",\"\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"6\",\"\",\"\"],[\"SG_IO\",\"INQUIRY\",\"\",\"odd\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"6\",\"\",\"\"],[\"SG_IO\",\"INQUIRY\",\"5\"]]]",
             "[5,[[\"/dev/st0\",\"\",\"6\",\"\",\"\xff\"]]]",
             bytes + " ",
             bytes + '\0',
         }) {
        EXPECT_THROW(UnpackFinding(wrong), std::runtime_error) << wrong;
    }
}

/** A kernel in which /dev/sick never comes back from its first ioctl. */
class SickKernel : public DeviceKernel {
public:
    int Open(const std::string& path) override { return path == "/dev/sick" ? 0 : descriptor; }
    int Ioctl(int asked, unsigned long /*request*/, void* /*argument*/) override
    {
        while (asked == 0) {
            pause();
        }
        return -EIO;
    }
    void Close(int /*descriptor*/) override {}
    bool MayNotRead(const std::string& /*path*/) override { return false; }
    dev_t CharacterDevice(const std::string& /*path*/) override { return 0; }
};

TEST(Doctor, ADeviceThatHangsCostsItsTimeAndNoMore)
{
    SickKernel kernel;
    const std::vector<Finding> findings =
        AskApart({{"/dev/sick", Manner::ScsiDisk}}, std::chrono::milliseconds(100), nullptr, kernel);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].path, "/dev/sick");
    EXPECT_EQ(findings[0].visibility, Visibility::NoAnswerInTime);
}

TEST(Doctor, ManyDevicesAreAskedInTurnsAndKeepTheirOrder)
{
    SickKernel kernel;
    std::vector<Patient> patients;
    for (int i = 0; i < 70; ++i) {
        patients.push_back({"/dev/sd" + std::to_string(i), Manner::IdeDisk});
    }
    const std::vector<Finding> findings = AskApart(patients, std::chrono::minutes(5), nullptr, kernel);
    ASSERT_EQ(findings.size(), patients.size());
    for (std::size_t i = 0; i < findings.size(); ++i) {
        EXPECT_EQ(findings[i].path, patients[i].path);
        EXPECT_EQ(Complaints(findings[i]), "HDIO_DRIVE_CMD: Input/output error (EIO)\n");
    }
}

}  // namespace
}  // namespace ZDDevices
}  // namespace Zendra
