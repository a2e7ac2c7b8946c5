// ATA IDENTIFY DEVICE data: both decoders, SendRcvIOCTLCMD() and UpdateFirmwareVersionForSdDisk().
//
// Input: byte 0: bit 0: the command fails; bit 1: log. Then the data in the order in which it lies in memory, that is
// with the two characters of each word swapped; missing bytes are zero.

#include <linux/hdreg.h>

#include <memory>

#include "logCapture.h"
#include "scriptedProxy.h"

using Zendra::Fuzz::Bytes;
using Zendra::Fuzz::RequireEqual;
using Zendra::ZDSystemDevice::BusDevice;

namespace {

constexpr std::size_t headerLength = 4;
constexpr std::size_t identifyLength = 512;

std::string AtaText(const Bytes& words, std::size_t offset, std::size_t length)
{
    Bytes swapped = words;
    for (std::size_t i = 0; i + 1 < swapped.size(); i += 2) {
        std::swap(swapped[i], swapped[i + 1]);
    }
    return Zendra::Fuzz::TextAt(swapped, offset, length);
}

/** Cuts the first word off the front of a text. Empty when there is none. */
std::string TakeWord(std::string& text)
{
    const auto isSpace = [](char c) { return Zendra::Fuzz::IsWhiteSpace(c); };
    text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isSpace));
    const auto end = std::find_if(text.begin(), text.end(), isSpace);
    const std::string word(text.begin(), end);
    text.erase(text.begin(), end);
    return word;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    Zendra::Fuzz::Input reader(input, size);
    const unsigned flags = reader.Byte();
    const bool fails = (flags & 1) != 0;
    const bool logs = (flags & 2) != 0;
    Bytes sent = reader.Take(identifyLength);
    sent.resize(identifyLength);
    const std::string model = AtaText(sent, 54, 40);
    const std::string revision = AtaText(sent, 46, 8);

    BusDevice expected = Zendra::Fuzz::UsedBusDevice();
    BusDevice expectedUpdate = Zendra::Fuzz::UsedBusDevice();
    std::string expectedLog;
    if (!fails) {
        expectedLog = "4 " + model + "\n";
        std::string words = model;
        const std::string first = TakeWord(words);
        const std::string second = TakeWord(words);
        expected.vendorId = first.empty() ? expected.vendorId : first;
        expected.productId = second.empty() ? expected.productId : second;
        expected.shortIdent = model.substr(0, 23);
        expected.revision = revision;
        expected.serialNum = AtaText(sent, 20, 20);
        expected.otherIdentInfo = "Port:11|Target:14|Bus:12|Lun:15";

        expectedUpdate.revision.clear();
        for (const char c : revision) {
            expectedUpdate.revision += c == ' ' ? "" : std::string(1, c);
        }
        expectedUpdate.productId = model.substr(0, model.find(' '));
    }

    const Zendra::Fuzz::Host host;
    const Zendra::Fuzz::FakeSystem system(host);
    Zendra::Fuzz::ScriptedOperator scripted;
    Zendra::Fuzz::ScriptedProxy proxy(scripted);
    scripted.answer = sent;
    scripted.skipped = headerLength;
    if (fails) {
        scripted.status = Zendra::ZDSystemDevice::DEV_FAILURE;
    }
    {
        const Zendra::Fuzz::LogCapture log(logs ? 4 : 0);
        const auto buffer = std::make_unique<unsigned char[]>(headerLength + identifyLength);
        Zendra::ZDSystemDevice::ReqIoCtlParam request;
        request.ioctlCode = HDIO_DRIVE_CMD;
        request.ioctlData = buffer.get();
        BusDevice bus = Zendra::Fuzz::UsedBusDevice();
        RequireEqual(proxy.SendRcvIOCTLCMD(request, bus), scripted.status, "the status of the command");
        RequireEqual(bus, expected);
        RequireEqual(Zendra::Fuzz::LogCapture::Lines(), logs ? expectedLog : "", "the log");
    }
    BusDevice bus = Zendra::Fuzz::UsedBusDevice();
    RequireEqual(proxy.UpdateFirmwareVersionForSdDisk("/dev/sda", bus), scripted.status, "the status of the update");
    RequireEqual(bus, expectedUpdate);
    return 0;
}
