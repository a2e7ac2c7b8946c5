#include <cwchar>
#include <functional>
#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "toolTests.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/deviceReport.h"
#include "tools/zddevices/records/firmwareReport.h"
#include "tools/zddevices/records/opticalReport.h"
#include "tools/zddevices/records/status.h"

// Sanitizers end a program that asks for more memory than there can be.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define MALLOC_MAY_FAIL
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#undef MALLOC_MAY_FAIL
#endif
#endif

namespace Zendra {
namespace ZDDevices {
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

Report Describe(const std::vector<SystemDevice>& devices)
{
    return DescribeDevices(ZDSystemDevice::DEVICE_RESULT_OK, devices, std::nullopt);
}

/** What that writes, as another library than the program's reads it. */
nlohmann::ordered_json Parsed(const std::function<void(JsonWriter& json)>& write)
{
    JsonWriter json;
    write(json);
    return nlohmann::ordered_json::parse(json.Document());
}

nlohmann::ordered_json RecordsOf(const Report& report)
{
    return Parsed(report.records);
}

/** What stands for a record's text. */
nlohmann::ordered_json ExpectedText(const std::string& text)
{
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(ValidUtf8(text));
}

nlohmann::ordered_json AddressNumber(const std::string& field)
{
    return Parsed([&field](JsonWriter& json) { json.AddressNumber(field); });
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

TEST(AddressCell, IsPortBusTargetLun)
{
    EXPECT_EQ(AddressCell(Disk()), "10:1:3:16384");
}

TEST(AddressCell, IsADashForFourEmptyFieldsAndForFourZeros)
{
    SystemDevice disk;
    EXPECT_EQ(AddressCell(disk), "-");
    disk.port = disk.target = disk.bus = disk.lun = "0";
    EXPECT_EQ(AddressCell(disk), "-");
}

TEST(AddressCell, OneFieldOtherThanZeroIsAnAddress)
{
    SystemDevice disk;
    disk.port = disk.target = disk.bus = "0";
    disk.lun = "1";
    EXPECT_EQ(AddressCell(disk), "0:0:0:1");
}

TEST(DeviceTable, HasHeadingsAndTrimmedCells)
{
    SystemDevice empty;
    EXPECT_EQ(RenderTable(Describe({Disk(), empty}).sheet({}), 0),
              "ADDRESS      TYPE                 VENDOR PRODUCT       FIRMWARE SERIAL\n"
              "10:1:3:16384 Direct Access Device QEMU   QEMU HARDDISK 2.5+     drive-scsi0-0-0-0-serial\n"
              "-            -                    -      -             -        -\n");
}

TEST(DeviceTable, TakesTheColumnsThatAreAskedFor)
{
    EXPECT_EQ(RenderTable(Describe({Disk()}).sheet({"LUN", "SERIAL", "LUN", "PORT", "BUS", "TARGET"}), 0),
              "LUN   SERIAL                   LUN   PORT BUS TARGET\n"
              "16384 drive-scsi0-0-0-0-serial 16384 10   1   3\n");
    EXPECT_EQ(RenderTable(Describe({SystemDevice()}).sheet({"PORT", "VENDOR"}), 0), "PORT VENDOR\n-    -\n");
}

TEST(DeviceTable, WithoutHeadingsIsTheSameButForTheFirstLine)
{
    const Sheet sheet = Describe({Disk(), SystemDevice()}).sheet({"VENDOR", "PORT"});
    for (const std::size_t width : {0U, 80U}) {
        EXPECT_EQ("VENDOR PORT\n" + RenderTable(sheet, width, Headings::Left), RenderTable(sheet, width));
    }
}

TEST(Columns, EveryFieldOfEveryRecordHasOne)
{
    SystemDevice device;
    device.vendor = "f1";
    device.product = "f2";
    device.device_type = "f3";
    device.serial_number = "f4";
    device.firmware_revision = "f5";
    device.port = "f6";
    device.target = "f7";
    device.bus = "f8";
    device.lun = "f9";
    EXPECT_EQ(Describe({device}).sheet(DeviceColumnNames()).rows.at(0),
              std::vector<std::string>({"f6:f8:f7:f9", "f3", "f1", "f2", "f5", "f4", "f6", "f8", "f7", "f9"}));

    ZDSystemDevice::OpticalProperty drive;
    drive.drive_name_ = "f1";
    drive.vendor_ = "f2";
    drive.product_ = "f3";
    drive.dvd_ram_write_ = "f4";
    drive.cd_rw_write_ = "f5";
    drive.cd_r_write_ = "f6";
    drive.dvd_read_ = "f7";
    drive.dvd_r_write_ = "f8";
    drive.mrw_r_ = "f9";
    drive.mrw_w_ = "f10";
    drive.ram_w_ = "f11";
    EXPECT_EQ(DescribeOptical(0, {drive}).sheet(OpticalColumnNames()).rows.at(0),
              std::vector<std::string>({"f1", "f2", "f3", "-", "-", "f7", "f9", "f6", "f5", "f8", "f4", "f10", "f11"}));

    ZDOptions::SoftwareIdentity_ identity;
    identity.Description = "f1";
    identity.ElementName = "f2";
    identity.ProductName = "f3";
    identity.Manufacturer = "f4";
    identity.Name = "f5";
    identity.VersionString = "f6";
    identity.Classifications = "f7";
    identity.ClassificationDescriptions = "f8";
    identity.IdentityInfoValue = "f9";
    identity.SoftwareID = "f10";
    identity.SubDeviceID = "f11";
    identity.ReleaseDate = "f12";
    identity.SoftwareStatus = "f13";
    identity.SoftwareRole = "f14";
    identity.IdentityInfoType = "f15";
    identity.IsPLDMUpdateSupported = "f16";
    identity.InstanceID = "f17";
    identity.AssociatedAdapterSlot = "f18";
    identity.LastUpdateError = "f19";
    identity.LastUpdateErrorString = "f20";
    identity.SerialNumber = "f21";
    identity.ExtraInfo = "f22";
    EXPECT_EQ(DescribeFirmware(0, {identity}).sheet(FirmwareColumnNames()).rows.at(0),
              std::vector<std::string>({"f10", "f6",  "f21", "f1",  "f2",  "f3",  "f4",  "f5",  "f7",  "f8",  "f9",
                                        "f11", "f12", "f13", "f14", "f15", "f16", "f17", "f18", "f19", "f20", "f22"}));
}

TEST(DeviceTable, WithoutATerminalEveryRowIsOneWholeLine)
{
    SystemDevice disk = Disk();
    disk.product = std::string(300, 'P');
    disk.serial_number = std::string(300, 'S');
    const std::vector<std::string> lines = Lines(RenderTable(Describe({disk, disk}).sheet({}), 0));
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_NE(lines[1].find(disk.product), std::string::npos);
    EXPECT_NE(lines[2].find(disk.serial_number), std::string::npos);
}

TEST(DeviceTable, OnATerminalLinesFitAndSerialNumbersStayWhole)
{
    SystemDevice disk = Disk();
    disk.serial_number = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    for (const std::size_t width : {60U, 80U, 132U, 200U}) {
        const std::string table = RenderTable(Describe({disk}).sheet({}), width);
        const std::vector<std::string> lines = Lines(table);
        const std::size_t column = lines.at(0).find("SERIAL");
        ASSERT_NE(column, std::string::npos);
        std::string serial;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            EXPECT_LE(Width(lines[i]), static_cast<int>(width)) << table;
            EXPECT_TRUE(lines[i].empty() || lines[i].back() != ' ') << table;
            if (i > 0 && lines[i].size() > column) {
                serial += lines[i].substr(column);
            }
        }
        EXPECT_EQ(serial, disk.serial_number) << table;
    }
}

TEST(DeviceTable, WideCharactersCountTwice)
{
    SystemDevice disk = Disk();
    disk.product = "日本日本日本日本日本日本日本日本日本日本日本日本日本日本日本日本";
    for (const std::string& line : Lines(RenderTable(Describe({disk, Disk()}).sheet({}), 60))) {
        EXPECT_LE(Width(line), 60) << line;
    }
}

/** A heading and a line for each of two records, of printable characters only. */
void ExpectHarmlessTable(const Sheet& sheet)
{
    const std::string whole = RenderTable(sheet, 0);
    EXPECT_EQ(Lines(whole).size(), 3U) << whole;
    for (const std::string& table : {whole, RenderTable(sheet, 80)}) {
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
            ExpectHarmlessTable(Describe({HostileDevice(texts), HostileDevice(texts)}).sheet({}));
            ExpectHarmlessTable(DescribeFirmware(0, {HostileIdentity(texts), HostileIdentity(texts)})
                                    .sheet({"NAME", "SERIAL", "SOFTWARE-ID"}));
            ExpectHarmlessTable(DescribeOptical(0, {HostileDrive(texts), HostileDrive(texts)}).sheet({}));
            ExpectHarmlessTable(DescribeFirmware(0, {HostileIdentity(texts), HostileIdentity(texts)}).sheet({}));
        }
    }
}

TEST(DeviceJson, HoldsTheFieldsInTheOrderOfTheRecordAndUntrimmed)
{
    const Report report = Describe({Disk()});
    EXPECT_EQ(RecordsOf(report).dump(),
              R"([{"vendor":"QEMU    ","product":" QEMU HARDDISK ","device_type":"Direct Access Device",)"
              R"("serial_number":"drive-scsi0-0-0-0-serial","firmware_revision":"2.5+","port":10,"target":3,"bus":1,)"
              R"("lun":16384}])");
}

TEST(DeviceJson, EmptyTextsAndAddressFieldsAreNull)
{
    EXPECT_EQ(RecordsOf(Describe({SystemDevice()})).dump(),
              R"([{"vendor":null,"product":null,"device_type":null,"serial_number":null,"firmware_revision":null,)"
              R"("port":null,"target":null,"bus":null,"lun":null}])");
}

TEST(DeviceJson, ZerosAndTheLargestNumberAreNumbers)
{
    EXPECT_EQ(AddressNumber("0"), 0);
    EXPECT_EQ(AddressNumber("65535"), 65535);
}

TEST(DeviceJson, WhatIsNoAddressNumberIsNull)
{
    for (const char* field : {"", "x", "1x", " 1", "-1", "65536", "0x1"}) {
        EXPECT_TRUE(AddressNumber(field).is_null()) << field;
    }
}

TEST(DeviceJson, BlankTextIsNotAnEmptyText)
{
    EXPECT_EQ(Parsed([](JsonWriter& json) { json.RecordText("  "); }), "  ");
}

TEST(JsonWriter, EveryByteAtEveryPlaceIsReadBackAsItWas)
{
    constexpr int bytes = 256;
    constexpr std::size_t longest = 19;
    for (int byte = 0; byte < bytes; ++byte) {
        for (std::size_t size = 1; size <= longest; ++size) {
            for (std::size_t place = 0; place < size; ++place) {
                std::string text(size, 'x');
                text[place] = static_cast<char>(byte);
                JsonWriter json;
                json.Text(text);
                const std::string document = json.Document();
                for (const char c : document.substr(0, document.size() - 1)) {
                    ASSERT_TRUE(c >= 0x20 && c < 0x7f) << document;
                }
                ASSERT_EQ(nlohmann::json::parse(document), ValidUtf8(text)) << document;
            }
        }
    }
}

TEST(JsonWriter, EscapesWhatIsNotPrintableAscii)
{
    JsonWriter json;
    json.Text("\"\\/\b\f\n\r\t\x01\x7f\u00e9\u2028\U0001f4be\xff");
    EXPECT_EQ(json.Document(), R"("\"\\/\b\f\n\r\t\u0001\u007F\u00E9\u2028\uD83D\uDCBE\uFFFD")"
                               "\n");
}

TEST(JsonWriter, IndentsByTwoBlanks)
{
    JsonWriter json;
    json.BeginObject();
    json.Key("list");
    json.BeginArray();
    json.Number(-1);
    json.Number(4294967295U);
    json.Number(1.5);
    json.Number(10.0);
    json.Boolean(true);
    json.Boolean(false);
    json.Null();
    json.Text("");
    json.RecordText("");
    json.EndArray();
    json.Key("empty list");
    json.BeginArray();
    json.EndArray();
    json.Key("empty object");
    json.BeginObject();
    json.EndObject();
    json.EndObject();
    EXPECT_EQ(json.Document(), "{\n"
                               "  \"list\": [\n"
                               "    -1,\n"
                               "    4294967295,\n"
                               "    1.5,\n"
                               "    10.0,\n"
                               "    true,\n"
                               "    false,\n"
                               "    null,\n"
                               "    \"\",\n"
                               "    null\n"
                               "  ],\n"
                               "  \"empty list\": [],\n"
                               "  \"empty object\": {}\n"
                               "}\n");
}

TEST(JsonWriter, ATextTooLongToBeCountedIsRefused)
{
    EXPECT_EQ(JsonSize(268435456), 268435456U);
    EXPECT_THROW(JsonSize(268435457), std::length_error);
}

#ifdef MALLOC_MAY_FAIL
TEST(JsonMemory, ThatRunsOutIsNoticed)
{
    constexpr std::size_t moreThanThereIs = std::numeric_limits<std::size_t>::max() / 2;
    // Volatile, or a compiler may leave out the allocation that nothing uses.
    void* volatile block = nullptr;
    EXPECT_THROW(block = JsonMemory::Malloc(moreThanThereIs), std::bad_alloc);
    block = JsonMemory::Malloc(1);
    *static_cast<char*>(block) = 'x';
    EXPECT_THROW(block = JsonMemory::Realloc(block, 1, moreThanThereIs), std::bad_alloc);
    EXPECT_EQ(*static_cast<char*>(block), 'x');
    EXPECT_EQ(JsonMemory::Realloc(block, 1, 0), nullptr);
}
#endif

TEST(JsonDocument, IsCompleteWithoutDevices)
{
    const Report report = DescribeDevices(ZDSystemDevice::DEVICE_RESULT_NONE, {}, ZDSystemDevice::SYS_DEVICE_TAPE);
    const auto document = nlohmann::ordered_json::parse(RenderJson(report, {"host", "2024-02-29T12:00:00Z"}));
    EXPECT_EQ(document.dump(), R"({"schema":"zddevices/1","host":"host","collected_at":"2024-02-29T12:00:00Z",)"
                               R"("status":{"code":6,"name":"DEVICE_RESULT_NONE"},"complete":true,"devices":[]})");
}

TEST(JsonDocument, IsAsciiWithoutControlCharactersAndParsesWhateverTheDevicesSay)
{
    HostileTexts texts(4);
    for (int i = 0; i < 2000; ++i) {
        const SystemDevice device = HostileDevice(texts);
        const ZDOptions::SoftwareIdentity_ identity = HostileIdentity(texts);
        for (const Report& report :
             {Describe({device}), DescribeOptical(0, {HostileDrive(texts)}), DescribeFirmware(0, {identity})}) {
            const std::string text = RenderJson(report, {texts.Next(), "2024-02-29T12:00:00Z"});
            for (const char c : text) {
                ASSERT_TRUE((c >= 0x20 && c < 0x7f) || c == '\n') << text;
            }
            const auto document = nlohmann::ordered_json::parse(text);
            EXPECT_EQ(document.at(report.recordsKey), RecordsOf(report));
            for (const char c : report.remark) {
                EXPECT_TRUE(c >= 0x20 && c < 0x7f) << report.remark;
            }
        }
        EXPECT_EQ(RecordsOf(Describe({device})).at(0).at("serial_number"), ExpectedText(device.serial_number));
        EXPECT_EQ(RecordsOf(DescribeFirmware(0, {identity})).at(0).at("VersionString"),
                  ExpectedText(identity.VersionString));
    }
}

TEST(NothingFound, NamesTheClassThatWasAsked)
{
    EXPECT_EQ(DescribeDevices(0, {}, std::nullopt).nothingFound, "No storage devices found.");
    EXPECT_EQ(DescribeDevices(6, {}, ZDSystemDevice::SYS_DEVICE_TAPE).nothingFound, "No tape drives found.");
    EXPECT_EQ(DescribeDevices(6, {}, ZDSystemDevice::SYS_DEVICE_SCSI).nothingFound, "No generic SCSI devices found.");
    EXPECT_EQ(DescribeDevices(6, {}, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE).nothingFound, "No disks found.");
    EXPECT_EQ(DescribeDevices(6, {}, ZDSystemDevice::SYS_DEVICE_CDDVD).nothingFound, "No optical drives found.");
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
    EXPECT_EQ(RenderTable(DescribeOptical(0, {drive, Drive()}).sheet({}), 0),
              "DRIVE    VENDOR PRODUCT      READS   WRITES\n"
              "/dev/sr0 QEMU   QEMU DVD-ROM DVD MRW CD-R CD-RW DVD-R DVD-RAM MRW RAM\n"
              "/dev/sr0 QEMU   QEMU DVD-ROM -       -\n");
}

TEST(Optical, EachCapabilityHasItsOwnWordAndKey)
{
    using Property = ZDSystemDevice::OpticalProperty;
    const std::vector<std::tuple<std::string Property::*, std::size_t, std::string, std::string>> capabilities = {
        {&Property::dvd_ram_write_, 4, "DVD-RAM", "dvd_ram_write_"},
        {&Property::cd_rw_write_, 4, "CD-RW", "cd_rw_write_"},
        {&Property::cd_r_write_, 4, "CD-R", "cd_r_write_"},
        {&Property::dvd_read_, 3, "DVD", "dvd_read_"},
        {&Property::dvd_r_write_, 4, "DVD-R", "dvd_r_write_"},
        {&Property::mrw_r_, 3, "MRW", "mrw_r_"},
        {&Property::mrw_w_, 4, "MRW", "mrw_w_"},
        {&Property::ram_w_, 4, "RAM", "ram_w_"}};
    for (const auto& [field, column, word, key] : capabilities) {
        ZDSystemDevice::OpticalProperty drive = Drive();
        drive.*field = "Yes";
        const Report report = DescribeOptical(0, {drive});
        EXPECT_EQ(report.sheet({}).rows.at(0).at(column), word);
        EXPECT_EQ(report.sheet({}).rows.at(0).at(column == 3 ? 4 : 3), "-");
        nlohmann::ordered_json object = RecordsOf(report).at(0);
        EXPECT_EQ(object.at(key), "Yes") << key;
        object[key] = "No";
        EXPECT_EQ(object.dump(), R"({"drive_name_":"/dev/sr0","vendor_":"QEMU    ","product_":"QEMU DVD-ROM    ",)"
                                 R"("dvd_ram_write_":"No","cd_rw_write_":"No","cd_r_write_":"No","dvd_read_":"No",)"
                                 R"("dvd_r_write_":"No","mrw_r_":"No","mrw_w_":"No","ram_w_":"No"})");
    }
}

TEST(Optical, SeveralDrivesInOneRecordAreRemarkedOn)
{
    ZDSystemDevice::OpticalProperty drives = Drive();
    EXPECT_EQ(DescribeOptical(0, {drives}).remark, "");
    drives.drive_name_ = "/dev/sr1\tsr0";
    EXPECT_NE(DescribeOptical(0, {drives}).remark.find("several optical drives"), std::string::npos);
}

TEST(Firmware, TableHoldsIdVersionAndSerial)
{
    ZDOptions::SoftwareIdentity_ identity;
    identity.SoftwareID = identity.Name = "QEMU HARDDISK";
    identity.VersionString = " 2.5+ \x06";
    identity.SerialNumber = "QM00001 ";
    EXPECT_EQ(RenderTable(DescribeFirmware(0, {identity, ZDOptions::SoftwareIdentity_()}).sheet({}), 0),
              "SOFTWARE-ID   VERSION SERIAL\n"
              "QEMU HARDDISK 2.5+    QM00001\n"
              "-             -       -\n");
}

TEST(Firmware, KeysAreThePropertyNamesInOrder)
{
    const auto object = RecordsOf(DescribeFirmware(0, {ZDOptions::SoftwareIdentity_()})).at(0);
    std::vector<std::string> keys;
    for (const auto& item : object.items()) {
        keys.push_back(item.key());
    }
    const std::vector<std::string> expected(std::begin(ZDOptions::SoftwareIdentityPropertyNames),
                                            std::end(ZDOptions::SoftwareIdentityPropertyNames));
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

TEST(HereAndNow, TimeIsUtcInWholeSeconds)
{
    const Occasion occasion = HereAndNow();
    EXPECT_FALSE(occasion.host.empty());
    std::tm utc{};
    const char* end = strptime(occasion.collectedAt.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    ASSERT_NE(end, nullptr) << occasion.collectedAt;
    EXPECT_EQ(*end, '\0');
    EXPECT_LE(timegm(&utc), std::time(nullptr));
    EXPECT_GT(timegm(&utc), std::time(nullptr) - 600);
}

}  // namespace
}  // namespace ZDDevices
}  // namespace Zendra
