#include "module/osinfos/systemdevice/sysBlock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/deviceTest.h"

namespace Zendra {
namespace ZDSystemDevice {
namespace {

using ZendraTest::Calls;

class SysBlockTest : public ZendraTest::DeviceTest {
protected:
    /** What a new reading of the directory answers for the device; "none" when there was none. */
    static std::string DirectoryOf(const std::string& deviceName)
    {
        return SysBlock().DirectoryOf(deviceName).value_or("none");
    }
};

TEST_F(SysBlockTest, FirstEntryWithinTheNameWinsInDirectoryOrder)
{
    ListSysBlock({"sda", "sdab"});
    EXPECT_EQ("/sys/block/sda/", DirectoryOf("sdab"));
    ListSysBlock({"sdab", "sda"});
    EXPECT_EQ("/sys/block/sdab/", DirectoryOf("sdab"));
    EXPECT_EQ("/sys/block/sda/", DirectoryOf("sda"));
    ListSysBlock({"ab", "b", "sda", "d"});
    EXPECT_EQ("/sys/block/ab/", DirectoryOf("sdab"));
}

TEST_F(SysBlockTest, EntryMayStandAnywhereInTheName)
{
    ListSysBlock({"st0"});
    EXPECT_EQ("/sys/block/st0/", DirectoryOf("nst0"));
    EXPECT_EQ("/sys/block/st0/", DirectoryOf("nst0a"));
    ListSysBlock({"d"});
    EXPECT_EQ("/sys/block/d/", DirectoryOf("sda"));
}

TEST_F(SysBlockTest, NameWithinTheEntryIsNoMatch)
{
    ListSysBlock({"sdaa", "nvme0n1", "SDA"});
    EXPECT_EQ("", DirectoryOf("sda"));
    EXPECT_EQ("", DirectoryOf("nvme0"));
    EXPECT_EQ("", DirectoryOf(""));
}

TEST_F(SysBlockTest, DotEntriesAreEntriesLikeOthers)
{
    ListSysBlock({".", "..", "sd.a"});
    EXPECT_EQ("/sys/block/./", DirectoryOf("sd.a"));
}

TEST_F(SysBlockTest, BytesAbove127AreCompared)
{
    ListSysBlock({"\xff\x80"});
    EXPECT_EQ("/sys/block/\xff\x80/", DirectoryOf("sd\xff\x80"));
    EXPECT_EQ("", DirectoryOf("sd\xff"));
}

TEST_F(SysBlockTest, OneReadingServesAllDevices)
{
    ListSysBlock({"sda"});
    SysBlock sysBlock;
    EXPECT_EQ(0, Calls().directoriesOpened);
    EXPECT_EQ("/sys/block/sda/", sysBlock.DirectoryOf("sda"));
    ListSysBlock({"sdb"});
    EXPECT_EQ("/sys/block/sda/", sysBlock.DirectoryOf("sda"));
    EXPECT_EQ("", sysBlock.DirectoryOf("sdb"));
    EXPECT_EQ(1, Calls().directoriesOpened);
    EXPECT_EQ(1, Calls().directoriesClosed);
}

TEST_F(SysBlockTest, DirectoryThatCannotBeOpenedIsTriedAgain)
{
    Calls().directories["/sys/block/"].openError = EACCES;
    SysBlock sysBlock;
    EXPECT_EQ(std::nullopt, sysBlock.DirectoryOf("sda"));
    ListSysBlock({"sda"});
    Calls().directories["/sys/block/"].openError = 0;
    EXPECT_EQ("/sys/block/sda/", sysBlock.DirectoryOf("sda"));
}

}  // namespace
}  // namespace ZDSystemDevice
}  // namespace Zendra
