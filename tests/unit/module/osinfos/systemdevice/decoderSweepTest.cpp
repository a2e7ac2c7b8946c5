// Every byte of an answer is the device's to choose, and so is where the answer ends. The decoders get answers of
// every length and of random content in memory that ends exactly where the answer's buffer does, so that a read
// of one byte too many is a crash; what they must make of each is worked out here a second time, the slow way.

#include <gtest/gtest.h>
#include <linux/nvme_ioctl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <sstream>
#include <string>

#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/deviceTest.h"
#include "support/guardedBuffer.h"
#include "support/scriptedOperator.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;

constexpr int randomRounds = 3000;

/** Copies the answer to wherever the request points and asks nothing. */
class AnsweringOperator : public DataOperatorInterface {
public:
    int ExecIoCtl(ReqIoCtlParam& request) override
    {
        auto* target = static_cast<unsigned char*>(request.ioctlData);
        if (request.ioctlCode == static_cast<int>(0xc0484e41U)) {
            nvme_admin_cmd command;
            std::memcpy(&command, request.ioctlData, sizeof command);
            target = reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(command.addr));
        }
        std::copy(answer.begin(), answer.end(), target);
        return DEV_SUCCESS;
    }
    int ExecPassThruCmd(ReqPassThruParam& request) override
    {
        std::copy(answer.begin(), answer.end(), request.dataBuffer);
        return DEV_SUCCESS;
    }
    Bytes answer;
};

std::string UpToZero(const unsigned char* data, std::size_t width)
{
    std::string text;
    for (std::size_t i = 0; i < width && data[i] != 0; ++i) {
        text += static_cast<char>(data[i]);
    }
    return text;
}

std::string Cut(const std::string& text)
{
    std::size_t first = 0;
    std::size_t last = text.size();
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (first < last && blank(text[first])) {
        ++first;
    }
    while (last > first && blank(text[last - 1])) {
        --last;
    }
    return first == last ? text : text.substr(first, last - first);
}

std::string Swapped(const unsigned char* data, std::size_t width)
{
    Bytes swapped(width);
    for (std::size_t i = 0; i < width; ++i) {
        swapped[i ^ 1U] = data[i];
    }
    return UpToZero(swapped.data(), width);
}

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

class DecoderSweep : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        proxy = new Scripted<PhysicalDriveProxy>;
        device = new AnsweringOperator;
        proxy->Use(device);
    }
    void TearDown() override
    {
        delete proxy;
        DeviceTest::TearDown();
    }

    void CheckInquiry(const Bytes& data)
    {
        GuardedBuffer buffer(36);
        std::copy(data.begin(), data.end(), buffer.Data());
        BusDevice record;
        record.serialNum = "untouched";
        ASSERT_EQ(0, proxy->ProcessInquiryData(buffer.Data(), &record));
        const unsigned char* const bytes = buffer.Data();
        ASSERT_EQ(UpToZero(bytes + 8, 28), record.inquiryString);
        ASSERT_EQ(Cut(UpToZero(bytes + 8, 8)), record.vendorId);
        const std::string product = UpToZero(bytes + 16, 16);
        ASSERT_EQ(product.empty() ? Cut(UpToZero(bytes + 8, 8)) : Cut(product), record.productId);
        ASSERT_EQ(UpToZero(bytes + 32, 4), record.revision);
        ASSERT_EQ(proxy->GetDeviceTypeString(bytes[0] & 0x0f), record.deviceType);
        ASSERT_EQ("untouched", record.serialNum);
    }

    void CheckSerial(const Bytes& page)
    {
        GuardedBuffer buffer(page.size());
        device->answer = page;
        ReqPassThruParam request;
        request.dataBuffer = buffer.Data();
        BusDevice record;
        record.serialNum = "old";
        ASSERT_EQ(DEV_SUCCESS, proxy->SendRcvPassthroughCMD(request, record, PT_SERIAL_INQUIRY));
        const std::size_t length = page[3];
        std::string expected = "old";
        if (length <= 1) {
            expected = "";
        } else if (length <= 32) {
            expected = UpToZero(page.data() + 4, length);
        }
        ASSERT_EQ(expected, record.serialNum);
    }

    void CheckAta(const Bytes& answer)
    {
        GuardedBuffer buffer(516);
        device->answer = Bytes(4, 0);
        device->answer.insert(device->answer.end(), answer.begin(), answer.end());
        device->answer.resize(516, 0);
        ReqIoCtlParam request;
        request.ioctlCode = 0x031f;
        request.ioctlData = buffer.Data();
        BusDevice record;
        record.vendorId = "old vendor";
        record.productId = "old product";
        ASSERT_EQ(DEV_SUCCESS, proxy->SendRcvIOCTLCMD(request, record));
        const unsigned char* const data = buffer.Data() + 4;
        const std::string model = Swapped(data + 54, 40);
        std::string vendor = "old vendor";
        std::string product = "old product";
        std::istringstream words(model);
        words.imbue(std::locale::classic());
        std::string word;
        if (words >> word) {
            vendor = word;
        }
        if (words >> word) {
            product = word;
        }
        ASSERT_EQ(vendor, record.vendorId);
        ASSERT_EQ(product, record.productId);
        ASSERT_EQ(model.substr(0, 23), record.shortIdent);
        ASSERT_EQ(Swapped(data + 46, 8), record.revision);
        ASSERT_EQ(Swapped(data + 20, 20), record.serialNum);
    }

    void CheckAtaUpdate(const Bytes& answer)
    {
        device->answer = Bytes(4, 0);
        device->answer.insert(device->answer.end(), answer.begin(), answer.end());
        device->answer.resize(516, 0);
        BusDevice record;
        record.vendorId = "old vendor";
        ASSERT_EQ(4U, proxy->UpdateFirmwareVersionForSdDisk("/dev/sda", record));
        const unsigned char* const data = device->answer.data() + 4;
        std::string revision = Swapped(data + 46, 8);
        revision.erase(std::remove(revision.begin(), revision.end(), ' '), revision.end());
        const std::string model = Swapped(data + 54, 40);
        ASSERT_EQ(revision, record.revision);
        ASSERT_EQ(model.substr(0, model.find(' ')), record.productId);
        ASSERT_EQ("old vendor", record.vendorId);
    }

    void CheckNvme(const Bytes& answer)
    {
        GuardedBuffer buffer(4096);
        device->answer = answer;
        nvme_admin_cmd command;
        std::memset(&command, 0, sizeof command);
        command.addr = reinterpret_cast<std::uintptr_t>(buffer.Data());
        command.data_len = 4096;
        ReqIoCtlParam request;
        request.ioctlCode = static_cast<int>(0xc0484e41U);
        request.ioctlData = &command;
        BusDevice record;
        ASSERT_EQ(DEV_SUCCESS, proxy->SendRcvIOCTLCMD(request, record));
        Bytes whole = answer;
        whole.resize(4096, 0);
        ASSERT_EQ("NVMe", record.vendorId);
        ASSERT_EQ(UpToZero(whole.data() + 24, 39), record.productId);
        ASSERT_EQ(UpToZero(whole.data() + 64, 4096 - 64), record.revision);
        ASSERT_EQ(UpToZero(whole.data() + 4, 19), record.serialNum);
        ASSERT_EQ("Direct Access Device", record.deviceType);
    }

    Scripted<PhysicalDriveProxy>* proxy = nullptr;
    AnsweringOperator* device = nullptr;
};

TEST_F(DecoderSweep, InquiryDataOfEveryLength)
{
    for (const Bytes& full : {InquiryData(0x05, "ABCDEFGH", "0123456789abcdef", "WXYZ"),
                              InquiryData(0x1f, " \tAB \t", "\t P \t", " 1"), Bytes(36, 0xff), Bytes(36, ' ')}) {
        for (std::size_t length = 0; length <= 36; ++length) {
            CheckInquiry(Bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length)));
            if (HasFatalFailure()) {
                FAIL() << "length " << length;
            }
        }
    }
}

TEST_F(DecoderSweep, InquiryDataOfRandomBytes)
{
    std::mt19937 random(1);
    for (int round = 0; round < randomRounds && !HasFatalFailure(); ++round) {
        CheckInquiry(RandomBytes(random, 36));
    }
}

TEST_F(DecoderSweep, SerialPageOfEveryLengthReadsNoByteBehindIt)
{
    for (std::size_t length = 0; length < 256 && !HasFatalFailure(); ++length) {
        SCOPED_TRACE(length);
        // A refused page is not read at all, so that its header is all there needs to be.
        const std::size_t present = length > 32 || length <= 1 ? 0 : length;
        Bytes page = {0, 0x80, 0, static_cast<unsigned char>(length)};
        page.insert(page.end(), present, 'S');
        CheckSerial(page);
    }
}

TEST_F(DecoderSweep, SerialPageOfRandomBytes)
{
    std::mt19937 random(2);
    for (int round = 0; round < randomRounds && !HasFatalFailure(); ++round) {
        Bytes page = RandomBytes(random, 4 + 32);
        if (round % 2 == 0) {
            page[3] = static_cast<unsigned char>(random() % 40);
        }
        CheckSerial(page);
    }
}

TEST_F(DecoderSweep, AtaIdentifyDataOfEveryLength)
{
    const Bytes full = AtaData("WDC WD5000AAKX-001CA0 third", " 15.01H1", "  WD-WCAYUJ123456");
    for (std::size_t length = 0; length <= 512 && !HasFatalFailure(); ++length) {
        SCOPED_TRACE(length);
        const Bytes data(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length));
        CheckAta(data);
        CheckAtaUpdate(data);
    }
}

TEST_F(DecoderSweep, AtaIdentifyDataOfRandomBytes)
{
    std::mt19937 random(3);
    for (int round = 0; round < randomRounds && !HasFatalFailure(); ++round) {
        const Bytes data = RandomBytes(random, 512);
        CheckAta(data);
        CheckAtaUpdate(data);
    }
    CheckAta(Bytes(512, 'x'));
    CheckAtaUpdate(Bytes(512, 'x'));
}

TEST_F(DecoderSweep, NvmeIdentifyDataOfEveryLength)
{
    Bytes full(4096);
    for (std::size_t i = 0; i < full.size(); ++i) {
        full[i] = static_cast<unsigned char>('A' + i % 26);
    }
    for (std::size_t length = 0; length <= 4096 && !HasFatalFailure(); ++length) {
        SCOPED_TRACE(length);
        CheckNvme(Bytes(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length)));
    }
}

TEST_F(DecoderSweep, NvmeIdentifyDataOfRandomBytes)
{
    std::mt19937 random(4);
    for (int round = 0; round < randomRounds && !HasFatalFailure(); ++round) {
        CheckNvme(RandomBytes(random, 4096));
    }
}

TEST_F(DecoderSweep, NvmeIdentifyDataWithoutAZeroByteStopsAtTheEndOfTheBuffer)
{
    CheckNvme(Bytes(4096, 'x'));
}

}  // namespace
