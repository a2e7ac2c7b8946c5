// Standard INQUIRY data. Input: the data as the device sends it.

#include "identityTarget.h"

using namespace Zendra::ZDSystemDevice;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::RequireAsModelled({data, data + size}, ReadInquiry, ZendraTest::AfterInquiry);
    return 0;
}
