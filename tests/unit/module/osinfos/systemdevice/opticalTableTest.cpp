#include "module/osinfos/systemdevice/opticalTable.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace Zendra {
namespace ZDSystemDevice {
namespace OpticalTable {
namespace {

using Lines = std::vector<std::string>;

Rows RowsOf(const std::string& table)
{
    return ReadRows(SplitLines(table));
}

TEST(SplitLines, EndOfTheTextIsAnEmptyLine)
{
    EXPECT_EQ(Lines({""}), SplitLines(""));
    EXPECT_EQ(Lines({"a", "", "b", ""}), SplitLines("a\n\nb\n"));
    EXPECT_EQ(Lines({"a", "b", ""}), SplitLines("a\nb"));
}

TEST(SplitLines, LineOf255CharactersIsReadAndALongerOneIsCutAndTheLast)
{
    const std::string longest(255, 'x');
    EXPECT_EQ(Lines({longest, "b", ""}), SplitLines(longest + "\nb\n"));
    EXPECT_EQ(Lines({longest}), SplitLines(longest + "x\nb\n"));
}

TEST(SplitLines, LineEndsAtItsFirstNul)
{
    EXPECT_EQ(Lines({"a", "c", ""}), SplitLines(std::string("a\0b\nc\n", 6)));
}

TEST(ReadRows, BlanksAndTabsAroundNameAndValueAreCut)
{
    EXPECT_EQ(Rows({{"drive name", "sr1\tsr0"}, {"Can write CD-R", "1"}, {"cr", "1\r"}}),
              RowsOf("drive name:\t\tsr1\tsr0\n Can write CD-R \t:  \t1 \t\ncr: 1\r\n"));
}

TEST(ReadRows, FirstOfTheRowsOfOneNameCounts)
{
    EXPECT_EQ(Rows({{"a", "1"}}), RowsOf("a: 1\na: 0\n"));
}

TEST(ReadRows, OnlyRowsOfExactlyTwoPartsCount)
{
    EXPECT_EQ(Rows({{"a", "1"}, {"", "b"}, {"c", ""}}), RowsOf("a::: 1\n:b\nc:\n"));
    EXPECT_EQ(Rows(), RowsOf("a 1\n\none:two:three\n"));
}

TEST(StoreRows, EachCapabilityHasItsRow)
{
    const std::vector<std::pair<const char*, std::string OpticalProperty::*>> capabilities = {
        {"Can write DVD-RAM", &OpticalProperty::dvd_ram_write_},
        {"Can write CD-RW", &OpticalProperty::cd_rw_write_},
        {"Can write CD-R", &OpticalProperty::cd_r_write_},
        {"Can read DVD", &OpticalProperty::dvd_read_},
        {"Can write DVD-R", &OpticalProperty::dvd_r_write_},
        {"Can read MRW", &OpticalProperty::mrw_r_},
        {"Can write MRW", &OpticalProperty::mrw_w_},
        {"Can write RAM", &OpticalProperty::ram_w_}};
    for (const auto& [row, field] : capabilities) {
        SCOPED_TRACE(row);
        OpticalProperty drive;
        StoreRows({{row, "1"}}, drive);
        for (const auto& other : capabilities) {
            EXPECT_EQ(other.second == field ? "Yes" : "No", drive.*other.second) << other.first;
        }
        EXPECT_EQ("", drive.drive_name_);
        StoreRows({{row, "0"}}, drive);
        EXPECT_EQ("No", drive.*field);
    }
}

TEST(StoreRows, OnlyTheTextOneIsYes)
{
    for (const char* value : {"", "0", "01", "11", "yes", "1 1", "1\t1", "1x", "-1"}) {
        OpticalProperty drive;
        StoreRows({{"Can write CD-R", value}}, drive);
        EXPECT_EQ("No", drive.cd_r_write_) << value;
    }
}

TEST(StoreRows, DriveNameBecomesAPathAndVendorAndProductStay)
{
    OpticalProperty drive;
    drive.vendor_ = "vendor";
    drive.product_ = "product";
    StoreRows({{"drive name", "sr1\tsr0"}, {"drive speed", "24"}}, drive);
    EXPECT_EQ("/dev/sr1\tsr0", drive.drive_name_);
    EXPECT_EQ("vendor", drive.vendor_);
    EXPECT_EQ("product", drive.product_);
}

}  // namespace
}  // namespace OpticalTable
}  // namespace ZDSystemDevice
}  // namespace Zendra
