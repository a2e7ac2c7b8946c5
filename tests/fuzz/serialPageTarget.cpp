// The serial number page. Input: the page as the device sends it.

#include "identityTarget.h"

using namespace Zendra::ZDSystemDevice;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::RequireAsModelled({data, data + size}, ReadSerialPage, ZendraTest::AfterSerialPage);
    return 0;
}
