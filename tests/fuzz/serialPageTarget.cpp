// The serial number page: SendRcvPassthroughCMD() with an operator that hands over the page.
//
// Input: byte 0: bit 0: log; bit 1: the command fails; bit 2: the answer is of no known kind. Then the page as the
// device sends it, up to 255 bytes; missing bytes are zero.

#include <memory>

#include "logCapture.h"
#include "scriptedProxy.h"

using Zendra::Fuzz::Bytes;
using Zendra::Fuzz::RequireEqual;
using Zendra::ZDSystemDevice::BusDevice;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t bufferLength = 255;
    constexpr std::size_t longestSerial = 32;
    Zendra::Fuzz::Input input(data, size);
    const unsigned flags = input.Byte();
    const bool fails = (flags & 2) != 0;
    const bool unknownKind = (flags & 4) != 0;
    Bytes page = input.Take(bufferLength);
    page.resize(bufferLength);

    BusDevice expected = Zendra::Fuzz::UsedBusDevice();
    std::string expectedLog;
    if (!fails && !unknownKind) {
        const std::size_t length = page[3];
        if (length > longestSerial) {
            expectedLog = "4 Size pointer is too large.\n";
        } else if (length < 2) {
            expected.serialNum.clear();
            expectedLog = "4 Size pointer is too small, size<=1\n";
        } else {
            expected.serialNum = Zendra::Fuzz::TextAt(page, 4, length);
            expectedLog = "4 Serial Number: " + expected.serialNum + "\n";
        }
    }

    const Zendra::Fuzz::Host host;
    const Zendra::Fuzz::FakeSystem system(host);
    Zendra::Fuzz::ScriptedOperator scripted;
    Zendra::Fuzz::ScriptedProxy proxy(scripted);
    scripted.answer = page;
    if (fails) {
        scripted.status = Zendra::ZDSystemDevice::DEV_OPEN_FAILED;
    }
    const auto buffer = std::make_unique<unsigned char[]>(bufferLength);
    Zendra::ZDSystemDevice::ReqPassThruParam request;
    request.dataBuffer = buffer.get();
    BusDevice bus = Zendra::Fuzz::UsedBusDevice();
    const bool logs = (flags & 1) != 0;
    const Zendra::Fuzz::LogCapture log(logs ? 4 : 0);
    const auto kind = static_cast<Zendra::ZDSystemDevice::Passthrough_cmd_type>(unknownKind ? 12 : 11);
    RequireEqual(proxy.SendRcvPassthroughCMD(request, bus, kind), scripted.status, "the status of the command");
    RequireEqual(bus, expected);
    Zendra::Fuzz::Require(bus.serialNum.size() <= longestSerial, "a serial number has at most 32 characters");
    RequireEqual(Zendra::Fuzz::LogCapture::Lines(), logs ? expectedLog : "", "the log");
    return 0;
}
