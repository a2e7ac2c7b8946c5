// Standard INQUIRY data: ProcessInquiryData() alone on exactly the bytes that it may look at.
//
// Input: the data as the device sends it. Missing bytes are zero, more than 36 are not looked at.

#include <memory>

#include "scriptedProxy.h"

using Zendra::Fuzz::Bytes;
using Zendra::Fuzz::RequireEqual;
using Zendra::Fuzz::TextAt;
using Zendra::ZDSystemDevice::BusDevice;

namespace {

constexpr std::size_t shortestInquiryData = 36;

/** Blanks and tabs at both ends go, unless there is nothing else. */
std::string Trimmed(std::string text)
{
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    if (std::all_of(text.begin(), text.end(), isBlank)) {
        return text;
    }
    while (isBlank(text.front())) {
        text.erase(0, 1);
    }
    while (isBlank(text.back())) {
        text.pop_back();
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    static const char* const types[16] = {"Direct Access Device",
                                          "Sequential Access Device",
                                          "Printer Device",
                                          "Processor Device",
                                          "Write-Once Device",
                                          "CD-ROM Device",
                                          "Scanner Device",
                                          "Optical Memory Device",
                                          "Medium Changer Device",
                                          "Communications Device",
                                          "Graphic Arts Device",
                                          "Graphic Arts Device",
                                          "Storage Array Controller",
                                          "Enclosure Device",
                                          "Simple Direct Access Device",
                                          "Optical Card Reader Device"};
    Bytes sent(input, input + std::min(size, shortestInquiryData));
    sent.resize(shortestInquiryData);
    BusDevice expected = Zendra::Fuzz::UsedBusDevice();
    expected.inquiryString = TextAt(sent, 8, 28);
    expected.vendorId = Trimmed(TextAt(sent, 8, 8));
    expected.productId = TextAt(sent, 16, 16);
    expected.productId = Trimmed(expected.productId.empty() ? expected.vendorId : expected.productId);
    expected.revision = TextAt(sent, 32, 4);
    expected.deviceType = types[sent[0] % 16];

    const Zendra::Fuzz::Host host;
    const Zendra::Fuzz::FakeSystem system(host);
    Zendra::Fuzz::ScriptedOperator nobody;
    Zendra::Fuzz::ScriptedProxy proxy(nobody);
    // On the heap and of this size, so that a byte too far is noticed.
    const auto data = std::make_unique<unsigned char[]>(shortestInquiryData);
    std::copy(sent.begin(), sent.end(), data.get());
    BusDevice bus = Zendra::Fuzz::UsedBusDevice();
    RequireEqual(proxy.ProcessInquiryData(data.get(), &bus), 0, "what ProcessInquiryData returns");
    RequireEqual(bus, expected);
    Zendra::Fuzz::Require(std::equal(sent.begin(), sent.end(), data.get()), "the answer is not written to");
    return 0;
}
