#include "tools/zddevices/output/prometheus.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "toolTests.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {
namespace {

std::string Render(const Inventory& inventory)
{
    return RenderPrometheus(inventory, std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000999)));
}

const char* const ending = "# HELP zendra_device_files_denied Device files that could not be opened for lack of "
                           "privilege.\n"
                           "# TYPE zendra_device_files_denied gauge\n"
                           "zendra_device_files_denied 0\n"
                           "# HELP zendra_device_scan_timestamp_seconds When the scans began.\n"
                           "# TYPE zendra_device_scan_timestamp_seconds gauge\n"
                           "zendra_device_scan_timestamp_seconds 1700000000\n";

/** The lines that are samples of the family. */
std::vector<std::string> Samples(const std::string& text, const std::string& family)
{
    std::vector<std::string> samples;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, family.size(), family) == 0 && (line[family.size()] == '{' || line[family.size()] == ' ')) {
            samples.push_back(line);
        }
    }
    return samples;
}

StorageDevice Disk(const std::string& serial)
{
    StorageDevice disk;
    disk.device = "sdc";
    disk.wwn = "0x5000c500a1b2c3d4";
    disk.vendor = "HALVARD ";
    disk.product = " HX 900 ";
    disk.device_type = "Direct Access Device";
    disk.type = "disk";
    disk.serial_number = serial;
    disk.firmware_revision = "0102\x06";
    disk.port = "10";
    disk.bus = "1";
    disk.target = "3";
    disk.lun = "16384";
    return disk;
}

std::vector<std::string> DeviceSamples(const std::vector<StorageDevice>& devices)
{
    Inventory inventory;
    inventory.devices = devices;
    return Samples(Render(inventory), "zendra_device_info");
}

using Lines = std::vector<std::string>;

TEST(PrometheusDevices, HaveTheirTextsWithoutPaddingAsLabels)
{
    EXPECT_EQ(DeviceSamples({Disk("HX-1")}),
              Lines({R"(zendra_device_info{device="sdc",address="10:1:3:16384",type="disk",vendor="HALVARD",)"
                     R"(product="HX 900",serial="HX-1",firmware="0102",wwn="0x5000c500a1b2c3d4",ordinal="1"} 1)"}));
}

TEST(PrometheusDevices, WhatIsNotKnownIsAnEmptyLabel)
{
    StorageDevice zeros;
    zeros.port = zeros.bus = zeros.target = zeros.lun = "0";
    const std::string empty = R"(type="",vendor="",product="",serial="",firmware="",wwn="",ordinal="1"} 1)";
    EXPECT_EQ(DeviceSamples({StorageDevice(), zeros}),
              Lines({R"(zendra_device_info{device="",address="",)" + empty,
                     R"(zendra_device_info{device="",address="0:0:0:0",)" + empty}));
}

TEST(PrometheusDevices, EqualOnesAreCountedAmongThemselvesOnly)
{
    const Lines samples = DeviceSamples({Disk("A"), Disk("B"), Disk("A"), Disk("C"), Disk("B"), Disk("A")});
    Lines ordinals;
    for (const std::string& sample : samples) {
        ordinals.push_back(sample.substr(sample.find("ordinal=")));
    }
    EXPECT_EQ(ordinals, Lines({R"(ordinal="1"} 1)", R"(ordinal="1"} 1)", R"(ordinal="2"} 1)", R"(ordinal="1"} 1)",
                               R"(ordinal="2"} 1)", R"(ordinal="3"} 1)"}));
}

TEST(PrometheusDevices, ThatDifferInPaddingOnlyAreEqual)
{
    const Lines samples = DeviceSamples({Disk("A"), Disk(" A \x01")});
    EXPECT_NE(samples.at(1).find(R"(serial="A",firmware="0102",wwn="0x5000c500a1b2c3d4",ordinal="2")"),
              std::string::npos)
        << samples.at(1);
}

TEST(PrometheusLabels, BackslashQuotationMarkAndLineFeedAreEscaped)
{
    EXPECT_EQ(QuotedLabelValue("a\\b\"c\nd"), R"("a\\b\"c\nd")");
    EXPECT_EQ(QuotedLabelValue(""), R"("")");
}

TEST(PrometheusLabels, ControlCharactersAndBytesThatAreNotUtf8AreWrittenAsHexadecimal)
{
    EXPECT_NE(DeviceSamples({Disk("a\"b\\\n\x1b\xff")}).at(0).find(R"(serial="a\"b\\\\x0a\\x1b\\xff")"),
              std::string::npos)
        << DeviceSamples({Disk("a\"b\\\n\x1b\xff")}).at(0);
}

TEST(PrometheusMissing, DeniedFilesAreCountedAndEachMissingFileHasItsReason)
{
    Inventory inventory;
    inventory.missing = {{"/dev/sda", Reason::Denied, 13, "only root may open it", {}},
                         {"/dev/sdb", Reason::Denied, 13, "only root may open it", {}},
                         {"/dev/sdc", Reason::Busy, 16, "in use by another program", {}},
                         {"", Reason::NoAnswerInTime, 0, "class tape: no answer within 5 s", {}}};
    const std::string text = Render(inventory);
    EXPECT_EQ(Samples(text, "zendra_device_files_denied"), Lines({"zendra_device_files_denied 2"}));
    EXPECT_EQ(Samples(text, "zendra_device_missing"),
              Lines({R"(zendra_device_missing{device_file="/dev/sda",reason="denied"} 1)",
                     R"(zendra_device_missing{device_file="/dev/sdb",reason="denied"} 1)",
                     R"(zendra_device_missing{device_file="/dev/sdc",reason="busy"} 1)"}));
}

TEST(LabelText, IsTheSameInEveryLocale)
{
    for (const char* locale : {"C.UTF-8", "C"}) {
        const CharacterSet characters(locale);
        EXPECT_EQ(LabelText(" Gerät 日本 \x06 "), "Gerät 日本");
        EXPECT_EQ(LabelText("a\xe2\x80\xae_\xc2\x9b\x7f!"), "a\\xe2\\x80\\xae_\\xc2\\x9b\\x7f!");
        EXPECT_EQ(LabelText(" \t"), "");
    }
}

TEST(PrometheusFirmware, HasIdVersionAndSerial)
{
    DiskFirmware identity;
    identity.SoftwareID = identity.Name = "HX 900";
    identity.VersionString = "0102 ";
    identity.SerialNumber = "HX-1";
    Inventory inventory;
    inventory.firmware = {identity, identity};
    const std::string labels = R"(zendra_disk_firmware_info{software_id="HX 900",version="0102",serial="HX-1",)";
    EXPECT_EQ(Samples(Render(inventory), "zendra_disk_firmware_info"),
              Lines({labels + R"(ordinal="1"} 1)", labels + R"(ordinal="2"} 1)"}));
}

TEST(PrometheusOptical, EachCapabilityIsASampleOfItsOwn)
{
    using Property = ZDSystemDevice::OpticalProperty;
    const std::vector<std::pair<std::string Property::*, std::string>> capabilities = {
        {&Property::dvd_read_, "dvd_read"},       {&Property::mrw_r_, "mrw_read"},
        {&Property::cd_r_write_, "cd_r_write"},   {&Property::cd_rw_write_, "cd_rw_write"},
        {&Property::dvd_r_write_, "dvd_r_write"}, {&Property::dvd_ram_write_, "dvd_ram_write"},
        {&Property::mrw_w_, "mrw_write"},         {&Property::ram_w_, "ram_write"}};
    const std::string labels = R"({drive="/dev/sr0",vendor="QEMU",product="DVD",ordinal="1")";
    for (const auto& [field, word] : capabilities) {
        Property drive;
        drive.drive_name_ = "/dev/sr0";
        drive.vendor_ = "QEMU    ";
        drive.product_ = "DVD";
        drive.*field = "Yes";
        Inventory inventory;
        inventory.drives = {drive};
        const std::string text = Render(inventory);
        EXPECT_EQ(Samples(text, "zendra_optical_drive_info"), Lines({"zendra_optical_drive_info" + labels + "} 1"}));
        Lines expected;
        for (const auto& other : capabilities) {
            expected.push_back("zendra_optical_capability" + labels + ",capability=\"" + other.second + "\"} " +
                               (other.second == word ? "1" : "0"));
        }
        EXPECT_EQ(Samples(text, "zendra_optical_capability"), expected);
    }
}

TEST(PrometheusOptical, SeveralDrivesInOneRecordHaveNoCapability)
{
    ZDSystemDevice::OpticalProperty drives;
    drives.drive_name_ = "/dev/sr1\tsr0";
    Inventory inventory;
    inventory.drives = {drives};
    const std::string text = Render(inventory);
    EXPECT_EQ(Samples(text, "zendra_optical_drive_info"),
              Lines({R"(zendra_optical_drive_info{drive="/dev/sr1\\x09sr0",vendor="",product="",ordinal="1"} 1)"}));
    EXPECT_EQ(Samples(text, "zendra_optical_capability"), Lines());
}

TEST(PrometheusScans, SayWhatWasAnsweredAndHowLongItTook)
{
    Inventory inventory;
    QuestionOutcome tape{{ZDSystemDevice::SYS_DEVICE_TAPE}, 6U, {}};
    tape.elapsed = std::chrono::nanoseconds(456700);
    QuestionOutcome disk{{ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE}, {}, "late"};
    disk.elapsed = std::chrono::seconds(20);
    inventory.questions = {tape, disk};
    const std::string text = Render(inventory);
    EXPECT_EQ(Samples(text, "zendra_device_scan_complete"),
              Lines({R"(zendra_device_scan_complete{class="tape",asked="devices"} 1)",
                     R"(zendra_device_scan_complete{class="disk",asked="devices"} 0)"}));
    EXPECT_EQ(Samples(text, "zendra_device_scan_status"),
              Lines({R"(zendra_device_scan_status{class="tape",asked="devices"} 6)"}));
    EXPECT_EQ(Samples(text, "zendra_device_scan_seconds"),
              Lines({R"(zendra_device_scan_seconds{class="tape",asked="devices"} 0.000457)",
                     R"(zendra_device_scan_seconds{class="disk",asked="devices"} 20.000000)"}));
}

TEST(PrometheusDocument, HasNoFamilyForWhatWasNotAskedFor)
{
    const std::string text = Render({});
    for (const char* family : {"zendra_device_info", "zendra_disk_firmware_info", "zendra_optical"}) {
        EXPECT_EQ(text.find(family), std::string::npos) << text;
    }
    EXPECT_EQ(text.substr(text.size() - std::string(ending).size()), ending);
}

TEST(PrometheusDocument, HasHeadingsForWhatIsNotThere)
{
    Inventory inventory;
    inventory.devices.emplace();
    inventory.firmware.emplace();
    inventory.drives.emplace();
    const std::string text = Render(inventory);
    for (const char* family : {"zendra_device_info", "zendra_disk_firmware_info", "zendra_optical_drive_info",
                               "zendra_optical_capability"}) {
        EXPECT_NE(text.find("# TYPE " + std::string(family) + " gauge\n"), std::string::npos) << text;
    }
}

TEST(PrometheusDocument, IsVisibleUtf8WithUniqueSamplesWhateverTheDevicesSay)
{
    HostileTexts texts(5);
    for (int i = 0; i < 1000; ++i) {
        Inventory inventory;
        StorageDevice device;
        static_cast<ZDSystemDevice::SystemDevice&>(device) = HostileDevice(texts);
        device.wwn = texts.Next();
        StorageDevice other;
        static_cast<ZDSystemDevice::SystemDevice&>(other) = HostileDevice(texts);
        inventory.devices = {device, other, device};
        inventory.missing = {{texts.Next(), Reason::Busy, 0, texts.Next(), {}}};
        inventory.firmware = {HostileIdentity(texts), HostileIdentity(texts)};
        inventory.drives = {HostileDrive(texts), HostileDrive(texts)};
        const std::string text = Render(inventory);
        EXPECT_EQ(ValidUtf8(text), text);
        for (const char c : text) {
            ASSERT_TRUE((static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) || c == '\n') << text;
        }
        for (const char* family : {"zendra_device_info", "zendra_disk_firmware_info", "zendra_optical_drive_info"}) {
            const Lines samples = Samples(text, family);
            EXPECT_EQ(samples.size(), family == std::string("zendra_device_info") ? 3U : 2U) << text;
            EXPECT_EQ(std::set<std::string>(samples.begin(), samples.end()).size(), samples.size()) << text;
        }
        // Every line is a comment or a sample: no text has broken out of its line.
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            EXPECT_EQ(std::min(line.find("zendra_"), line.find("# ")), 0U) << line;
        }
    }
}

}  // namespace
}  // namespace Zendra::ZDDevices
