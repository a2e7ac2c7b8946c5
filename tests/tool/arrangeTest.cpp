#include "tools/zddevices/records/arrange.h"

#include <algorithm>
#include <random>

#include "toolTests.h"

namespace Zendra::ZDDevices {
namespace {

using ZDSystemDevice::SystemDevice;
using Texts = std::vector<std::string>;

Texts Sorted(Texts texts)
{
    std::sort(texts.begin(), texts.end(),
              [](const std::string& left, const std::string& right) { return OrderKey(left) < OrderKey(right); });
    return texts;
}

TEST(Order, IsAsPeopleCount)
{
    const Texts ordered = {"",         "2:0:9:0", "10:0:0:0", "Zeta", "hda", "nvme0n1", "nvme2n1",
                           "nvme10n1", "sda",     "sda1",     "sdb",  "sdz", "sdaa",    "sdab",
                           "sdaaa",    "sg0",     "sg2",      "sg10", "sr0", "st0"};
    EXPECT_EQ(Sorted(Texts(ordered.rbegin(), ordered.rend())), ordered);
}

TEST(Order, NumbersMayHaveAnyNumberOfDigits)
{
    const std::string long1 = std::string(60, '9') + "8";
    const Texts ordered = {"a0", "a00", "a7", "a07", "a10", long1, long1 + "0"};
    EXPECT_EQ(Sorted({"a10", "a07", "a7", "a00", "a0"}), Texts({"a0", "a00", "a07", "a7", "a10"}));
    EXPECT_LT(OrderKey("9"), OrderKey(long1));
    EXPECT_LT(OrderKey(long1), OrderKey(std::string(60, '9') + "9"));
    EXPECT_LT(OrderKey(std::string(60, '9') + "9"), OrderKey(long1 + "0"));
}

TEST(Order, EveryTextHasAKeyOfItsOwn)
{
    std::mt19937 random{1};
    const std::string alphabet = "sda019:- \xff";
    std::vector<Texts> keyed;
    for (int i = 0; i < 2000; ++i) {
        std::string text(random() % 6, ' ');
        std::generate(text.begin(), text.end(), [&] { return alphabet[random() % alphabet.size()]; });
        keyed.push_back({OrderKey(text), text});
    }
    std::sort(keyed.begin(), keyed.end());
    for (std::size_t i = 1; i < keyed.size(); ++i) {
        EXPECT_EQ(keyed[i - 1][0] == keyed[i][0], keyed[i - 1][1] == keyed[i][1]) << keyed[i][1];
    }
}

SystemDevice Device(const std::string& serial, const std::string& port)
{
    SystemDevice device;
    device.serial_number = serial;
    device.port = port;
    return device;
}

Texts SerialsOf(const std::vector<SystemDevice>& devices)
{
    Texts serials;
    for (const SystemDevice& device : devices) {
        serials.push_back(device.serial_number);
    }
    return serials;
}

Texts SortedSerials(std::vector<SystemDevice> devices, const std::string& heading)
{
    SortBy(devices, heading);
    return SerialsOf(devices);
}

TEST(Sorting, TakesNumbersForNumbersAndPutsTheUnknownLast)
{
    const std::vector<SystemDevice> devices = {Device("c", "40"), Device("", "7"), Device("a", ""), Device("b", "9")};
    EXPECT_EQ(SortedSerials(devices, "PORT"), Texts({"", "b", "c", "a"}));
    EXPECT_EQ(SortedSerials(devices, "SERIAL"), Texts({"a", "b", "c", ""}));
}

TEST(Sorting, KeepsTheOrderOfEqualTextsAndPassesOverBlanks)
{
    EXPECT_EQ(SortedSerials({Device("b ", "1"), Device(" a", "1"), Device("c", "0")}, "PORT"),
              Texts({"c", "b ", " a"}));
    EXPECT_EQ(SortedSerials({Device("b ", "1"), Device(" c", "1"), Device("a", "0")}, "SERIAL"),
              Texts({"a", "b ", " c"}));
}

TEST(Sorting, UsualOrderIsByDeviceWhereThereIsOne)
{
    std::vector<StorageDevice> disks(4);
    disks[0].device = "sdaa";
    disks[2].device = "sdb";
    disks[3].device = "nvme0n1";
    SortBy(disks, "");
    EXPECT_EQ(TableOf(disks, {"DEVICE"}).rows, (std::vector<Texts>{{"nvme0n1"}, {"sdb"}, {"sdaa"}, {"-"}}));
    std::vector<DiskFirmware> firmware(2);
    firmware[0].device = "sdaa";
    firmware[1].device = "sdb";
    SortBy(firmware, "");
    EXPECT_EQ(firmware[0].device, "sdb");
    EXPECT_EQ(SortedSerials({Device("b", "2"), Device("a", "1")}, ""), Texts({"b", "a"}));
}

TEST(Sorting, SizesAreSortedByBytes)
{
    std::vector<StorageDevice> disks(3);
    disks[0].size_bytes = "2199023255552";
    disks[1].size_bytes = "536870912000";
    disks[2].size_bytes = "1024";
    SortBy(disks, "SIZE");
    EXPECT_EQ(TableOf(disks, {"SIZE"}).rows, (std::vector<Texts>{{"1K"}, {"500G"}, {"2T"}}));
    EXPECT_EQ(TableOf(disks, {"SIZE"}, ValueOf<StorageDevice>).rows.at(1), Texts{"536870912000"});
    Select(disks, {{"SIZE", "*G"}});
    EXPECT_EQ(disks.size(), 1U);
}

TEST(Csv, FilesOfADeviceAreOneCell)
{
    StorageDevice disk;
    disk.device_files = "/dev/sda\n/dev/sg0\n";
    EXPECT_EQ(ValueOf(disk, *FieldsOf<StorageDevice>({"FILES"}).at(0)), "/dev/sda /dev/sg0");
}

Texts SerialsLike(const std::vector<Filter>& filters)
{
    std::vector<SystemDevice> devices = {Device(" ZC1A ", "1"), Device("ZC2[*", "1"), Device("", "2"),
                                         Device("\x1b[31m", "2"), Device("zc1\\", "0")};
    Select(devices, filters);
    return SerialsOf(devices);
}

TEST(Filters, ArePatternsForTheTextAsTheTableShowsIt)
{
    EXPECT_EQ(SerialsLike({{"SERIAL", "ZC1*"}}), Texts({" ZC1A "}));
    EXPECT_EQ(SerialsLike({{"SERIAL", "ZC?[A[]*"}}), Texts({" ZC1A ", "ZC2[*"}));
    EXPECT_EQ(SerialsLike({{"SERIAL", "-"}}), Texts({""}));
    EXPECT_EQ(SerialsLike({{"SERIAL", "\\x1b*"}}), Texts({"\x1b[31m"}));
    EXPECT_EQ(SerialsLike({{"SERIAL", "*\\"}}), Texts({"zc1\\"}));
    EXPECT_EQ(SerialsLike({{"SERIAL", ""}}), Texts());
    EXPECT_EQ(SerialsLike({{"SERIAL", "*"}}).size(), 5U);
}

TEST(Filters, AllHaveToMatch)
{
    EXPECT_EQ(SerialsLike({{"SERIAL", "ZC*"}, {"PORT", "1"}}).size(), 2U);
    EXPECT_EQ(SerialsLike({{"SERIAL", "*[[]*"}, {"PORT", "2"}}), Texts({"\x1b[31m"}));
    EXPECT_EQ(SerialsLike({{"PORT", "2"}, {"PORT", "1"}}), Texts());
}

}  // namespace
}  // namespace Zendra::ZDDevices
