#include "tools/zddevices/scan/access.h"

#include <sys/resource.h>

#include <cerrno>
#include <exception>
#include <system_error>

#include "toolTests.h"
#include "tools/zddevices/output/messages.h"

namespace Zendra::ZDDevices {
namespace {

using Names = std::vector<std::string>;

const Names host = {"sda",   "sda1", "sdab",  "sg10",    "sg2",       "st0",    "st0a",         "nst0",
                    "nst0a", "sr0",  "nvme0", "nvme0n1", "nvme0n1p1", "stdin",  "stdout",       "nvme10",
                    "hda",   "hda1", "null",  "sd",      "nvme0c1",   "stderr", "nvme-fabrics", "ssd"};

TEST(DeviceFileNames, TapeTakesPlainTapeNodesOnly)
{
    EXPECT_EQ(DeviceFileNames(host, ZDSystemDevice::SYS_DEVICE_TAPE), Names({"st0"}));
}

TEST(DeviceFileNames, TapeTakesEveryNonRewindingNodeWhenThereIsNoOther)
{
    EXPECT_EQ(DeviceFileNames({"nst0", "nst0a", "st0a", "stdin"}, ZDSystemDevice::SYS_DEVICE_TAPE),
              Names({"nst0", "nst0a"}));
}

TEST(DeviceFileNames, GenericTakesSgInNaturalOrder)
{
    EXPECT_EQ(DeviceFileNames(host, ZDSystemDevice::SYS_DEVICE_SCSI), Names({"sg2", "sg10"}));
}

TEST(DeviceFileNames, GenericTakesSdWhenThereIsNoSg)
{
    EXPECT_EQ(DeviceFileNames({"sda", "sda1", "sr0"}, ZDSystemDevice::SYS_DEVICE_SCSI), Names({"sda"}));
}

TEST(DeviceFileNames, DiskLeavesOutPartitionsAndControllersAsTheLibraryDoes)
{
    EXPECT_EQ(DeviceFileNames(host, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE),
              Names({"hda", "hda1", "nvme0c1", "nvme0n1", "nvme10", "sd", "sda", "sdab"}));
}

TEST(DeviceFileNames, OpticalTakesSr)
{
    EXPECT_EQ(DeviceFileNames(host, ZDSystemDevice::SYS_DEVICE_CDDVD), Names({"sr0"}));
}

TEST(DeviceFileNames, WithoutAClassEachFileCountsOnce)
{
    EXPECT_EQ(DeviceFileNames({"sda", "sr0", "st0", "nst0"}, std::nullopt), Names({"sda", "sr0", "st0"}));
    EXPECT_EQ(DeviceFileNames({}, std::nullopt), Names());
}

/** Without any descriptor left to open. */
class NoDescriptorLeft {
public:
    NoDescriptorLeft()
    {
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
        rlimit none = former;
        none.rlim_cur = 0;
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    }
    ~NoDescriptorLeft() { EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &former)); }
    NoDescriptorLeft(const NoDescriptorLeft&) = delete;
    NoDescriptorLeft& operator=(const NoDescriptorLeft&) = delete;

private:
    rlimit former{};
};

class UnlistableDirectory : public testing::TestWithParam<bool> {};

TEST_P(UnlistableDirectory, ForAnotherReasonThanPermissionsIsAFailure)
{
    std::exception_ptr thrown;
    // A sanitizer that meets a type for the first time needs descriptors of its own.
    const std::system_error met(std::error_code(), "met");
    {
        const NoDescriptorLeft limit;
        try {
            GetParam() ? static_cast<void>(FindDeniedFiles(std::nullopt))
                       : static_cast<void>(DeviceFilesOf(ZDSystemDevice::SYS_DEVICE_SCSI));
        } catch (...) {
            // Looked at later: a sanitizer needs descriptors of its own for that.
            thrown = std::current_exception();
        }
    }
    ASSERT_TRUE(thrown);
    std::error_code code;
    std::string message;
    try {
        std::rethrow_exception(thrown);
    } catch (const std::system_error& error) {
        code = error.code();
        message = error.what();
    }
    EXPECT_EQ(std::error_code(EMFILE, std::generic_category()), code);
    EXPECT_EQ("/dev cannot be listed: Too many open files", message);
}

INSTANTIATE_TEST_SUITE_P(LooksForDeniedFiles, UnlistableDirectory, testing::Bool());

TEST(DeviceFileNames, NameThatTheDirectoryGaveTwiceCountsOnce)
{
    EXPECT_EQ(DeviceFileNames({"sdb", "sda", "sda"}, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE), Names({"sda", "sdb"}));
}

TEST(DescribeDenied, SaysHowManyWhichAndHowToMendIt)
{
    EXPECT_EQ(DescribeDenied({{"/dev/sda", "disk"}, {"/dev/sg0", "disk"}, {"/dev/sr0", "cdrom"}}, false),
              "3 device files could not be opened for lack of privilege (/dev/sda, /dev/sg0, /dev/sr0); "
              "run zddevices as root, or join the groups cdrom, disk");
}

TEST(DescribeDenied, OneFileOneGroup)
{
    EXPECT_EQ(DescribeDenied({{"/dev/st0", "tape"}}, false),
              "1 device file could not be opened for lack of privilege (/dev/st0); "
              "run zddevices as root, or join the group tape");
}

TEST(DescribeDenied, WithoutAGroupOnlyRootHelps)
{
    EXPECT_EQ(DescribeDenied({{"/dev/sda", ""}}, false),
              "1 device file could not be opened for lack of privilege (/dev/sda); run zddevices as root");
}

TEST(DescribeDenied, RootIsNotToldToBecomeRoot)
{
    EXPECT_EQ(DescribeDenied({{"/dev/sda", "disk"}}, true),
              "1 device file could not be opened for lack of privilege (/dev/sda); "
              "even root may not here: grant this container or service access to the devices");
}

TEST(DescribeDenied, FileNamesCannotSteerATerminal)
{
    EXPECT_EQ(DescribeDenied({{"/dev/sd\x1b[2J", ""}}, false).find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace Zendra::ZDDevices
