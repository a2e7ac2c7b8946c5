// NVMe Identify Controller data: SendRcvIOCTLCMD() with an operator that hands over the data.
//
// Input: byte 0: bit 0: the command fails. Then the data as the controller sends it; missing bytes are zero.

#include <linux/nvme_ioctl.h>
#include <sys/ioctl.h>

#include <cstring>
#include <memory>

#include "scriptedProxy.h"

using Zendra::Fuzz::Bytes;
using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using Zendra::Fuzz::TextAt;
using Zendra::ZDSystemDevice::BusDevice;

namespace {

constexpr std::size_t identifyLength = 4096;
constexpr std::size_t revisionOffset = 64;

/** Writes through the command's address, as the kernel does. */
class NvmeOperator : public Zendra::Fuzz::ScriptedOperator {
public:
    int ExecIoCtl(Zendra::ZDSystemDevice::ReqIoCtlParam& request) override
    {
        nvme_admin_cmd command{};
        std::memcpy(&command, request.ioctlData, sizeof command);
        Zendra::ZDSystemDevice::ReqIoCtlParam inner;
        inner.ioctlData = reinterpret_cast<void*>(static_cast<std::uintptr_t>(command.addr));
        return ScriptedOperator::ExecIoCtl(inner);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    Zendra::Fuzz::Input reader(input, size);
    const bool fails = (reader.Byte() & 1) != 0;
    Bytes sent = reader.Take(identifyLength);
    sent.resize(identifyLength);
    BusDevice expected = Zendra::Fuzz::UsedBusDevice();
    if (!fails) {
        expected.vendorId = "NVMe";
        expected.serialNum = TextAt(sent, 4, 19);
        expected.productId = TextAt(sent, 24, 39);
        expected.revision = TextAt(sent, revisionOffset, identifyLength - revisionOffset);
        expected.deviceType = "Direct Access Device";
    }

    const Zendra::Fuzz::Host host;
    const Zendra::Fuzz::FakeSystem system(host);
    NvmeOperator scripted;
    Zendra::Fuzz::ScriptedProxy proxy(scripted);
    scripted.answer = sent;
    if (fails) {
        scripted.status = Zendra::ZDSystemDevice::DEV_FAILURE;
    }
    const auto data = std::make_unique<unsigned char[]>(identifyLength);
    nvme_admin_cmd command{};
    command.addr = reinterpret_cast<std::uintptr_t>(data.get());
    Zendra::ZDSystemDevice::ReqIoCtlParam request;
    request.ioctlCode = static_cast<int>(NVME_IOCTL_ADMIN_CMD);
    request.ioctlData = &command;
    BusDevice bus = Zendra::Fuzz::UsedBusDevice();
    RequireEqual(proxy.SendRcvIOCTLCMD(request, bus), scripted.status, "the status of the command");
    RequireEqual(bus, expected);
    Require(bus.revision.size() <= identifyLength - revisionOffset, "a revision lies within the 4096 bytes");
    if (!fails) {
        sent[23] = sent[63] = 0;
        Require(std::equal(sent.begin(), sent.end(), data.get()), "of the data only bytes 23 and 63 are written to");
    }
    return 0;
}
