#include "support/scriptedOperator.h"

#include <gtest/gtest.h>
#include <linux/nvme_ioctl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace ZendraTest {

using Zendra::ZDSystemDevice::ReqIoCtlParam;
using Zendra::ZDSystemDevice::ReqPassThruParam;

namespace {

constexpr std::size_t passThruBufferSize = 4096;

/** Answers outside the argument that the kernel would write are the test's own mistake. */
void Write(void* target, std::size_t room, const Bytes& answer)
{
    ASSERT_LE(answer.size(), room);
    if (!answer.empty()) {
        std::memcpy(target, answer.data(), answer.size());
    }
}

Step Command(const char* name, const std::string& path, unsigned char* cdb, const Bytes& cdbBytes, const Bytes& answer,
             int status)
{
    Step step;
    step.name = name;
    step.passThrough = true;
    step.passThru = [=](const ReqPassThruParam& request) {
        EXPECT_EQ(path, request.driveName);
        EXPECT_EQ(cdb, request.cdb);
        EXPECT_EQ(6, request.cdbLength);
        EXPECT_EQ(cdbBytes, Bytes(request.cdb, request.cdb + 6));
        if (request.dataBuffer == nullptr) {
            ADD_FAILURE() << "no buffer for the answer";
            return 5;
        }
        EXPECT_EQ(Bytes(passThruBufferSize, 0), Bytes(request.dataBuffer, request.dataBuffer + passThruBufferSize));
        if (status == 4) {
            Write(request.dataBuffer, 255, answer);
        }
        return status;
    };
    return step;
}

Step IoCtl(const char* name, const std::string& path, unsigned code, const Bytes& argument, const Bytes& answer,
           int status)
{
    Step step;
    step.name = name;
    step.ioCtl = [=](const ReqIoCtlParam& request) {
        EXPECT_EQ(path, request.driveName);
        EXPECT_EQ(static_cast<int>(code), request.ioctlCode);
        if (request.ioctlData == nullptr) {
            ADD_FAILURE() << "no argument";
            return 5;
        }
        const auto* const bytes = static_cast<const unsigned char*>(request.ioctlData);
        EXPECT_EQ(argument, Bytes(bytes, bytes + argument.size()));
        if (status == 4) {
            Write(request.ioctlData, argument.size(), answer);
        }
        return status;
    };
    return step;
}

void AppendInt(Bytes& bytes, int value)
{
    unsigned char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.insert(bytes.end(), raw, raw + sizeof value);
}

void Place(Bytes& bytes, std::size_t offset, std::size_t width, const std::string& text, bool swapped)
{
    for (std::size_t i = 0; i < width; ++i) {
        const char c = i < text.size() ? text[i] : ' ';
        bytes[offset + (swapped ? (i ^ 1U) : i)] = static_cast<unsigned char>(c);
    }
}

}  // namespace

Step Inquiry(const std::string& path, const Bytes& answer, int status)
{
    return Command("INQUIRY", path, Zendra::ZDSystemDevice::inquiry_cmd, {0x12, 0, 0, 0, 0x80, 0}, answer, status);
}

Step SerialPage(const std::string& path, const Bytes& answer, int status)
{
    return Command("INQUIRY page 0x80", path, Zendra::ZDSystemDevice::serialinquiry_cmd, {0x12, 1, 0x80, 0, 0xff, 0},
                   answer, status);
}

Step ScsiId(const std::string& path, int host, int channel, int id, int lun, int status)
{
    Bytes answer;
    for (const int value : {host, channel, id, lun}) {
        AppendInt(answer, value);
    }
    return IoCtl("SG_GET_SCSI_ID", path, 0x2276, Bytes(32, 0), answer, status);
}

Step IdLun(const std::string& path, unsigned value, int status)
{
    Bytes answer;
    AppendInt(answer, static_cast<int>(value));
    AppendInt(answer, 0x5a5a5a5a);  // host_unique_id, which nobody may take for an address
    return IoCtl("SCSI_IOCTL_GET_IDLUN", path, 0x5382, Bytes(8, 0), answer, status);
}

Step BusNumber(const std::string& path, int host, int status)
{
    Bytes answer;
    AppendInt(answer, host);
    return IoCtl("SCSI_IOCTL_GET_BUS_NUMBER", path, 0x5386, Bytes(4, 0), answer, status);
}

Step AtaIdentify(const std::string& path, const Bytes& answer, int status)
{
    Bytes argument(516, 0);
    argument[0] = 0xEC;
    argument[3] = 1;
    Bytes whole = argument;
    std::copy(answer.begin(), answer.end(), whole.begin() + 4);
    // The kernel puts status, error and sector count where the header was.
    whole[0] = 0x50;
    whole[1] = 0x00;
    return IoCtl("HDIO_DRIVE_CMD", path, 0x031f, argument, whole, status);
}

Step NvmeIdentify(const std::string& path, const Bytes& answer, int status)
{
    Step step;
    step.name = "NVME_IOCTL_ADMIN_CMD";
    step.ioCtl = [=](const ReqIoCtlParam& request) {
        EXPECT_EQ(path, request.driveName);
        EXPECT_EQ(static_cast<int>(0xc0484e41U), request.ioctlCode);
        static_assert(sizeof(nvme_admin_cmd) == 72);
        nvme_admin_cmd command;
        std::memcpy(&command, request.ioctlData, sizeof command);
        auto* const data = reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(command.addr));
        if (data == nullptr) {
            ADD_FAILURE() << "no buffer for the answer";
            return 5;
        }
        nvme_admin_cmd expected;
        std::memset(&expected, 0, sizeof expected);
        expected.opcode = 0x06;
        expected.addr = command.addr;
        expected.data_len = 4096;
        expected.cdw10 = 1;
        EXPECT_EQ(0, std::memcmp(&expected, &command, sizeof command));
        EXPECT_EQ(Bytes(4096, 0), Bytes(data, data + 4096));
        if (status == 4) {
            Write(data, 4096, answer);
        }
        return status;
    };
    return step;
}

ScriptedOperator::ScriptedOperator(std::vector<Step> steps, int* deletions)
    : pending(std::make_move_iterator(steps.begin()), std::make_move_iterator(steps.end())), deletionCounter(deletions)
{
}

ScriptedOperator::~ScriptedOperator()
{
    for (const Step& step : pending) {
        ADD_FAILURE() << "never requested: " << step.name;
    }
    if (deletionCounter != nullptr) {
        ++*deletionCounter;
    }
}

int ScriptedOperator::ExecIoCtl(ReqIoCtlParam& request)
{
    if (pending.empty() || pending.front().passThrough) {
        ADD_FAILURE() << "unexpected ioctl 0x" << std::hex << request.ioctlCode << " on " << request.driveName;
        return 5;
    }
    const Step step = std::move(pending.front());
    pending.pop_front();
    SCOPED_TRACE(step.name);
    return step.ioCtl(request);
}

int ScriptedOperator::ExecPassThruCmd(ReqPassThruParam& request)
{
    if (pending.empty() || !pending.front().passThrough) {
        ADD_FAILURE() << "unexpected SCSI command on " << request.driveName;
        return 5;
    }
    const Step step = std::move(pending.front());
    pending.pop_front();
    SCOPED_TRACE(step.name);
    return step.passThru(request);
}

Bytes InquiryData(unsigned char type, const std::string& vendor, const std::string& product,
                  const std::string& revision)
{
    Bytes data(96, 0);
    data[0] = type;
    data[2] = 5;
    data[3] = 2;
    data[4] = 91;
    Place(data, 8, 8, vendor, false);
    Place(data, 16, 16, product, false);
    Place(data, 32, 4, revision, false);
    return data;
}

Bytes SerialPageData(const std::string& serial)
{
    Bytes data(4 + serial.size(), 0);
    data[1] = 0x80;
    data[3] = static_cast<unsigned char>(serial.size());
    std::copy(serial.begin(), serial.end(), data.begin() + 4);
    return data;
}

Bytes AtaData(const std::string& model, const std::string& revision, const std::string& serial)
{
    Bytes data(512, 0);
    Place(data, 20, 20, serial, true);
    Place(data, 46, 8, revision, true);
    Place(data, 54, 40, model, true);
    return data;
}

Bytes NvmeData(const std::string& serial, const std::string& model, const std::string& revision)
{
    Bytes data(4096, 0);
    Place(data, 4, 20, serial, false);
    Place(data, 24, 40, model, false);
    Place(data, 64, 8, revision, false);
    return data;
}

}  // namespace ZendraTest
