#include <algorithm>
#include <cwchar>
#include <nlohmann/json.hpp>
#include <sstream>
#include <tuple>

#include "toolTests.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/records/report.h"

namespace Zendra::ZDDevices {
namespace {

using ZDSystemDevice::SystemDevice;

SystemDevice Disk()
{
    SystemDevice disk;
    disk.vendor = "QEMU    ";
    disk.product = " QEMU HARDDISK ";
    disk.device_type = "Direct Access Device";
    disk.serial_number = "drive-scsi0-0-0-0-serial";
    disk.firmware_revision = "2.5+";
    disk.port = "10";
    disk.target = "3";
    disk.bus = "1";
    disk.lun = "16384";
    return disk;
}

/** The table, as wide as it likes to be. */
template <typename Record>
std::string TableText(const std::vector<Record>& records, const std::vector<std::string>& headings = {})
{
    return RenderTable(TableOf(records, headings), 0);
}

/** What the document holds of a record, as another library than the program's reads it. */
template <typename Record>
nlohmann::ordered_json ObjectOf(const Record& record)
{
    const Report<Record> report = {0, {record}, {}, {}, {}};
    const auto document = nlohmann::ordered_json::parse(RenderJson(report, {"host", "2024-02-29T12:00:00Z"}));
    return document.at(KindOf<Record>().recordsKey).at(0);
}

/** What stands for a record's text. */
nlohmann::ordered_json ExpectedText(const std::string& text)
{
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(ValidUtf8(text));
}

nlohmann::ordered_json PortOf(const std::string& port)
{
    SystemDevice device;
    device.port = port;
    return ObjectOf(device).at("port");
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

int Width(const std::string& line)
{
    std::wstring wide(line.size() + 1, L'\0');
    const std::size_t length = std::mbstowcs(wide.data(), line.c_str(), wide.size());
    return length == static_cast<std::size_t>(-1) ? -1 : wcswidth(wide.data(), length);
}

std::string AddressOf(const SystemDevice& device)
{
    return TableOf(std::vector<SystemDevice>{device}, {"ADDRESS"}).rows.at(0).at(0);
}

TEST(AddressColumn, IsPortBusTargetLun)
{
    EXPECT_EQ(AddressOf(Disk()), "10:1:3:16384");
}

TEST(AddressColumn, IsADashForFourEmptyFieldsAndForFourZeros)
{
    SystemDevice disk;
    EXPECT_EQ(AddressOf(disk), "-");
    disk.port = disk.target = disk.bus = disk.lun = "0";
    EXPECT_EQ(AddressOf(disk), "-");
}

TEST(AddressColumn, OneFieldOtherThanZeroIsAnAddress)
{
    SystemDevice disk;
    disk.port = disk.target = disk.bus = "0";
    disk.lun = "1";
    EXPECT_EQ(AddressOf(disk), "0:0:0:1");
    disk.bus.clear();
    EXPECT_EQ(AddressOf(disk), "0:-:0:1");
}

std::string WithSingleBlanks(const std::string& text)
{
    std::string one = text;
    const auto areBlanks = [](char left, char right) { return left == ' ' && right == ' '; };
    one.erase(std::unique(one.begin(), one.end(), areBlanks), one.end());
    return one;
}

TEST(DeviceTable, WithoutHeadingsIsTheSameButForTheFirstLine)
{
    const Table table = TableOf(std::vector<SystemDevice>{Disk(), SystemDevice()}, {"VENDOR", "PORT"});
    for (const std::size_t width : {0U, 80U}) {
        // A heading that is not shown takes no room.
        EXPECT_EQ("VENDOR PORT\n" + WithSingleBlanks(RenderTable(table, width, Headings::None)),
                  WithSingleBlanks(RenderTable(table, width)));
    }
}

/** A record of which every text is another. */
template <typename Record>
Record RecordOfDifferentTexts()
{
    Record record;
    int number = 0;
    for (const Field<Record>& field : MembersOf<Record>()) {
        record.*field.member = "f" + std::to_string(++number);
    }
    return record;
}

template <typename Record>
std::vector<std::string> AllCells()
{
    return TableOf<Record>({RecordOfDifferentTexts<Record>()}, HeadingsOf<Record>()).rows.at(0);
}

TEST(Columns, EveryTextOfEveryRecordHasOne)
{
    EXPECT_EQ(AllCells<SystemDevice>(),
              std::vector<std::string>({"f6:f8:f7:f9", "f3", "f1", "f2", "f5", "f4", "f6", "f8", "f7", "f9"}));
    EXPECT_EQ(AllCells<ZDSystemDevice::OpticalProperty>(),
              std::vector<std::string>({"f1", "f2", "f3", "-", "-", "f7", "f9", "f6", "f5", "f8", "f4", "f10", "f11"}));
    EXPECT_EQ(AllCells<DiskFirmware>(),
              std::vector<std::string>({"f23", "f24", "f25", "f21", "f10", "f6",  "f1",  "f2",  "f3",
                                        "f4",  "f5",  "f7",  "f8",  "f9",  "f11", "f12", "f13", "f14",
                                        "f15", "f16", "f17", "f18", "f19", "f20", "f22"}));
}

TEST(Members, AreInTheOrderOfTheRecordsDeclaration)
{
    const auto drive = RecordOfDifferentTexts<ZDSystemDevice::OpticalProperty>();
    EXPECT_EQ(drive.drive_name_ + drive.dvd_ram_write_ + drive.dvd_read_ + drive.ram_w_, "f1f4f7f11");
    const auto identity = RecordOfDifferentTexts<DiskFirmware>();
    EXPECT_EQ(identity.Description + identity.LastUpdateErrorString + identity.SerialNumber + identity.ExtraInfo,
              "f1f20f21f22");
}

TEST(Fields, NamedTwiceOrForgottenAreNoticed)
{
    using Device = Field<SystemDevice>;
    constexpr Device name = {{"A"}, "a", &SystemDevice::vendor};
    constexpr Device forgotten[] = {name};
    static_assert(!NameEachTextOnce(forgotten), "");
    constexpr Device twice[] = {name, name, name, name, name, name, name, name, name};
    static_assert(!NameEachTextOnce(twice), "");
}

TEST(DeviceTable, WideCharactersCountTwice)
{
    SystemDevice disk = Disk();
    disk.product = "日本日本日本日本日本日本日本日本日本日本日本日本日本日本日本日本";
    for (const std::string& line : Lines(RenderTable(TableOf(std::vector<SystemDevice>{disk, Disk()}, {}), 60))) {
        EXPECT_LE(Width(line), 60) << line;
    }
}

TEST(Table, BreaksBetweenWordsWhereItIsTooWideAndMakesTheColumnsWholeThatLackTheLeast)
{
    const Table table = {{{"KEPT"}, {"WORDS", 6}, {"CODE", 6}},
                         {{"123456789", "one two three", "ABCDEFGH"}, {"-", "-", "-"}}};
    EXPECT_EQ(RenderTable(table, 32), "KEPT      WORDS         CODE\n"
                                      "123456789 one two three ABCDEFGH\n"
                                      "-         -             -\n");
    EXPECT_EQ(RenderTable(table, 30), "KEPT      WORDS   CODE\n"
                                      "123456789 one two ABCDEFGH\n"
                                      "          three\n"
                                      "-         -       -\n");
    EXPECT_EQ(RenderTable(table, 23), "KEPT      WORDS CODE\n"
                                      "123456789 one   ABCDEF\n"
                                      "          two   GH\n"
                                      "          three\n"
                                      "-         -     -\n");
}

TEST(Table, HeadingsThatAreNotShownTakeNoRoom)
{
    const Table table = {{{"TRANSPORT"}, {"STATE"}, {"WORDS", 6}}, {{"sas", "-", "one two"}}};
    EXPECT_EQ(RenderTable(table, 13, Headings::None), "sas - one two\n");
    EXPECT_EQ(RenderTable(table, 0, Headings::None), "sas - one two\n");
}

TEST(Table, ThatDoesNotFitIsShownRowByRow)
{
    const Table table = {{{"KEPT"}, {"WORDS", 6}}, {{"123456789", "one two three"}, {"-", "-"}}};
    EXPECT_EQ(RenderTable(table, 15), "KEPT   12345678\n"
                                      "       9\n"
                                      "WORDS  one two\n"
                                      "       three\n"
                                      "\n"
                                      "KEPT   -\n"
                                      "WORDS  -\n");
    EXPECT_EQ(RenderTable(table, 15, Headings::None), "123456789\none two three\n\n-\n-\n");
    EXPECT_EQ(RenderTable({{{"CLASSIFICATIONS"}}, {{"123456789"}}}, 12),
              "CLASSIFICATIONS  12345678\n                 9\n");
}

TEST(FoldedLines, BreakBetweenWordsAndGoOnFurtherToTheRight)
{
    EXPECT_EQ(FoldedLines("one two three\n  - four five six\n\n", 0), "one two three\n  - four five six\n\n");
    EXPECT_EQ(FoldedLines("one two three\n  - four five six\n\n", 13), "one two three\n  - four\n    five six\n\n");
    EXPECT_EQ(FoldedLines("one-long-word", 3), "one-long\n  -word\n");
}

TEST(BrokenBetweenWords, CountsColumnsAndAlwaysComesToAnEnd)
{
    using Lines = std::vector<std::string>;
    EXPECT_EQ(BrokenBetweenWords("", 5), Lines({""}));
    EXPECT_EQ(BrokenBetweenWords("\u65e5\u672c\u65e5", 5), Lines({"\u65e5\u672c", "\u65e5"}));
    EXPECT_EQ(BrokenBetweenWords("\u65e5\u672c", 1), Lines({"\u65e5", "\u672c"}));
    EXPECT_EQ(BrokenBetweenWords("ab  cd", 3), Lines({"ab ", "cd"}));
    EXPECT_EQ(BrokenBetweenWords("ab cd", 2), Lines({"ab", "cd"}));
}

/** A heading and a line for each of two records, of printable characters only. */
template <typename Record>
void ExpectHarmlessTable(const std::vector<Record>& records, const std::vector<std::string>& headings = {})
{
    const Table cells = TableOf(records, headings);
    const std::string whole = RenderTable(cells, 0);
    EXPECT_EQ(Lines(whole).size(), 3U) << whole;
    for (const std::string& table : {whole, RenderTable(cells, 80)}) {
        for (const std::string& line : Lines(table)) {
            EXPECT_GE(Width(line), 0) << line;
            for (const char c : line) {
                EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) << line;
            }
        }
    }
}

TEST(Table, HostileTextsNeverLeaveTheirLines)
{
    HostileTexts texts(3);
    for (const char* locale : {"C.UTF-8", "C"}) {
        const CharacterSet characters(locale);
        for (int i = 0; i < 500; ++i) {
            ExpectHarmlessTable<SystemDevice>({HostileDevice(texts), HostileDevice(texts)});
            ExpectHarmlessTable<ZDSystemDevice::OpticalProperty>({HostileDrive(texts), HostileDrive(texts)});
            const std::vector<DiskFirmware> identities = {HostileIdentity(texts), HostileIdentity(texts)};
            ExpectHarmlessTable(identities, {"NAME", "SERIAL", "SOFTWARE-ID"});
            ExpectHarmlessTable(identities);
        }
    }
}

TEST(DeviceJson, ZerosAndTheLargestNumberAreNumbers)
{
    EXPECT_EQ(PortOf("0"), 0);
    EXPECT_EQ(PortOf("65535"), 65535);
}

TEST(DeviceJson, WhatIsNoNumberIsNull)
{
    for (const char* field : {"", "x", "1x", " 1", "-1", "18446744073709551616", "0x1"}) {
        EXPECT_TRUE(PortOf(field).is_null()) << field;
    }
}

TEST(DeviceJson, BlankTextIsNotAnEmptyText)
{
    SystemDevice device;
    device.vendor = "  ";
    EXPECT_EQ(ObjectOf(device).at("vendor"), "  ");
}

TEST(JsonWriter, EscapesWhatIsNotPrintableAscii)
{
    EXPECT_EQ(ToJson([](JsonWriter& json) { WriteText(json, "\"\\/\b\f\n\r\t\x01\x7f\u00e9\u2028\U0001f4be\xff"); }),
              R"("\"\\/\b\f\n\r\t\u0001\u007F\u00E9\u2028\uD83D\uDCBE\uFFFD")"
              "\n");
}

TEST(JsonDocument, IsIndentedByTwoBlanks)
{
    const std::string document = RenderDocument("s", {"h", "t"}, [](JsonWriter& json) {
        json.Key("list");
        json.StartArray();
        WriteText(json, "");
        json.Double(10);
        json.EndArray();
        WriteRecordText(json, "text", "");
    });
    EXPECT_EQ(document, R"({
  "schema": "s",
  "host": "h",
  "collected_at": "t",
  "list": [
    "",
    10.0
  ],
  "text": null
}
)");
}

template <typename Record>
void ExpectHarmlessDocument(const Record& record, const std::string& host)
{
    const Report<Record> report = {0, {record}, {}, {}, {}};
    const std::string text = RenderJson(report, {host, "2024-02-29T12:00:00Z"});
    for (const char c : text) {
        ASSERT_TRUE((c >= 0x20 && c < 0x7f) || c == '\n') << text;
    }
    const auto document = nlohmann::ordered_json::parse(text);
    EXPECT_EQ(document.at("host"), ValidUtf8(host));
    for (const Field<Record>& field : MembersOf<Record>()) {
        if (field.key != nullptr && field.content != Content::Number) {
            EXPECT_EQ(document.at(KindOf<Record>().recordsKey).at(0).at(field.key),
                      ExpectedText(TextOf(record, field)));
        }
    }
}

TEST(JsonDocument, IsAsciiWithoutControlCharactersAndParsesWhateverTheDevicesSay)
{
    HostileTexts texts(4);
    for (int i = 0; i < 2000; ++i) {
        ExpectHarmlessDocument(HostileDevice(texts), texts.Next());
        ExpectHarmlessDocument(HostileDrive(texts), texts.Next());
        ExpectHarmlessDocument(HostileIdentity(texts), texts.Next());
    }
}

TEST(NothingFound, NamesTheClassThatWasAsked)
{
    EXPECT_EQ(DescribeDevices<StorageDevice>(0, {}, std::nullopt).nothingFound, "No storage devices found.");
    EXPECT_EQ(DescribeDevices<StorageDevice>(6, {}, ZDSystemDevice::SYS_DEVICE_TAPE).nothingFound,
              "No tape drives found.");
    EXPECT_EQ(DescribeDevices<StorageDevice>(6, {}, ZDSystemDevice::SYS_DEVICE_SCSI).nothingFound,
              "No generic SCSI devices found.");
    EXPECT_EQ(DescribeDevices<StorageDevice>(6, {}, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE).nothingFound,
              "No disks found.");
    EXPECT_EQ(DescribeDevices<StorageDevice>(6, {}, ZDSystemDevice::SYS_DEVICE_CDDVD).nothingFound,
              "No optical drives found.");
    EXPECT_EQ(DescribeOptical(6, {}).nothingFound, "No optical drives found.");
    EXPECT_EQ(DescribeFirmware(6, {}).nothingFound, "No disk firmware found.");
}

ZDSystemDevice::OpticalProperty Drive()
{
    ZDSystemDevice::OpticalProperty drive;
    drive.drive_name_ = "/dev/sr0";
    drive.vendor_ = "QEMU    ";
    drive.product_ = "QEMU DVD-ROM    ";
    return drive;
}

TEST(Optical, TableSaysWhatTheDriveReadsAndWrites)
{
    ZDSystemDevice::OpticalProperty drive = Drive();
    drive.dvd_read_ = drive.mrw_r_ = drive.cd_r_write_ = drive.cd_rw_write_ = drive.dvd_r_write_ = "Yes";
    drive.dvd_ram_write_ = drive.mrw_w_ = drive.ram_w_ = "Yes";
    EXPECT_EQ(TableText<ZDSystemDevice::OpticalProperty>({drive, Drive()}),
              "DRIVE    VENDOR PRODUCT      READS   WRITES\n"
              "/dev/sr0 QEMU   QEMU DVD-ROM DVD MRW CD-R CD-RW DVD-R DVD-RAM MRW RAM\n"
              "/dev/sr0 QEMU   QEMU DVD-ROM -       -\n");
}

TEST(Optical, EachCapabilityHasItsOwnWordAndKey)
{
    using Property = ZDSystemDevice::OpticalProperty;
    const std::vector<std::tuple<std::string Property::*, std::size_t, std::string, std::string>> capabilities = {
        {&Property::dvd_ram_write_, 4, "DVD-RAM", "dvd_ram_write"},
        {&Property::cd_rw_write_, 4, "CD-RW", "cd_rw_write"},
        {&Property::cd_r_write_, 4, "CD-R", "cd_r_write"},
        {&Property::dvd_read_, 3, "DVD", "dvd_read"},
        {&Property::dvd_r_write_, 4, "DVD-R", "dvd_r_write"},
        {&Property::mrw_r_, 3, "MRW", "mrw_r"},
        {&Property::mrw_w_, 4, "MRW", "mrw_w"},
        {&Property::ram_w_, 4, "RAM", "ram_w"}};
    for (const auto& [field, column, word, key] : capabilities) {
        ZDSystemDevice::OpticalProperty drive = Drive();
        drive.*field = "Yes";
        const std::vector<std::string> row = TableOf(std::vector<Property>{drive}, {}).rows.at(0);
        EXPECT_EQ(row.at(column), word);
        EXPECT_EQ(row.at(column == 3 ? 4 : 3), "-");
        nlohmann::ordered_json object = ObjectOf(drive);
        EXPECT_EQ(object.at(key), "Yes") << key;
        object[key] = "No";
        EXPECT_EQ(object.dump(), R"({"drive_name":"/dev/sr0","vendor":"QEMU    ","product":"QEMU DVD-ROM    ",)"
                                 R"("dvd_ram_write":"No","cd_rw_write":"No","cd_r_write":"No","dvd_read":"No",)"
                                 R"("dvd_r_write":"No","mrw_r":"No","mrw_w":"No","ram_w":"No"})");
    }
}

TEST(Optical, SeveralDrivesInOneRecordAreRemarkedOn)
{
    ZDSystemDevice::OpticalProperty drives = Drive();
    EXPECT_EQ(DescribeOptical(0, {drives}).remark, "");
    drives.drive_name_ = "/dev/sr1\tsr0";
    EXPECT_NE(DescribeOptical(0, {drives}).remark.find("several optical drives"), std::string::npos);
}

TEST(Firmware, KeysAreThePropertyNamesInOrderAndThenWhichDiskItIs)
{
    const auto object = ObjectOf(DiskFirmware());
    std::vector<std::string> keys;
    for (const auto& item : object.items()) {
        keys.push_back(item.key());
    }
    std::vector<std::string> expected(std::begin(ZDOptions::SoftwareIdentityPropertyNames),
                                      std::end(ZDOptions::SoftwareIdentityPropertyNames));
    expected.insert(expected.end(), {"SerialNumber", "device", "model", "revision"});
    EXPECT_EQ(keys, expected);
    EXPECT_EQ(object.at("IsPLDMUpdateSupported"), "0");
    EXPECT_TRUE(object.at("Name").is_null());
}

TEST(Status, EveryCodeHasItsName)
{
    EXPECT_EQ(StatusName(0), "DEVICE_RESULT_OK");
    EXPECT_EQ(StatusName(2), "DEV_OPEN_OK");
    EXPECT_EQ(StatusName(3), "DEV_OPEN_FAILED");
    EXPECT_EQ(StatusName(4), "DEV_SUCCESS");
    EXPECT_EQ(StatusName(5), "DEV_FAILURE");
    EXPECT_EQ(StatusName(6), "DEVICE_RESULT_NONE");
    EXPECT_EQ(StatusName(1), "UNKNOWN");
    EXPECT_EQ(StatusName(0xFFFFFFFFU), "UNKNOWN");
}

TEST(Status, OnlyTheAnswersOfAListOperationMeanThatTheScanRan)
{
    for (const unsigned int status : {0U, 4U, 6U}) {
        EXPECT_TRUE(ScanRan(status)) << status;
    }
    for (const unsigned int status : {1U, 2U, 3U, 5U, 7U, 0xFFFFFFFFU}) {
        EXPECT_FALSE(ScanRan(status)) << status;
    }
}

}  // namespace
}  // namespace Zendra::ZDDevices
