#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using Bytes = std::vector<unsigned char>;

struct Block {
    std::string name;
    unsigned char* start;
    Bytes bytes;
};

std::vector<Block> ContiguousBlocks()
{
    return {{"inquiry_cmd", inquiry_cmd, {0x12, 0x00, 0x00, 0x00, 0x80, 0x00}},
            {"load_cmd", load_cmd, {0x1b, 0x00, 0x00, 0x00, 0x01, 0x00}},
            {"unload_cmd", unload_cmd, {0x1b, 0x00, 0x00, 0x00, 0x00, 0x00}},
            {"prevent_cmd", prevent_cmd, {0x1e, 0x00, 0x00, 0x00, 0x01, 0x00}},
            {"send_diags", send_diags, {0x1d, 0x00, 0x00, 0x00, 0x00, 0x00}},
            {"allow_cmd", allow_cmd, {0x1e, 0x00, 0x00, 0x00, 0x00, 0x00}},
            {"rewind_cmd", rewind_cmd, {0x01, 0x01, 0x00, 0x00, 0x00, 0x00}},
            {"tapeAlert_cmd", tapeAlert_cmd, {0x4d, 0x00, 0x6e, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00}},
            {"driveUsage_cmd", driveUsage_cmd, {0x4d, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0x00}},
            {"deviceStatus_cmd", deviceStatus_cmd, {0x4d, 0x00, 0x33, 0x00, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00}},
            {"serialinquiry_cmd", serialinquiry_cmd, {0x12, 0x01, 0x80, 0x00, 0xff, 0x00}}};
}

/** Answers the version check and accepts every command. */
class AcceptingOperator : public DataOperator {
public:
    int ExecIoCtl(ReqIoCtlParam& request) override
    {
        if (request.ioctlCode == 0x2282) {
            *static_cast<int*>(request.ioctlData) = 30000;
        }
        return DEV_SUCCESS;
    }
};

/** Tests write to the blocks; each leaves them as it found them. */
class CommandBlocks : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const Block& block : ContiguousBlocks()) {
            before.insert(before.end(), block.start, block.start + block.bytes.size());
        }
    }
    void TearDown() override
    {
        std::size_t next = 0;
        for (const Block& block : ContiguousBlocks()) {
            for (std::size_t i = 0; i < block.bytes.size(); ++i) {
                block.start[i] = before[next++];
            }
        }
    }

    static void Send(unsigned char* block, int length)
    {
        unsigned char answer[255] = {};
        AcceptingOperator device;
        ReqPassThruParam request;
        request.driveName = "/dev/sg0";
        request.cdb = block;
        request.cdbLength = length;
        request.dataBuffer = answer;
        EXPECT_EQ(DEV_SUCCESS, device.ExecPassThruCmd(request));
    }

private:
    Bytes before;
};

TEST_F(CommandBlocks, HoldTheirBytes)
{
    for (const Block& block : ContiguousBlocks()) {
        EXPECT_EQ(block.bytes, Bytes(block.start, block.start + block.bytes.size())) << block.name;
    }
    EXPECT_EQ(Bytes(6, 0), Bytes(test_unit_ready, test_unit_ready + 6));
}

TEST_F(CommandBlocks, HaveTheSizesOfTheirCommands)
{
    EXPECT_EQ(6U, sizeof inquiry_cmd);
    EXPECT_EQ(6U, sizeof load_cmd);
    EXPECT_EQ(6U, sizeof unload_cmd);
    EXPECT_EQ(6U, sizeof prevent_cmd);
    EXPECT_EQ(6U, sizeof send_diags);
    EXPECT_EQ(6U, sizeof allow_cmd);
    EXPECT_EQ(6U, sizeof rewind_cmd);
    EXPECT_EQ(10U, sizeof tapeAlert_cmd);
    EXPECT_EQ(10U, sizeof driveUsage_cmd);
    EXPECT_EQ(10U, sizeof deviceStatus_cmd);
    EXPECT_EQ(6U, sizeof serialinquiry_cmd);
    EXPECT_EQ(6U, sizeof test_unit_ready);
}

TEST_F(CommandBlocks, FollowOneAnotherWithoutAGap)
{
    const std::vector<Block> blocks = ContiguousBlocks();
    for (std::size_t i = 1; i < blocks.size(); ++i) {
        EXPECT_EQ(static_cast<void*>(blocks[i - 1].start + blocks[i - 1].bytes.size()),
                  static_cast<void*>(blocks[i].start))
            << blocks[i - 1].name << " and " << blocks[i].name;
    }
}

TEST_F(CommandBlocks, AreTheLibrarysOwnAndNotCopies)
{
    void* const library = dlopen("libdeviceCollector.so.1", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(nullptr, library) << dlerror();
    std::vector<Block> blocks = ContiguousBlocks();
    blocks.push_back({"test_unit_ready", test_unit_ready, {}});
    for (const Block& block : blocks) {
        const std::string mangled = "_ZN6Zendra14ZDSystemDevice" + std::to_string(block.name.size()) + block.name + "E";
        EXPECT_EQ(dlsym(library, mangled.c_str()), static_cast<void*>(block.start)) << block.name;
    }
    dlclose(library);
}

TEST_F(CommandBlocks, SendingASixByteBlockChangesTwoBytesOfItsNeighbourOnly)
{
    Bytes expected = Bytes(inquiry_cmd, serialinquiry_cmd + 6);
    load_cmd[1] = 0x77;
    load_cmd[2] = 0x77;
    Send(inquiry_cmd, 6);
    expected[7] = 0x00;
    expected[8] = 0xff;
    EXPECT_EQ(expected, Bytes(inquiry_cmd, serialinquiry_cmd + 6));
    EXPECT_EQ(0x00, load_cmd[1]);
    EXPECT_EQ(0xff, load_cmd[2]);
}

TEST_F(CommandBlocks, SendingATenByteBlockSetsItsAllocationLengthTo255)
{
    Bytes expected = Bytes(inquiry_cmd, serialinquiry_cmd + 6);
    Send(driveUsage_cmd, 10);
    const std::size_t start = static_cast<std::size_t>(driveUsage_cmd - inquiry_cmd);
    expected[start + 7] = 0x00;
    expected[start + 8] = 0xff;
    EXPECT_EQ(expected, Bytes(inquiry_cmd, serialinquiry_cmd + 6));
}

TEST_F(CommandBlocks, SendingTheLastContiguousBlockTouchesNoOtherBlock)
{
    const Bytes expected(inquiry_cmd, serialinquiry_cmd + 6);
    Send(serialinquiry_cmd, 6);
    EXPECT_EQ(expected, Bytes(inquiry_cmd, serialinquiry_cmd + 6));
    EXPECT_EQ(Bytes(6, 0), Bytes(test_unit_ready, test_unit_ready + 6));
}

TEST_F(CommandBlocks, SendingTestUnitReadyTouchesNoOtherBlock)
{
    const Bytes expected(inquiry_cmd, serialinquiry_cmd + 6);
    Send(test_unit_ready, 6);
    EXPECT_EQ(expected, Bytes(inquiry_cmd, serialinquiry_cmd + 6));
    EXPECT_EQ(Bytes(6, 0), Bytes(test_unit_ready, test_unit_ready + 6));
}

TEST_F(CommandBlocks, EveryByteWrittenBehindABlockLiesInsideTheLibrarysData)
{
    // The nearest symbol of every byte written to must be one of the library: dladdr names the object.
    std::vector<Block> blocks = ContiguousBlocks();
    blocks.push_back({"test_unit_ready", test_unit_ready, {}});
    for (const Block& block : blocks) {
        Dl_info start{};
        Dl_info end{};
        ASSERT_NE(0, dladdr(block.start, &start));
        ASSERT_NE(0, dladdr(block.start + 8, &end));
        EXPECT_EQ(start.dli_fbase, end.dli_fbase) << block.name;
        EXPECT_NE(std::string::npos, std::string(start.dli_fname).find("libdeviceCollector.so")) << start.dli_fname;
    }
}

}  // namespace
