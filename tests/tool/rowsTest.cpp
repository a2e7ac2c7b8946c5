/**
 * @file
 * @brief Which records become one row, and what the kernel adds to it.
 */
#include "tools/zddevices/scan/rows.h"

#include "toolTests.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {
namespace {

/** As the library fills one in, with the same texts for each class. */
StorageDevice Record(const std::string& file, const std::string& product, const std::string& address = "0:0:0:0")
{
    StorageDevice record;
    record.device_files = file.empty() ? "" : file + "\n";
    record.vendor = "ACME";
    record.product = product;
    record.device_type = "Direct Access Device";
    record.port = address.substr(0, address.find(':'));
    record.bus = address.substr(address.find(':') + 1, 1);
    record.target = address.substr(address.find(':') + 3, 1);
    record.lun = address.substr(address.rfind(':') + 1);
    return record;
}

KernelDevice Disk(const std::vector<std::string>& files, const std::string& address)
{
    KernelDevice disk;
    disk.files = files;
    disk.address = address;
    disk.sizeBytes = 1024;
    disk.transport = "sas";
    disk.state = "running";
    disk.driver = "mpt3sas";
    disk.slot = "6:0:9:0/Slot 03";
    disk.model = "KERNEL MODEL";
    disk.revision = "K1";
    return disk;
}

KernelDevice Nvme()
{
    KernelDevice controller;
    controller.files = {"/dev/nvme0n1", "/dev/nvme0n2", "/dev/nvme0"};
    controller.namespaces = {{"/dev/nvme0n1", {512, "eui.1"}}, {"/dev/nvme0n2", {1024, "eui.2"}}};
    controller.sizeBytes = 1536;
    controller.wwn = "eui.1";
    controller.transport = "nvme";
    return controller;
}

/** The rows as tables show these columns of them. */
std::vector<std::string> Cells(const std::vector<StorageDevice>& rows, const std::vector<std::string>& headings)
{
    std::vector<std::string> lines;
    for (const std::vector<std::string>& row : TableOf(rows, headings).rows) {
        std::string line;
        for (const std::string& cell : row) {
            line += (line.empty() ? "" : " | ") + cell;
        }
        lines.push_back(line);
    }
    return lines;
}

using Strings = std::vector<std::string>;

TEST(RowsOfDevices, FilesThatTheKernelTiesTogetherAreOneRowAlsoWithoutAnAddressAndWithOtherTexts)
{
    const KernelDevices kernel({Disk({"/dev/sda", "/dev/sg0"}, "0:0:0:0"), Disk({"/dev/sdb", "/dev/sg1"}, "0:0:1:0")});
    const std::vector<StorageDevice> rows =
        RowsOfDevices({Record("/dev/sg0", "GENERIC"), Record("/dev/sg1", "B", "0:0:1:0"), Record("/dev/sda", "DISK"),
                       Record("/dev/sdb", "B", "0:0:1:0")},
                      kernel);
    EXPECT_EQ(Cells(rows, {"DEVICE", "PRODUCT", "ADDRESS", "FILES"}),
              Strings({"sda | GENERIC | 0:0:0:0 | /dev/sda /dev/sg0", "sdb | B | 0:0:1:0 | /dev/sdb /dev/sg1"}));
}

TEST(RowsOfDevices, TheAddressIsTheKernels)
{
    const KernelDevices kernel({Disk({"/dev/sda"}, "70000:1:2:16384")});
    EXPECT_EQ(Cells(RowsOfDevices({Record("/dev/sda", "A", "4464:1:2:16384")}, kernel), {"ADDRESS"}),
              Strings({"70000:1:2:16384"}));
}

TEST(RowsOfDevices, TheFirstRecordThatHasATextGivesIt)
{
    const KernelDevices kernel({Disk({"/dev/sda", "/dev/sg0"}, "1:0:0:0")});
    StorageDevice generic = Record("/dev/sg0", "GENERIC");
    generic.vendor = "  ";
    generic.device_type = "Enclosure Device";
    StorageDevice disk = Record("/dev/sda", "DISK");
    disk.serial_number = "S1";
    disk.firmware_revision = "F1";
    disk.model = "WHOLE MODEL OF MORE THAN 16 CHARACTERS";
    disk.revision = "REVISION";
    EXPECT_EQ(Cells(RowsOfDevices({generic, disk}, kernel),
                    {"VENDOR", "PRODUCT", "TYPE", "SERIAL", "FIRMWARE", "MODEL", "REVISION"}),
              Strings({"ACME | GENERIC | enclosure | S1 | F1 | WHOLE MODEL OF MORE THAN 16 CHARACTERS | REVISION"}));
}

TEST(RowsOfDevices, ARecordWithADeviceTypeIsBetterThanOneWithout)
{
    const KernelDevices kernel({Disk({"/dev/sda"}, "1:0:0:0")});
    StorageDevice generic = Record("/dev/sda", "TWO");
    generic.vendor = "MODEL";
    generic.device_type = "";
    generic.serial_number = "S1";
    generic.model = "MODEL TWO";
    StorageDevice disk = Record("/dev/sda", "MODEL");
    disk.vendor = "ATA";
    disk.device_type = "Direct Access Device";
    const Strings expected = {"sda | ATA | MODEL | disk | S1 | MODEL TWO"};
    const Strings columns = {"DEVICE", "VENDOR", "PRODUCT", "TYPE", "SERIAL", "MODEL"};
    EXPECT_EQ(Cells(RowsOfDevices({generic, disk}, kernel), columns), expected);
    EXPECT_EQ(Cells(RowsOfDevices({disk, generic}, kernel), columns), expected);
}

TEST(RowsOfDevices, TheKernelsFieldsAreFilledIn)
{
    KernelDevice disk = Disk({"/dev/sda"}, "1:0:0:0");
    disk.scsiType = 0x14;
    disk.wwn = "0x5000c500a1b2c3d4";
    StorageDevice zoned = Record("/dev/sda", "P");
    zoned.device_type = "Write-Once Device";
    EXPECT_EQ(
        Cells(RowsOfDevices({zoned}, KernelDevices({disk})),
              {"TYPE", "SIZE", "TRANSPORT", "WWN", "STATE", "DRIVER", "SLOT", "MODEL", "REVISION", "PATHS"}),
        Strings(
            {"disk | 1K | sas | 0x5000c500a1b2c3d4 | running | mpt3sas | 6:0:9:0/Slot 03 | KERNEL MODEL | K1 | 1"}));
    KernelDevice bare;
    bare.files = {"/dev/sda"};
    bare.address = "1:0:0:0";
    EXPECT_EQ(Cells(RowsOfDevices({Record("/dev/sda", "P ")}, KernelDevices({bare})),
                    {"SIZE", "TRANSPORT", "WWN", "STATE", "DRIVER", "SLOT", "MODEL", "REVISION", "PATHS"}),
              Strings({"- | - | - | - | - | - | P | - | -"}));
}

TEST(RowsOfDevices, TwoPathsToOneDiskAreTwoRowsThatCountEachOther)
{
    KernelDevice first = Disk({"/dev/sda"}, "1:0:0:0");
    KernelDevice second = Disk({"/dev/sdb"}, "2:0:0:0");
    KernelDevice nameless = Disk({"/dev/sdc"}, "3:0:0:0");
    first.wwn = second.wwn = "0x5000c500a1b2c3d4";
    EXPECT_EQ(Cells(RowsOfDevices({Record("/dev/sda", "P"), Record("/dev/sdb", "P"), Record("/dev/sdc", "P")},
                                  KernelDevices({first, second, nameless})),
                    {"DEVICE", "WWN", "PATHS"}),
              Strings({"sda | 0x5000c500a1b2c3d4 | 2", "sdb | 0x5000c500a1b2c3d4 | 2", "sdc | - | -"}));
}

TEST(RowsOfDevices, AnNvmeControllerIsOneRowWithoutAnAddress)
{
    const KernelDevices kernel({Nvme()});
    EXPECT_EQ(Cells(RowsOfDevices({Record("/dev/nvme0n1", "P"), Record("/dev/nvme0n2", "P")}, kernel),
                    {"DEVICE", "SIZE", "WWN", "ADDRESS", "PATHS", "FILES"}),
              Strings({"nvme0n1 | 1.5K | eui.1 | - | 1 | /dev/nvme0n1 /dev/nvme0n2 /dev/nvme0"}));
}

TEST(RowsOfDevices, AnotherControllerOfASubsystemIsARowOfItsOwn)
{
    KernelDevice second = Nvme();
    second.files = {"/dev/nvme0n1", "/dev/nvme1", "/dev/ng0n1"};
    second.namespaces.erase("/dev/nvme0n2");
    second.sizeBytes = 512;
    second.state = "dead";
    second.revision = "F2";
    // Nothing of this one was asked.
    KernelDevice third = Nvme();
    third.files = {"/dev/nvme7n1", "/dev/nvme7"};
    third.namespaces = {{"/dev/nvme7n1", {512, "eui.7"}}};
    third.wwn = "eui.7";
    const KernelDevices kernel({Nvme(), second, third});
    StorageDevice first = Record("/dev/nvme0n1", "P");
    first.serial_number = "S1";
    first.firmware_revision = "F1";
    first.revision = "F1";
    EXPECT_EQ(Cells(RowsOfDevices({first, Record("/dev/nvme0n2", "P")}, kernel),
                    {"DEVICE", "SIZE", "WWN", "PATHS", "STATE", "SERIAL", "FIRMWARE", "REVISION", "ADDRESS", "FILES"}),
              Strings({"nvme0n1 | 1.5K | eui.1 | 2 | - | S1 | F1 | F1 | - | /dev/nvme0n1 /dev/nvme0n2 /dev/nvme0",
                       "nvme1 | 512B | eui.1 | 2 | dead | S1 | F2 | F2 | - | /dev/nvme0n1 /dev/nvme1 /dev/ng0n1"}));
}

TEST(RowsOfDevices, AControllerHasTheNameOfANamespaceThatNoOtherReaches)
{
    KernelDevice first = Nvme();
    first.files = {"/dev/nvme1n1", "/dev/nvme0"};
    first.namespaces = {{"/dev/nvme1n1", {512, "eui.1"}}};
    KernelDevice second = first;
    second.files = {"/dev/nvme1n1", "/dev/nvme1n2", "/dev/nvme1"};
    second.namespaces["/dev/nvme1n2"] = {512, "eui.2"};
    const KernelDevices kernel({first, second});
    EXPECT_EQ(
        Cells(RowsOfDevices({Record("/dev/nvme1n1", "P"), Record("/dev/nvme1n2", "P")}, kernel), {"DEVICE", "FILES"}),
        Strings({"nvme1n1 | /dev/nvme1n1 /dev/nvme0", "nvme1n2 | /dev/nvme1n1 /dev/nvme1n2 /dev/nvme1"}));
}

TEST(RowsOfDevices, WhatTheKernelDoesNotKnowIsMergedByAddress)
{
    const std::vector<StorageDevice> rows =
        RowsOfDevices({Record("/dev/sg0", "NOWHERE"), Record("/dev/sg1", "B", "1:0:2:0"), Record("/dev/sda", "NOWHERE"),
                       Record("/dev/sdb", "DISK", "1:0:2:0")},
                      KernelDevices({}));
    EXPECT_EQ(Cells(rows, {"DEVICE", "PRODUCT", "MODEL", "ADDRESS", "FILES", "SIZE"}),
              Strings({"sg1 | B | B | 1:0:2:0 | /dev/sg1 | -", "sg0 | NOWHERE | NOWHERE | - | /dev/sg0 | -",
                       "sda | NOWHERE | NOWHERE | - | /dev/sda | -"}));
}

TEST(RowsOfDevices, ARecordWithoutAFileIsFoundByItsAddressUnlessThatIsTheOneOfNoAddress)
{
    const KernelDevices kernel({Disk({"/dev/sda"}, "0:0:0:0"), Disk({"/dev/sdb"}, "0:0:1:0"), Disk({}, "0:0:2:0")});
    StorageDevice merged = Record("", "C");
    merged.port = merged.bus = merged.target = merged.lun = "";
    const std::vector<StorageDevice> rows = RowsOfDevices(
        {Record("", "A"), Record("", "B", "0:0:1:0"), Record("", "D", "0:0:2:0"), merged, merged}, kernel);
    EXPECT_EQ(Cells(rows, {"DEVICE", "PRODUCT", "ADDRESS"}),
              Strings({"sdb | B | 0:0:1:0", "- | D | 0:0:2:0", "- | A | -", "- | C | -", "- | C | -"}));
}

TEST(RowsOfFiles, EachFileIsARowWithItsOwnNameAndAllFilesOfItsDevice)
{
    const KernelDevices kernel({Disk({"/dev/st0", "/dev/nst0", "/dev/sg0"}, "0:0:0:0")});
    EXPECT_EQ(
        Cells(RowsOfFiles({Record("/dev/st0", "T"), Record("/dev/nst0", "T"), Record("/dev/st1", "U", "1:0:2:0"),
                           Record("/dev/st2", "V")},
                          kernel),
              {"DEVICE", "PRODUCT", "ADDRESS", "FILES"}),
        Strings({"st0 | T | 0:0:0:0 | /dev/st0 /dev/nst0 /dev/sg0", "nst0 | T | 0:0:0:0 | /dev/st0 /dev/nst0 /dev/sg0",
                 "st1 | U | 1:0:2:0 | /dev/st1", "st2 | V | - | /dev/st2"}));
}

TEST(RowsOfFiles, ANamespaceHasItsOwnSizeAndName)
{
    const KernelDevices kernel({Nvme()});
    EXPECT_EQ(Cells(RowsOfFiles({Record("/dev/nvme0n1", "P"), Record("/dev/nvme0n2", "P")}, kernel),
                    {"DEVICE", "SIZE", "WWN", "PATHS"}),
              Strings({"nvme0n1 | 512B | eui.1 | 1", "nvme0n2 | 1K | eui.2 | 1"}));
}

}  // namespace
}  // namespace Zendra::ZDDevices
