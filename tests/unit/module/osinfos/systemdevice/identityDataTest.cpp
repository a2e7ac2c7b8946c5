#include "module/osinfos/systemdevice/identityData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/busDevices.h"
#include "support/expectedLogs.h"
#include "support/groupingLocale.h"
#include "support/guardedBuffer.h"
#include "support/identityModel.h"
#include "support/scriptedOperator.h"

namespace Zendra {
namespace ZDSystemDevice {
namespace {

using ZendraTest::AfterAtaFirmware;
using ZendraTest::AfterAtaIdentify;
using ZendraTest::AfterInquiry;
using ZendraTest::AfterNvmeIdentify;
using ZendraTest::AfterSerialPage;
using ZendraTest::All;
using ZendraTest::AtaData;
using ZendraTest::Bytes;
using ZendraTest::GroupingLocale;
using ZendraTest::GuardedBuffer;
using ZendraTest::InquiryData;
using ZendraTest::NvmeData;
using ZendraTest::Padded;
using ZendraTest::SerialPageData;
using ZendraTest::Used;

AnswerBytes View(const Bytes& bytes)
{
    return {bytes.data(), bytes.size()};
}

TEST(AnswerBytes, TextEndsAtTheFirstNulAtTheFieldsEndAndAtTheEndOfTheAnswer)
{
    const Bytes bytes = {'a', 'b', 0, 'd', 'e'};
    EXPECT_EQ("ab", View(bytes).Text({0, 5}));
    EXPECT_EQ("a", View(bytes).Text({0, 1}));
    EXPECT_EQ("de", View(bytes).Text({3, 100}));
    EXPECT_EQ("", View(bytes).Text({5, 1}));
    EXPECT_EQ("", View(bytes).Text({100, static_cast<std::size_t>(-1)}));
    EXPECT_EQ('e', View(bytes).At(4));
    EXPECT_EQ(0, View(bytes).At(5));
}

TEST(DeviceTypeText, DeviceTypeCodesHaveTheirTexts)
{
    const std::vector<std::string> texts = {"Direct Access Device",
                                            "Sequential Access Device",
                                            "Printer Device",
                                            "Processor Device",
                                            "Write-Once Device",
                                            "CD-ROM Device",
                                            "Scanner Device",
                                            "Optical Memory Device",
                                            "Medium Changer Device",
                                            "Communications Device",
                                            "Graphic Arts Device",
                                            "Graphic Arts Device",
                                            "Storage Array Controller",
                                            "Enclosure Device",
                                            "Simple Direct Access Device",
                                            "Optical Card Reader Device",
                                            "",
                                            "Optical Based Storage Device"};
    for (unsigned code = 0; code < 256; ++code) {
        const std::string expected = code < texts.size() ? texts[code] : "";
        EXPECT_EQ(expected, DeviceTypeText(static_cast<unsigned char>(code))) << code;
    }
}

BusDevice Decode(const Bytes& data)
{
    BusDevice device;
    ReadInquiry(View(data), device);
    return device;
}

TEST(ReadInquiry, TextsAreCutAsTheirFieldsNeed)
{
    const std::string zeros(16, '\0');
    const struct {
        const char* name;
        Bytes data;
        std::string vendor;
        std::string product;
        std::string revision;
        std::string whole;
    } cases[] = {{"usual", InquiryData(0, "SEAGATE", "ST3300657SS", "0008"), "SEAGATE", "ST3300657SS", "0008",
                  "SEAGATE ST3300657SS     0008"},
                 {"full width", InquiryData(0, "ABCDEFGH", "0123456789abcdef", "WXYZ"), "ABCDEFGH", "0123456789abcdef",
                  "WXYZ", "ABCDEFGH0123456789abcdefWXYZ"},
                 {"the vendor stands in for a product of zeros", InquiryData(0, "  ATA   ", zeros, "1.0"), "ATA", "ATA",
                  "1.0 ", "  ATA   "},
                 {"uncut where it is blank", InquiryData(0, "", zeros, ""), "        ", "        ", "    ", "        "},
                 {"but not for blanks", InquiryData(0, "ATA", "", "1.0"), "ATA", Padded("", 16), "1.0 ",
                  Padded("ATA", 24) + "1.0 "},
                 {"nothing stands in for both", InquiryData(0, zeros.substr(8), zeros, "1.0"), "", "", "1.0 ", ""},
                 {"zeros only", Bytes(96, 0), "", "", "", ""},
                 {"blanks and tabs only", InquiryData(0, " \t \t    ", "\t", ""), " \t \t    ", Padded("\t", 16),
                  "    ", " \t \t    " + Padded("\t", 20)},
                 {"both ends are cut", InquiryData(0, "\t A \tB \t", " \tDVD  RW\t ", " 1 "), "A \tB", "DVD  RW",
                  " 1  ", "\t A \tB \t" + Padded(" \tDVD  RW\t ", 16) + " 1  "},
                 {"of no other white space", InquiryData(0, "\nA\r", "\vB\n", ""), "\nA\r", "\vB\n", "    ",
                  Padded("\nA\r", 8) + Padded("\vB\n", 20)},
                 {"bytes above 127", InquiryData(0, "\xff\xa0V\x80", "\xc3\xa9", "\xff\xff\xff\xff"), "\xff\xa0V\x80",
                  "\xc3\xa9", "\xff\xff\xff\xff",
                  Padded("\xff\xa0V\x80", 8) + Padded("\xc3\xa9", 16) + "\xff\xff\xff\xff"}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        const BusDevice device = Decode(one.data);
        EXPECT_EQ(one.vendor, device.vendorId);
        EXPECT_EQ(one.product, device.productId);
        EXPECT_EQ(one.revision, device.revision);
        EXPECT_EQ(one.whole, device.inquiryString);
        EXPECT_EQ("Direct Access Device", device.deviceType);
    }
}

TEST(ReadInquiry, TouchesNothingElse)
{
    const Bytes data = InquiryData(0x01, "V", "P", "R");
    BusDevice device = Used();
    ReadInquiry(View(data), device);
    BusDevice expected = Used();
    expected.vendorId = "V";
    expected.productId = "P";
    expected.revision = "R   ";
    expected.deviceType = "Sequential Access Device";
    expected.inquiryString = "V       P               R   ";
    EXPECT_EQ(All(expected), All(device));
}

TEST(ReadInquiry, EveryTextEndsAtItsFirstZeroByte)
{
    Bytes data = InquiryData(0x00, "VEND", "PRODUCT", "12");
    data[8 + 2] = 0;
    data[16 + 4] = 0;
    data[32 + 1] = 0;
    const BusDevice device = Decode(data);
    EXPECT_EQ("VE", device.vendorId);
    EXPECT_EQ("PROD", device.productId);
    EXPECT_EQ("1", device.revision);
    EXPECT_EQ("VE", device.inquiryString);
}

TEST(ReadInquiry, DeviceTypeIsTheLowFourBitsOfByteZero)
{
    for (unsigned type = 0; type < 256; ++type) {
        const BusDevice device = Decode(InquiryData(static_cast<unsigned char>(type), "V", "P", "R"));
        EXPECT_EQ(DeviceTypeText(static_cast<unsigned char>(type & 0x0f)), device.deviceType) << type;
    }
    EXPECT_EQ("Optical Card Reader Device", Decode(InquiryData(0x7f, "V", "P", "R")).deviceType);
    EXPECT_EQ("Direct Access Device", Decode(InquiryData(0x10, "V", "P", "R")).deviceType);
    EXPECT_EQ("Sequential Access Device", Decode(InquiryData(0x11, "V", "P", "R")).deviceType);
}

/** The record that was Used() before the page was read. */
std::string SerialAfter(const Bytes& page, SerialNumber outcome)
{
    BusDevice device = Used();
    EXPECT_EQ(outcome, ReadSerialPage(View(page), device));
    BusDevice expected = Used();
    expected.serialNum = device.serialNum;
    EXPECT_EQ(All(expected), All(device));
    return device.serialNum;
}

TEST(ReadSerialPage, BlanksAreKept)
{
    EXPECT_EQ("  WD-WCAYUJ123456   ", SerialAfter(SerialPageData("  WD-WCAYUJ123456   "), SerialNumber::Taken));
}

TEST(ReadSerialPage, SerialPageOf2To32BytesIsTakenWhole)
{
    for (const std::size_t length : {2U, 3U, 31U, 32U}) {
        const std::string serial = std::string("0123456789abcdefghijklmnopqrstuvwxyz").substr(0, length);
        EXPECT_EQ(serial, SerialAfter(SerialPageData(serial), SerialNumber::Taken));
    }
}

TEST(ReadSerialPage, SerialPageLongerThan32BytesKeepsTheOldSerial)
{
    for (const std::size_t length : {33U, 34U, 128U, 251U}) {
        EXPECT_EQ("old serialNum", SerialAfter(SerialPageData(std::string(length, 'S')), SerialNumber::TooLong));
    }
    EXPECT_EQ("old serialNum", SerialAfter({0x00, 0x80, 0x00, 0xff, 'S', 'S'}, SerialNumber::TooLong));
}

TEST(ReadSerialPage, SerialPageOfNoneOrOneByteEmptiesTheSerial)
{
    EXPECT_EQ("", SerialAfter(SerialPageData(""), SerialNumber::TooShort));
    EXPECT_EQ("", SerialAfter(SerialPageData("X"), SerialNumber::TooShort));
    EXPECT_EQ("", SerialAfter({}, SerialNumber::TooShort));
}

TEST(ReadSerialPage, SerialEndsAtItsFirstZeroByte)
{
    EXPECT_EQ("AB", SerialAfter(SerialPageData(std::string("AB\0CD", 5)), SerialNumber::Taken));
    EXPECT_EQ("", SerialAfter(SerialPageData(std::string(4, '\0')), SerialNumber::Taken));
}

TEST(ReadSerialPage, OnlyByteThreeIsTheLengthAndNothingBehindItIsTaken)
{
    Bytes page = SerialPageData("ABCD");
    page[0] = 0x7f;
    page[1] = 0x00;
    page[2] = 0x01;  // the high byte of the page length in later standards
    page.insert(page.end(), {'E', 'F'});
    EXPECT_EQ("ABCD", SerialAfter(page, SerialNumber::Taken));
}

/** The argument of HDIO_DRIVE_CMD as it comes back with this data. */
Bytes AtaBuffer(const Bytes& data)
{
    Bytes buffer(4, 'h');
    buffer.insert(buffer.end(), data.begin(), data.end());
    return buffer;
}

/** What became of Used(). */
BusDevice AtaStored(const Bytes& data)
{
    BusDevice device = Used();
    StoreAtaIdentity(ReadAtaIdentity(View(AtaBuffer(data))), device);
    return device;
}

/** What IDENTIFY DEVICE makes of Used() with this model, without its two words. */
BusDevice AtaExpected(const std::string& model)
{
    BusDevice expected = Used();
    expected.shortIdent = model.substr(0, 23);
    expected.revision = "REV     ";
    expected.serialNum = "SERIAL              ";
    expected.otherIdentInfo = "Port:11|Target:14|Bus:12|Lun:15";
    return expected;
}

TEST(AtaIdentity, RequestIsTheCommandForOneSectorAndZeros)
{
    AtaIdentify::Buffer expected{};
    expected[0] = 0xEC;
    expected[3] = 1;
    EXPECT_EQ(expected, AtaIdentifyRequest());
    EXPECT_EQ(516U, expected.size());
}

TEST(AtaIdentity, FirstTwoWordsOfTheModelAreVendorAndProduct)
{
    const struct {
        std::string model;
        std::string vendor;
        std::string product;
    } cases[] = {
        {"WDC WD5000AAKX-001CA0", "WDC", "WD5000AAKX-001CA0"},
        {"ST3500418AS", "ST3500418AS", "old productId"},
        {"", "old vendorId", "old productId"},
        {"  QEMU \t HARD\nDISK  DRIVE", "QEMU", "HARD"},
        {"0123456789012345678901234567890123456789", "0123456789012345678901234567890123456789", "old productId"}};
    for (const auto& one : cases) {
        BusDevice expected = AtaExpected(Padded(one.model, 40));
        expected.vendorId = one.vendor;
        expected.productId = one.product;
        EXPECT_EQ(All(expected), All(AtaStored(AtaData(one.model, "REV", "SERIAL"))));
    }
}

TEST(AtaIdentity, TextsEndAtTheirFirstZeroByte)
{
    const AtaIdentity identity = ReadAtaIdentity(View(AtaBuffer(
        AtaData(std::string("ST1 AS\0behind", 13), std::string("1A\0BCDEF", 8), std::string("\0SERIAL", 7)))));
    EXPECT_EQ("ST1 AS", identity.model);
    EXPECT_EQ("1A", identity.firmwareRevision);
    EXPECT_EQ("", identity.serialNumber);
}

TEST(AtaIdentity, AnswerOfZerosEmptiesRevisionSerialAndShortText)
{
    BusDevice expected = AtaExpected("");
    expected.revision = "";
    expected.serialNum = "";
    EXPECT_EQ(All(expected), All(AtaStored(Bytes(512, 0))));
}

TEST(AtaIdentity, TextsOfFullWidthKeepEveryCharacterAndBytesAroundThemAreNotTaken)
{
    Bytes answer(512, 'x');
    const Bytes texts = AtaData(Padded("M", 40), " 1.2 34 ", " 12345678 0abcdefgh ");
    std::copy(texts.begin() + 20, texts.begin() + 40, answer.begin() + 20);
    std::copy(texts.begin() + 46, texts.begin() + 94, answer.begin() + 46);
    const AtaIdentity identity = ReadAtaIdentity(View(AtaBuffer(answer)));
    EXPECT_EQ(Padded("M", 40), identity.model);
    EXPECT_EQ(" 1.2 34 ", identity.firmwareRevision);
    EXPECT_EQ(" 12345678 0abcdefgh ", identity.serialNumber);
}

TEST(AtaIdentity, FirmwareUpdateTouchesRevisionAndProductOnly)
{
    BusDevice device = Used();
    StoreAtaFirmware({"WDC WD40EFRX", "1A01    ", "SERIAL"}, device);
    BusDevice expected = Used();
    expected.revision = "1A01";
    expected.productId = "WDC";
    EXPECT_EQ(All(expected), All(device));
}

TEST(AtaIdentity, EveryBlankOfTheRevisionIsDeleted)
{
    const auto revision = [](const std::string& text) {
        BusDevice device;
        StoreAtaFirmware({"M", text, ""}, device);
        return device.revision;
    };
    EXPECT_EQ("1A01", revision(" 1A 01  "));
    EXPECT_EQ("12345678", revision("12345678"));
    EXPECT_EQ("", revision("        "));
    EXPECT_EQ("1\t2", revision("1\t2 "));
}

TEST(AtaIdentity, ModelKeepsItsFirstWordOnly)
{
    const auto product = [](const std::string& model) {
        BusDevice device;
        StoreAtaFirmware({model, "", ""}, device);
        return device.productId;
    };
    EXPECT_EQ("WDC", product("WDC WD5000AAKX-001CA0   "));
    EXPECT_EQ("ST3500418AS", product("ST3500418AS"));
    EXPECT_EQ("", product(" LEADING"));
    EXPECT_EQ("", product(""));
    EXPECT_EQ("TAB\tNO", product("TAB\tNO CUT"));
}

TEST(AddressText, IgnoresAThousandsGroupingLocale)
{
    const GroupingLocale locale;
    BusDevice device;
    EXPECT_EQ("Port:0|Target:0|Bus:0|Lun:0", AddressText(device));
    device.hostAdapter = 65535;
    device.targetId = 12345;
    device.bus = 1000;
    device.lun = 9999;
    EXPECT_EQ("Port:65535|Target:12345|Bus:1000|Lun:9999", AddressText(device));
}

void ExpectNvme(const Bytes& answer, const std::string& serial, const std::string& model, const std::string& revision)
{
    BusDevice device = Used();
    ReadNvmeIdentity(View(answer), device);
    BusDevice expected = Used();
    expected.vendorId = "NVMe";
    expected.productId = model;
    expected.revision = revision;
    expected.serialNum = serial;
    expected.deviceType = "Direct Access Device";
    EXPECT_EQ(All(expected), All(device));
}

TEST(ReadNvmeIdentity, TextsKeepTheirBlanks)
{
    ExpectNvme(NvmeData("deadbeef", "QEMU NVMe Ctrl", "1.0"), Padded("deadbeef", 19), Padded("QEMU NVMe Ctrl", 39),
               "1.0     ");
}

TEST(ReadNvmeIdentity, ModelHasAtMost39AndSerialAtMost19Characters)
{
    ExpectNvme(NvmeData("s1234567890123456789", "m123456789012345678901234567890123456789", "f1234567"),
               "s123456789012345678", "m12345678901234567890123456789012345678", "f1234567");
}

TEST(ReadNvmeIdentity, NvmeRevisionRunsOnIntoTheBytesBehindItsField)
{
    Bytes answer = NvmeData("S", "M", "12345678");
    answer[72] = 0x06;
    answer[73] = 'I';
    ExpectNvme(answer, Padded("S", 19), Padded("M", 39), "12345678\x06I");
    ExpectNvme(Bytes(4096, 'x'), std::string(19, 'x'), std::string(39, 'x'), std::string(4096 - 64, 'x'));
}

TEST(ReadNvmeIdentity, TextsEndAtTheirFirstZeroByte)
{
    Bytes answer = NvmeData("SERIAL", "MODEL", "REVISION");
    answer[4 + 2] = 0;
    answer[24 + 3] = 0;
    answer[64 + 4] = 0;
    ExpectNvme(answer, "SE", "MOD", "REVI");
}

TEST(StoreScsiId, NumbersAreCutTo16Bits)
{
    sg_scsi_id answer{};
    answer.host_no = 65537;
    answer.channel = -1;
    answer.scsi_id = 3;
    answer.lun = 0x78000;
    BusDevice device = Used();
    StoreScsiId(answer, device);
    BusDevice expected = Used();
    expected.hostAdapter = 1;
    expected.bus = 65535;
    expected.targetId = 3;
    expected.lun = 0x8000;
    EXPECT_EQ(All(expected), All(device));
}

TEST(StoreIdLun, BytesAreTargetLunAndBusAndTheHostIsNotTaken)
{
    BusDevice device = Used();
    StoreIdLun(0xfcfffefdU, device);
    BusDevice expected = Used();
    expected.targetId = 0xfd;
    expected.lun = 0xfe;
    expected.bus = 0xff;
    EXPECT_EQ(All(expected), All(device));
}

// Every byte of an answer is the device's to choose, and so is where the answer ends. The decoders get answers of every
// length and of random content in memory that ends exactly where the answer does, so that a read of one byte too many
// is a crash.

constexpr int randomRounds = 3000;

/** Random bytes; in half of the rounds from a small alphabet in which blanks, tabs and zeros are frequent. */
Bytes RandomBytes(std::mt19937& random, std::size_t size)
{
    static const unsigned char frequent[] = {' ', ' ', '\t', 0, 'A', 'T', 'b', '\n', 0xff};
    const bool any = random() % 2 == 0;
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        byte = any ? static_cast<unsigned char>(random()) : frequent[random() % sizeof frequent];
    }
    return bytes;
}

/** The answer in memory behind which nothing may be read. */
class GuardedAnswer {
public:
    explicit GuardedAnswer(const Bytes& bytes) : buffer(bytes.size())
    {
        std::copy(bytes.begin(), bytes.end(), buffer.Data());
    }
    AnswerBytes View() { return {buffer.Data(), buffer.Size()}; }

private:
    GuardedBuffer buffer;
};

void CheckInquiry(const Bytes& data)
{
    BusDevice record = Used();
    ReadInquiry(GuardedAnswer(data).View(), record);
    ASSERT_EQ(All(AfterInquiry(data, Used())), All(record));
}

void CheckSerial(const Bytes& page)
{
    BusDevice record = Used();
    ReadSerialPage(GuardedAnswer(page).View(), record);
    ASSERT_EQ(All(AfterSerialPage(page, Used())), All(record));
}

void CheckAta(const Bytes& data)
{
    const AtaIdentity identity = ReadAtaIdentity(GuardedAnswer(AtaBuffer(data)).View());
    BusDevice record = Used();
    StoreAtaIdentity(identity, record);
    ASSERT_EQ(All(AfterAtaIdentify(data, Used())), All(record));
    record = Used();
    StoreAtaFirmware(identity, record);
    ASSERT_EQ(All(AfterAtaFirmware(data, Used())), All(record));
}

void CheckNvme(const Bytes& data)
{
    BusDevice record = Used();
    ReadNvmeIdentity(GuardedAnswer(data).View(), record);
    ASSERT_EQ(All(AfterNvmeIdentify(data, Used())), All(record));
}

/** Checks every beginning of the answer, the whole one included. */
void SweepLengths(const Bytes& full, void (*check)(const Bytes&))
{
    for (std::size_t length = 0; length <= full.size() && !testing::Test::HasFatalFailure(); ++length) {
        SCOPED_TRACE(length);
        check(Bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length)));
    }
}

void SweepRandom(unsigned int seed, std::size_t size, void (*check)(const Bytes&))
{
    std::mt19937 random(seed);
    for (int round = 0; round < randomRounds && !testing::Test::HasFatalFailure(); ++round) {
        check(RandomBytes(random, size));
    }
}

TEST(DecoderSweep, InquiryData)
{
    for (const Bytes& full : {InquiryData(0x05, "ABCDEFGH", "0123456789abcdef", "WXYZ"),
                              InquiryData(0x1f, " \tAB \t", "\t P \t", " 1"), Bytes(36, 0xff), Bytes(36, ' ')}) {
        SweepLengths(full, CheckInquiry);
    }
    SweepRandom(1, 36, CheckInquiry);
}

TEST(DecoderSweep, SerialPage)
{
    for (unsigned int length = 0; length < 256; ++length) {
        Bytes page(4 + 32, 'S');
        page[3] = static_cast<unsigned char>(length);
        CheckSerial(page);
        SweepLengths(page, CheckSerial);
    }
    SweepRandom(2, 4 + 32, CheckSerial);
}

TEST(DecoderSweep, AtaIdentifyData)
{
    SweepLengths(AtaData("WDC WD5000AAKX-001CA0 third", " 15.01H1", "  WD-WCAYUJ123456"), CheckAta);
    SweepRandom(3, 512, CheckAta);
    CheckAta(Bytes(512, 'x'));
}

TEST(DecoderSweep, NvmeIdentifyData)
{
    Bytes full(4096);
    for (std::size_t i = 0; i < full.size(); ++i) {
        full[i] = static_cast<unsigned char>('A' + i % 26);
    }
    SweepLengths(full, CheckNvme);
    SweepRandom(4, 4096, CheckNvme);
}

}  // namespace
}  // namespace ZDSystemDevice
}  // namespace Zendra
