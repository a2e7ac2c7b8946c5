/**
 * @file
 * @brief The harness itself: host files are read strictly, directories keep their order, the fake fails closed.
 */
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simhost.h"
#include "simhostTest.h"

namespace {

const char head[] = "modprobe exit=0\ncall all\n";

SimHost::Host Parse(const std::string& lines)
{
    return SimHost::ParseHost(head + lines, "test");
}

std::string ParseFailure(const std::string& text)
{
    try {
        SimHost::ParseHost(text, "test");
    } catch (const SimHost::ParseError& error) {
        return error.what();
    }
    return "";
}

SimHost::Bytes InquiryOf(const std::string& line)
{
    return Parse("dev node sg0\n inquiry " + line).dev.at(0).node.inquiry.at(0).data;
}

/** A device file of a mounted host, opened as the library opens it. */
class OpenNode {
public:
    explicit OpenNode(const char* path, int flags = O_RDONLY | O_NONBLOCK) : descriptor(open(path, flags)) {}
    ~OpenNode() { close(descriptor); }
    OpenNode(const OpenNode&) = delete;
    OpenNode& operator=(const OpenNode&) = delete;
    int Get() const { return descriptor; }

private:
    int descriptor;
};

/** A right INQUIRY request, for tests that spoil one field of it. */
struct InquiryRequest {
    InquiryRequest()
    {
        header.interface_id = 'S';
        header.dxfer_direction = SG_DXFER_FROM_DEV;
        header.cmd_len = 6;
        header.mx_sb_len = sizeof sense;
        header.dxfer_len = 255;
        header.dxferp = data;
        header.cmdp = command;
        header.sbp = sense;
        header.timeout = 20000;
    }
    unsigned char command[9] = {0x12, 0, 0, 0, 0x80, 0, 0x1b, 0x00, 0xff};
    unsigned char data[4096] = {};
    unsigned char sense[32] = {};
    sg_io_hdr header{};
};

std::string TextOf(const std::vector<std::string>& complaints)
{
    std::string text;
    for (const std::string& complaint : complaints) {
        text += complaint + "\n";
    }
    return text;
}

}  // namespace

TEST(HostFile, EscapesStandForTheirBytes)
{
    const SimHost::Host host = Parse(R"(block "a b" rev="\"\\\n\t\r\x00\xfF~")");
    EXPECT_EQ(host.block.at(0).name, "a b");
    EXPECT_EQ(*host.block.at(0).rev, std::string("\"\\\n\t\r\0\xff~", 8));
    EXPECT_FALSE(host.block.at(0).firmwareRev.has_value());
}

TEST(HostFile, QuoteIsTheReverseOfReading)
{
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    const std::string quoted = SimHost::Quote(all);
    EXPECT_TRUE(std::all_of(quoted.begin(), quoted.end(), [](char c) { return c >= 0x20 && c <= 0x7e; }));
    EXPECT_EQ(*Parse("block sda rev=" + quoted).block.at(0).rev, all);
}

TEST(HostFile, InquiryTextsArePaddedIntoTheirFields)
{
    const SimHost::Bytes data = InquiryOf(R"(type=0x05 vendor=AB product="C D" revision=1)");
    ASSERT_EQ(data.size(), 36U);
    EXPECT_EQ(data[0], 5);
    EXPECT_EQ(data[4], 31);
    EXPECT_EQ(std::string(data.begin() + 8, data.end()), "AB      C D             1   ");
}

TEST(HostFile, InquiryWithoutTextOrDataHasNoData)
{
    EXPECT_TRUE(InquiryOf("info=1 sense=70").empty());
}

TEST(HostFile, PatchesComeLastAndMayLengthenInquiryData)
{
    const SimHost::Bytes data = InquiryOf("vendor=A at=0:7f at=36:aabb");
    ASSERT_EQ(data.size(), 38U);
    EXPECT_EQ(data[0], 0x7f);
    EXPECT_EQ(data[37], 0xbb);
}

TEST(HostFile, PadFillsTextFields)
{
    const SimHost::Bytes data = InquiryOf("vendor=A pad=0");
    EXPECT_EQ(std::count(data.begin() + 9, data.end(), 0), 27);
}

TEST(HostFile, SerialPageCarriesItsLengthUnlessToldOtherwise)
{
    const auto page = [](const std::string& line) {
        return Parse("dev node sg0\n serial " + line).dev.at(0).node.serial.at(0).data;
    };
    EXPECT_EQ(page("text=ABC"), (SimHost::Bytes{0, 0x80, 0, 3, 'A', 'B', 'C'}));
    EXPECT_EQ(page("text=ABC length=33"), (SimHost::Bytes{0, 0x80, 0, 33, 'A', 'B', 'C'}));
    EXPECT_EQ(page("length=1 type=1"), (SimHost::Bytes{1, 0x80, 0, 1}));
}

TEST(HostFile, AtaTextsAreSwappedByWordAndRawDataIsNot)
{
    const auto identify = [](const std::string& line) {
        return Parse("dev node hda\n ata_identify " + line).dev.at(0).node.ataIdentify.at(0).data;
    };
    const SimHost::Bytes texts = identify("model=ABC");
    ASSERT_EQ(texts.size(), 512U);
    EXPECT_EQ(std::string(texts.begin() + 54, texts.begin() + 58), "BA C");
    EXPECT_EQ(texts[46], 0) << "a text that is not given leaves its field zero";
    const SimHost::Bytes raw = identify("data=4142");
    ASSERT_EQ(raw.size(), 512U);
    EXPECT_EQ(raw[0], 'A');
    EXPECT_EQ(raw[2], 0);
}

TEST(HostFile, NvmeTextsStandInTheirFields)
{
    const SimHost::Bytes data = Parse("dev node nvme0n1\n nvme_identify serial=S model=M revision=R at=72:21")
                                    .dev.at(0)
                                    .node.nvmeIdentify.at(0)
                                    .data;
    ASSERT_EQ(data.size(), 4096U);
    EXPECT_EQ(std::string(data.begin() + 4, data.begin() + 74),
              "S                   M                                       R       !" + std::string(1, '\0'));
}

TEST(HostFile, SeeLinesReadLikeTheResultsOfAGoldenText)
{
    const SimHost::Host host =
        Parse("see status 0\nsee device vendor=\"A \" lun=\"\"\ncall individual 2\n see status 6");
    const std::string results =
        "call all\nstatus 0\ndevice\n  vendor \"A \"\n  lun \"\"\ncall individual 2\nstatus 6\n";
    EXPECT_EQ(SimHost::SeenOn(host), results);
    EXPECT_EQ(SimHost::ResultsIn("call all\nlog 4 \"a\"\nsystem \"b\"\nsleep 5\n" + results.substr(9)), results);
}

TEST(HostFile, WhatIsNotUnderstoodIsAnErrorThatNamesTheLine)
{
    const std::vector<std::string> wrong = {
        "colour blue",
        "modprobe exit=0",
        "modprobe noshell",
        "call everything",
        "call individual",
        "call individual 2147483648",
        "call all twice",
        "dev thing sda",
        "dev node",
        "dev node a/b",
        "dev node \"a\\x00b\"",
        "dev node sda\n dev node sda",
        "dev node sda target=sdb",
        "see device vendor=A",
        "see status",
        "see status 0\n see status 0",
        "see status 0\n see device A",
        "dev link sda",
        "inquiry vendor=A",
        "dev directory sda\n sg_version 30000",
        "dev node sda\n sg_version",
        "dev node sda\n sg_version 1 2",
        "dev node sda\n sg_version 1\n sg_version 1",
        "dev node sda\n sg_version errno=EWHAT",
        "dev node sda\n sg_version 1 errno=EIO",
        "dev node sda\n scsi_id host=1 host=1",
        "dev node sda\n scsi_id port=1",
        "dev node sda\n idlun -1",
        "dev node sda\n idlun 0x1ffffffff",
        "dev node sda\n inquiry vendor=\"123456789\"",
        "dev node sda\n inquiry vendor=A vendor=B",
        "dev node sda\n inquiry vendor=A data=00",
        "dev node sda\n inquiry model=A",
        "dev node sda\n inquiry data=000",
        "dev node sda\n inquiry data=0g",
        "dev node sda\n inquiry at=1:00",
        "dev node sda\n inquiry times=0",
        "dev node sda\n inquiry times=any\n inquiry",
        "dev node sda\n inquiry errno=EIO info=1",
        "dev node sda\n inquiry result=-1",
        "dev node sda\n inquiry sb_len=33",
        "dev node sda\n ata_identify at=511:0000",
        "dev node sda\n ata_identify info=1",
        "dev node sda\n ata_identify model=A data=00",
        "dev node sda\n nvme_identify vendor=A",
        "block sda size=1",
        "block sda rev=\"a",
        "block sda rev=\"\\q\"",
        "block sda rev=\"\\x1\"",
        "block sda rev=a\\n",
        "block sda rev=\"a\"b",
        "block sda rev=a\"b\"",
        "block sda =b",
        "devdir",
        "sysblock here",
    };
    for (const std::string& lines : wrong) {
        const auto lineNumber = 3 + std::count(lines.begin(), lines.end(), '\n');
        const std::string failure = ParseFailure(head + lines);
        EXPECT_EQ(failure.rfind("test:" + std::to_string(lineNumber) + ": ", 0), 0U) << lines << "\n" << failure;
    }
}

TEST(HostFile, AHostNeedsItsModuleACallAndTheTargetsOfItsLinks)
{
    EXPECT_NE(ParseFailure("call all"), "");
    EXPECT_NE(ParseFailure("modprobe exit=0"), "");
    EXPECT_NE(ParseFailure(head + std::string("sysblock absent\nblock sda")), "");
    EXPECT_NE(ParseFailure(head + std::string("dev link cdrom target=sr0")), "");
    EXPECT_EQ(ParseFailure(head + std::string("dev link cdrom target=sr0\ndev node sr0")), "");
}

TEST(GoldenText, KeepsTheLinesUpToALevel)
{
    const std::string golden = "call all\nlog 4 \"a\"\nlog 1 \"b\"\nsleep 5\nlog 3 \"c\"\nstatus 0\n";
    EXPECT_EQ(SimHost::LinesUpToLevel(golden, 4), golden);
    EXPECT_EQ(SimHost::LinesUpToLevel(golden, 1), "call all\nlog 1 \"b\"\nsleep 5\nstatus 0\n");
    EXPECT_EQ(SimHost::LinesUpToLevel(golden, 0), "call all\nsleep 5\nstatus 0\n");
}

TEST(Directories, YieldTheirEntriesInTheOrderOfTheFile)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse("dev node sdb\ndev directory sda\ndev dangling z\ndev unopenable k\ndev node sdc\n"
                                     "dev link a target=sdc\nblock vda\nblock sdb\nblock sda");
    const SimHost::MountedHost mounted(host);
    const auto names = [](const char* path) {
        std::string text;
        DIR* stream = opendir(path);
        while (const dirent* entry = readdir(stream)) {
            text += std::string(entry->d_name) + " ";
        }
        closedir(stream);
        return text;
    };
    EXPECT_EQ(names("/dev"), ". .. sdb sda z k sdc a ");
    EXPECT_EQ(names("/sys/block"), ". .. vda sdb sda ");
}

TEST(Directories, TheHostIsGoneAfterwards)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse("dev node simhostOnly");
    {
        const SimHost::MountedHost mounted(host);
        EXPECT_EQ(access("/dev/simhostOnly", F_OK), 0);
    }
    EXPECT_NE(access("/dev/simhostOnly", F_OK), 0);
}

TEST(Fake, AnswersARightRequestWithoutComplaint)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse(
        "dev node sg0\n sg_version 30536\n scsi_id host=2 channel=1 id=3 lun=4\n idlun 0x00010403\n bus_number 2\n"
        " inquiry vendor=Acme sense=7000 info=1 status=2 masked_status=1 host_status=3 driver_status=8 result=5");
    SimHost::MountedHost mounted(host);
    const OpenNode node("/dev/sg0");
    int version = 0;
    EXPECT_EQ(ioctl(node.Get(), SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30536);
    sg_scsi_id id{};
    EXPECT_EQ(ioctl(node.Get(), SG_GET_SCSI_ID, &id), 0);
    EXPECT_EQ(id.host_no, 2);
    EXPECT_EQ(id.channel, 1);
    EXPECT_EQ(id.scsi_id, 3);
    EXPECT_EQ(id.lun, 4);
    int idLun[2] = {};
    EXPECT_EQ(ioctl(node.Get(), 0x5382, idLun), 0);
    EXPECT_EQ(idLun[0], 0x00010403);
    int busNumber = 0;
    EXPECT_EQ(ioctl(node.Get(), 0x5386, &busNumber), 0);
    EXPECT_EQ(busNumber, 2);
    InquiryRequest request;
    EXPECT_EQ(ioctl(node.Get(), SG_IO, &request.header), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(request.data) + 8, 8), "Acme    ");
    EXPECT_EQ(request.sense[0], 0x70);
    EXPECT_EQ(request.header.sb_len_wr, 2);
    EXPECT_EQ(request.header.info, 1U);
    EXPECT_EQ(request.header.status, 2);
    EXPECT_EQ(request.header.masked_status, 1);
    EXPECT_EQ(request.header.host_status, 3);
    EXPECT_EQ(request.header.driver_status, 8);
    mounted.ComplainOfUnusedAnswers();
    EXPECT_EQ(TextOf(mounted.Complaints()), "");
}

TEST(Fake, ComplainsOfEverySpoiltFieldOfAScsiRequest)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse("dev node sg0\n sg_version 30536\n inquiry times=any");
    const std::vector<std::pair<const char*, void (*)(InquiryRequest&)>> spoilers = {
        {"interface_id", [](InquiryRequest& request) { request.header.interface_id = 'Q'; }},
        {"dxfer_direction", [](InquiryRequest& request) { request.header.dxfer_direction = SG_DXFER_TO_DEV; }},
        {"cmd_len", [](InquiryRequest& request) { request.header.cmd_len = 10; }},
        {"mx_sb_len", [](InquiryRequest& request) { request.header.mx_sb_len = 31; }},
        {"iovec_count", [](InquiryRequest& request) { request.header.iovec_count = 1; }},
        {"dxfer_len", [](InquiryRequest& request) { request.header.dxfer_len = 256; }},
        {"dxferp", [](InquiryRequest& request) { request.header.dxferp = nullptr; }},
        {"cmdp", [](InquiryRequest& request) { request.header.cmdp = nullptr; }},
        {"sbp", [](InquiryRequest& request) { request.header.sbp = nullptr; }},
        {"timeout", [](InquiryRequest& request) { request.header.timeout = 2000; }},
        {"flags", [](InquiryRequest& request) { request.header.flags = SG_FLAG_DIRECT_IO; }},
        {"pack_id", [](InquiryRequest& request) { request.header.pack_id = 1; }},
        {"usr_ptr", [](InquiryRequest& request) { request.header.usr_ptr = request.data; }},
        {"not zeroed", [](InquiryRequest& request) { request.header.info = 1; }},
        {"bytes 7 and 8", [](InquiryRequest& request) { request.command[7] = 1; }},
        {"bytes 7 and 8", [](InquiryRequest& request) { request.command[8] = 0; }},
        {"sense buffer", [](InquiryRequest& request) { request.sense[31] = 1; }},
        {"data buffer", [](InquiryRequest& request) { request.data[254] = 1; }},
        {"unknown command", [](InquiryRequest& request) { request.command[4] = 0x60; }},
    };
    for (const auto& [complaint, spoil] : spoilers) {
        SimHost::MountedHost mounted(host);
        const OpenNode node("/dev/sg0");
        int version = 0;
        ASSERT_EQ(ioctl(node.Get(), SG_GET_VERSION_NUM, &version), 0);
        InquiryRequest request;
        spoil(request);
        ioctl(node.Get(), SG_IO, &request.header);
        EXPECT_NE(TextOf(mounted.Complaints()).find(complaint), std::string::npos)
            << complaint << ", but: " << TextOf(mounted.Complaints());
    }
}

TEST(Fake, ComplainsOfWrongAtaAndNvmeRequests)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse("dev node sda\n ata_identify times=any\n nvme_identify times=any");
    SimHost::MountedHost mounted(host);
    const OpenNode node("/dev/sda");
    std::size_t complaints = 0;
    const auto expectComplaint = [&](unsigned long number, void* argument) {
        ioctl(node.Get(), number, argument);
        EXPECT_EQ(mounted.Complaints().size(), ++complaints);
    };
    unsigned char ata[516] = {0xec, 0, 0, 1};
    EXPECT_EQ(ioctl(node.Get(), 0x031f, ata), 0);
    EXPECT_EQ(ata[0], 0x50);
    for (const std::size_t spoilt : {0U, 1U, 2U, 3U, 4U, 515U}) {
        unsigned char wrong[516] = {0xec, 0, 0, 1};
        wrong[spoilt] = static_cast<unsigned char>(wrong[spoilt] + 1);
        expectComplaint(0x031f, wrong);
    }
    std::vector<unsigned char> buffer(4096);
    const auto command = [&]() {
        nvme_admin_cmd right{};
        right.opcode = 6;
        right.addr = reinterpret_cast<std::uintptr_t>(buffer.data());
        right.data_len = 4096;
        right.cdw10 = 1;
        return right;
    };
    nvme_admin_cmd request = command();
    EXPECT_EQ(ioctl(node.Get(), NVME_IOCTL_ADMIN_CMD, &request), 0);
    for (std::size_t spoilt = 0; spoilt < sizeof request; ++spoilt) {
        if (spoilt >= offsetof(nvme_admin_cmd, addr) && spoilt < offsetof(nvme_admin_cmd, addr) + sizeof request.addr) {
            continue;
        }
        request = command();
        unsigned char bytes[sizeof request];
        std::memcpy(bytes, &request, sizeof request);
        bytes[spoilt] = static_cast<unsigned char>(bytes[spoilt] + 1);
        expectComplaint(NVME_IOCTL_ADMIN_CMD, bytes);
    }
    buffer[4095] = 1;
    request = command();
    expectComplaint(NVME_IOCTL_ADMIN_CMD, &request);
}

TEST(Fake, ComplainsOfWhatItWasNotTold)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse("dev node sda\n inquiry\ndev directory sdb");
    SimHost::MountedHost mounted(host);
    const OpenNode node("/dev/sda");
    const OpenNode directory("/dev/sdb");
    int value = 0;
    EXPECT_EQ(ioctl(directory.Get(), SG_GET_VERSION_NUM, &value), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(TextOf(mounted.Complaints()), "") << "a directory answers every ioctl with ENOTTY";

    std::size_t complaints = 0;
    const auto expectComplaint = [&](int result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(mounted.Complaints().size(), ++complaints) << TextOf(mounted.Complaints());
    };
    expectComplaint(ioctl(node.Get(), SG_GET_VERSION_NUM, &value));
    expectComplaint(ioctl(node.Get(), 0x1261, &value));
    expectComplaint(ioctl(node.Get(), SG_IO, nullptr));
    expectComplaint(ioctl(1000, SG_IO, &value));
    expectComplaint(std::system("modprobe sg"));
    const OpenNode otherFile("/proc/self/stat");
    expectComplaint(ioctl(otherFile.Get(), SG_IO, &value));
    InquiryRequest first;
    EXPECT_EQ(ioctl(node.Get(), SG_IO, &first.header), 0);
    InquiryRequest second;
    expectComplaint(ioctl(node.Get(), SG_IO, &second.header));
    mounted.BeginCall();
    InquiryRequest inNextCall;
    EXPECT_EQ(ioctl(node.Get(), SG_IO, &inNextCall.header), 0);
    EXPECT_EQ(mounted.Complaints().size(), complaints);
}

TEST(Fake, ComplainsOfADeviceFileThatIsNotOpenedReadOnlyAndNonBlocking)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = Parse("dev node sda\n sg_version 30000");
    for (const int flags : {O_RDONLY, O_RDWR | O_NONBLOCK}) {
        SimHost::MountedHost mounted(host);
        const OpenNode node("/dev/sda", flags);
        int version = 0;
        EXPECT_EQ(ioctl(node.Get(), SG_GET_VERSION_NUM, &version), 0);
        EXPECT_EQ(mounted.Complaints().size(), 1U);
    }
}

TEST(Fake, ComplainsOfAnswersThatNobodyAskedFor)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host =
        Parse("dev node sda\n sg_version 30000\n inquiry times=2\n serial\n nvme_identify times=any");
    SimHost::MountedHost mounted(host);
    const OpenNode node("/dev/sda");
    InquiryRequest request;
    EXPECT_EQ(ioctl(node.Get(), SG_IO, &request.header), 0);
    mounted.ComplainOfUnusedAnswers();
    EXPECT_EQ(mounted.Complaints().size(), 4U) << TextOf(mounted.Complaints());
}

TEST(Fake, NotesSleepsAndCommandsInTheirOrder)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = SimHost::ParseHost("modprobe exit=3\ncall all", "test");
    SimHost::MountedHost mounted(host);
    EXPECT_EQ(sleep(5), 0U);
    EXPECT_EQ(std::system("modprobe sg >/dev/null 2>&1"), 3 << 8);
    EXPECT_EQ(mounted.Text(), "sleep 5\nsystem \"modprobe sg >/dev/null 2>&1\"\n");
    EXPECT_EQ(TextOf(mounted.Complaints()), "");
}
