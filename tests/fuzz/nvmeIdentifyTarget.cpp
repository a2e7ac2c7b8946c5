// NVMe Identify Controller data. Input: the data as the controller sends it.

#include "identityTarget.h"

using namespace Zendra::ZDSystemDevice;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::RequireAsModelled({data, data + size}, ReadNvmeIdentity, ZendraTest::AfterNvmeIdentify);
    return 0;
}
