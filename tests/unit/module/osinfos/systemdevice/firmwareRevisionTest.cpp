#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/allocations.h"
#include "support/busDevices.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/privateSysBlock.h"
#include "support/scriptedOperator.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

const Lines entry = {L4("Entry  DataProxy::GetFirmwareVersionFile() ")};
const Lines entryAndExit = Logs::NoFirmware();

/** Asks one proxy, whose own messages are not in the trace. */
template <class ProxyOfClass>
class FirmwareLookup : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        owned = std::make_unique<Scripted<ProxyOfClass>>();
        Trace::Take();
    }
    void TearDown() override
    {
        owned.reset();
        DeviceTest::TearDown();
    }
    ProxyOfClass& Proxy() { return *owned; }

private:
    std::unique_ptr<Scripted<ProxyOfClass>> owned;
};

// The directory of sysfs

class FirmwarePath : public FirmwareLookup<TapeProxy> {
protected:
    void Expect(const std::string& path, const std::string& expected, const Lines& log)
    {
        ExpectTraceAtEveryLevel(log, [&] { EXPECT_EQ(expected, Proxy().GetFirmwareVersionFilePath(path)); });
    }
};

TEST_F(FirmwarePath, EntryOfTheSameNameIsFoundWithoutAnExitLine)
{
    ListSysBlock({".", "..", "sda", "sr0"});
    Expect("/dev/sr0", "/sys/block/sr0/", entry);
    Expect("/dev/sda", "/sys/block/sda/", entry);
}

TEST_F(FirmwarePath, DeviceWithoutAnEntryLogsTheExitLine)
{
    ListSysBlock({".", "..", "sda", "sr0", "nvme0n1"});
    Expect("/dev/st0", "", entryAndExit);
    Expect("/dev/nst0", "", entryAndExit);
    Expect("/dev/sd", "", entryAndExit);
}

TEST_F(FirmwarePath, EmptyDirectoryLogsTheExitLine)
{
    ListSysBlock({});
    Expect("/dev/sda", "", entryAndExit);
}

TEST_F(FirmwarePath, UnreadableDirectoryGivesNothingAndNoExitLine)
{
    Calls().directories["/sys/block/"].openError = EACCES;
    Expect("/dev/sda", "", entry);
}

TEST_F(FirmwarePath, FirstFiveCharactersAreRemovedWhateverTheyAre)
{
    ListSysBlock({"sda"});
    Expect("12345sda", "/sys/block/sda/", entry);
    Expect("/DEV/sda", "/sys/block/sda/", entry);
    Expect("/dev/disk/sda", "/sys/block/sda/", entry);
    Expect("sda45", "", entryAndExit);
}

TEST_F(FirmwarePath, PathOfFiveCharactersMatchesNothing)
{
    ListSysBlock({".", "..", "sda"});
    Expect("/dev/", "", entryAndExit);
}

TEST_F(FirmwarePath, PathShorterThanFiveCharactersIsOutOfRange)
{
    ListSysBlock({"sda"});
    for (const char* path : {"", "/", "/dev"}) {
        SCOPED_TRACE(path);
        ExpectTraceAtEveryLevel(entry, [&] {
            try {
                Proxy().GetFirmwareVersionFilePath(path);
                ADD_FAILURE() << "no exception";
            } catch (const std::out_of_range& error) {
                EXPECT_NE(std::string::npos, std::string(error.what()).find("basic_string::substr")) << error.what();
            }
            EXPECT_THROW(
                {
                    Zendra::Log::SetMinLogLevel(0);
                    Proxy().GetFirmwareVersionFromFile(path);
                },
                std::out_of_range);
        });
    }
}

TEST_F(FirmwarePath, DirectoryStreamIsClosedOnEveryWay)
{
    ListSysBlock({"sda"});
    Proxy().GetFirmwareVersionFilePath("/dev/sda");
    EXPECT_EQ(1, Calls().directoriesOpened);
    EXPECT_EQ(1, Calls().directoriesClosed);
    Proxy().GetFirmwareVersionFilePath("/dev/st0");
    EXPECT_EQ(2, Calls().directoriesOpened);
    EXPECT_EQ(2, Calls().directoriesClosed);
}

TEST_F(FirmwarePath, DirectoryStreamIsClosedWhenMemoryRunsOut)
{
    ListSysBlock({"an entry with a name that needs memory of its own", "another one of the same kind", "sda"});
    bool completed = false;
    for (std::size_t after = 0; !completed && after < 2000; ++after) {
        Calls().directoriesOpened = 0;
        Calls().directoriesClosed = 0;
        Allocations::FailAfter(after);
        try {
            Proxy().GetFirmwareVersionFilePath("/dev/a-device-name-longer-than-any-short-text-sda");
            completed = !Allocations::StopFailing();
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(Allocations::StopFailing());
        }
        EXPECT_EQ(Calls().directoriesOpened, Calls().directoriesClosed);
    }
    EXPECT_TRUE(completed);
}

// The files of sysfs

class FirmwareFile : public FirmwareLookup<CDDVDProxy> {
protected:
    void Expect(const std::string& path, const std::string& expected, const Lines& log)
    {
        ExpectTraceAtEveryLevel(log, [&] { EXPECT_EQ(expected, Proxy().GetFirmwareVersionFromFile(path)); });
    }

    static std::string Failed(const std::string& file)
    {
        return L1("Fail in get firmware version from /sys/block/" + file + ".");
    }
};

TEST_F(FirmwareFile, FirmwareRevIsReadWithItsLineFeed)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sda/device/firmware_rev", "1A01\n");
    PrivateSysBlock::Write("sda/device/rev", "other\n");
    ListSysBlock({"sda"});
    Expect("/dev/sda", "1A01\n", entry);
}

TEST_F(FirmwareFile, RevIsReadWhereFirmwareRevIsMissingAndTheMissingFileIsLogged)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sr0/device/rev", "1.00\n");
    ListSysBlock({"sr0"});
    Expect("/dev/sr0", "1.00\n", Join({entry, {Failed("sr0/device/firmware_rev")}}));
}

TEST_F(FirmwareFile, BothFilesMissingLeaveTwoLines)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::MakeDirectory("sr0/device");
    ListSysBlock({"sr0"});
    Expect("/dev/sr0", "", Join({entry, {Failed("sr0/device/firmware_rev"), Failed("sr0/device/rev")}}));
}

TEST_F(FirmwareFile, NoEntryOpensNoFile)
{
    ListSysBlock({});
    Expect("/dev/st0", "", entryAndExit);
}

TEST_F(FirmwareFile, FilesOfTheEntryThatWonAreRead)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sda/device/firmware_rev", "of sda\n");
    PrivateSysBlock::Write("sdab/device/firmware_rev", "of sdab\n");
    ListSysBlock({"sda", "sdab"});
    Expect("/dev/sdab", "of sda\n", entry);
}

TEST_F(FirmwareFile, EmptyFirmwareRevIsTheAnswer)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::Write("sda/device/firmware_rev", "");
    PrivateSysBlock::Write("sda/device/rev", "other\n");
    ListSysBlock({"sda"});
    Expect("/dev/sda", "", entry);
}

TEST_F(FirmwareFile, FileThatOpensButCannotBeReadGivesNothing)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    PrivateSysBlock::MakeDirectory("sda/device/firmware_rev");
    PrivateSysBlock::Write("sda/device/rev", "other\n");
    ListSysBlock({"sda"});
    Expect("/dev/sda", "", entry);
}

TEST_F(FirmwareFile, EveryByteOfTheFileIsKept)
{
    REQUIRE_PRIVATE_SYS_BLOCK();
    std::string content = "  1.0 \n\n\t2\r\n";
    content += '\0';
    content += "\xff\x80 end without a line feed";
    content += std::string(100000, 'x');
    PrivateSysBlock::Write("sda/device/firmware_rev", content);
    ListSysBlock({"sda"});
    Expect("/dev/sda", content, entry);
}

// ATA IDENTIFY DEVICE for sd disks

class AtaUpdate : public DeviceTest {};

TEST_F(AtaUpdate, LogsItsEntryOnlyAndReturnsTheStatusOfTheQuestion)
{
    for (const int status : {4, 5, 3, 0, 2}) {
        for (const unsigned level : {4U, 3U, 1U, 0U}) {
            Scripted<PhysicalDriveProxy> proxy(
                {AtaIdentify("/dev/sda", AtaData("WDC WD40EFRX", " 1A 01  ", "SERIAL"), status)});
            Trace::Take();
            Zendra::Log::SetMinLogLevel(level);
            BusDevice device = Used();
            EXPECT_EQ(static_cast<unsigned>(status), proxy.UpdateFirmwareVersionForSdDisk("/dev/sda", device));
            Zendra::Log::SetMinLogLevel(0);
            EXPECT_EQ(AtLevel(level, {L4("Entry  UpdateFirmwareVersionForSdDisk() ")}), Trace::Take());
            BusDevice expected = Used();
            if (status == 4) {
                expected.productId = "WDC";
                expected.revision = "1A01";
            }
            EXPECT_EQ(All(expected), All(device));
        }
    }
}

TEST_F(AtaUpdate, WithoutOperatorItFailsAndChangesNothing)
{
    Scripted<PhysicalDriveProxy> proxy;
    proxy.Use(nullptr);
    BusDevice device;
    device.revision = "old";
    Trace::Take();
    ExpectTraceAtEveryLevel({L4("Entry  UpdateFirmwareVersionForSdDisk() ")}, [&] {
        EXPECT_EQ(5U, proxy.UpdateFirmwareVersionForSdDisk("/dev/sda", device));
        EXPECT_EQ("old", device.revision);
    });
}

}  // namespace
