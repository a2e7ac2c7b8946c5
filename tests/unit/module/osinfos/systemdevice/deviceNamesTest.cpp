#include "module/osinfos/systemdevice/deviceNames.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Zendra {
namespace ZDSystemDevice {
namespace {

using Names = std::vector<std::string>;

/** Those of the names that a scan for the prefix takes. */
Names Taken(const std::string& prefix, const Names& names)
{
    Names taken;
    for (const std::string& name : names) {
        if (IsDeviceFileName(prefix, name)) {
            taken.push_back(name);
        }
    }
    return taken;
}

TEST(IsDeviceFileName, TapesAreNeitherStandardStreamsNorModeVariants)
{
    EXPECT_EQ(Names({"st0", "st1", "st10", "st0-", "st_"}),
              Taken("st", {".",   "..",   "st0", "st0a", "st0l", "st0m", "nst0", "stdin", "stdout", "stderr", "sdtout",
                           "st1", "st10", "st",  "sta",  "stZ",  "sr0",  "s",    "t0",    "st0-",   "st_"}));
}

TEST(IsDeviceFileName, ByteAbove127IsNoLetter)
{
    EXPECT_EQ(Names({"st\xe9", "st0\xff"}), Taken("st", {"st\xe9", "st0\xff"}));
}

TEST(IsDeviceFileName, NonRewindingTapesMayBeModeVariants)
{
    EXPECT_EQ(Names({"nst0", "nst0a", "nst0l", "nst0m", "nst"}),
              Taken("nst", {"nst0", "nst0a", "nst0l", "nst0m", "st0", "nst", "ns", "xnst0"}));
}

TEST(IsDeviceFileName, ScsiDisksAreNoPartitions)
{
    EXPECT_EQ(Names({"sda", "sdb", "sdab", "sd", "sdtout", "sd-"}),
              Taken("sd", {"sda", "sda1", "sda0", "sdb9", "sdb", "sdab", "sdab12", "sd", "sdtout", "sd-", "SDA", "sr0",
                           "asd"}));
}

TEST(IsDeviceFileName, IdeDisksMayBePartitions)
{
    EXPECT_EQ(Names({"hda", "hda1", "hdb"}), Taken("hd", {"hda", "hda1", "hdb", "sda", "h"}));
}

TEST(IsDeviceFileName, NvmeDisksGoByTheLengthOfTheName)
{
    EXPECT_EQ(Names({"nvme", "nvme10", "nvme0n1", "nvme0n2"}),
              Taken("nvme", {"nvme", "nvme0", "nvme9", "nvmeX", "nvme10", "nvme0n1", "nvme0n2", "nvme10n1", "nvme0n10",
                             "nvme0n1p1", "nvme-fabrics", "nvm", "nvmx0n1", "xnvme0"}));
}

TEST(IsDeviceFileName, OpticalAndGenericDevicesNeedTheirPrefixOnly)
{
    EXPECT_EQ(Names({"sr0", "sr1", "sr", "sra"}), Taken("sr", {"sr0", "sr1", "sr", "sra", "scd0", "s"}));
    EXPECT_EQ(Names({"sg0", "sga", "sg10", "sg"}), Taken("sg", {"sg0", "sga", "sg10", "sg", "snapshot", "bsg"}));
}

TEST(IsDeviceFileName, AnyOtherPrefixLeavesNothingOut)
{
    EXPECT_EQ(Names({"st0a", "st0"}), Taken("st0", {"st0a", "st0", "st1"}));
    EXPECT_EQ(Names({"sda1", "sda"}), Taken("sda", {"sda1", "sda", "sdb"}));
    EXPECT_EQ(Names({"nvme0", "nvme0n1p1"}), Taken("nvme0", {"nvme0", "nvme0n1p1", "nvme1"}));
    EXPECT_EQ(Names({".", "", "sda1"}), Taken("", {".", "", "sda1"}));
}

const Names host = {"sda", "sda1",  "sdab",    "sg10",      "sg2", "st0", "st0a", "nst0",   "nst0a",
                    "sr0", "nvme0", "nvme0n1", "nvme0n1p1", "hda", "sr1", "null", "stdout", "sdb"};

TEST(DeviceFileNames, NonRewindingTapesCountWhereThereIsNoOther)
{
    EXPECT_EQ(Names({"st0"}), DeviceFileNames(host, SYS_DEVICE_TAPE));
    EXPECT_EQ(Names({"nst0", "nst0a"}), DeviceFileNames({"nst0", "stdin", "st0a", "nst0a"}, SYS_DEVICE_TAPE));
}

TEST(DeviceFileNames, DisksCountAsGenericDevicesWhereThereIsNoOther)
{
    EXPECT_EQ(Names({"sg10", "sg2"}), DeviceFileNames(host, SYS_DEVICE_SCSI));
    EXPECT_EQ(Names({"sdb", "sda"}), DeviceFileNames({"sdb", "sda", "sda1", "hda"}, SYS_DEVICE_SCSI));
    EXPECT_EQ(Names({"sg10", "sg2"}), DeviceFileNames(host, static_cast<SysDeviceType>(77)));
}

TEST(DeviceFileNames, DisksComePrefixByPrefix)
{
    EXPECT_EQ(Names({"hda", "sda", "sdab", "sdb", "nvme0n1"}), DeviceFileNames(host, SYS_DEVICE_PHYSICAL_DRIVE));
}

TEST(DeviceFileNames, OpticalDrivesKeepTheirOrder)
{
    EXPECT_EQ(Names({"sr0", "sr1"}), DeviceFileNames(host, SYS_DEVICE_CDDVD));
    EXPECT_EQ(Names(), DeviceFileNames({"scd0", "st0"}, SYS_DEVICE_CDDVD));
}

}  // namespace
}  // namespace ZDSystemDevice
}  // namespace Zendra
