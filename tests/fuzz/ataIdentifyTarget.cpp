// ATA IDENTIFY DEVICE data, as it becomes a record and as it updates the firmware of one. Input: the data in the order
// in which it lies in memory, that is with the two characters of each word swapped.

#include "identityTarget.h"

using namespace Zendra::ZDSystemDevice;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Zendra::Fuzz::Bytes answer(data, data + size);
    Zendra::Fuzz::RequireAsModelled(
        answer, [](AnswerBytes bytes, BusDevice& bus) { StoreAtaIdentity(ReadAtaIdentity(bytes), bus); },
        ZendraTest::AfterAtaIdentify, AtaIdentify::headerLength);
    Zendra::Fuzz::RequireAsModelled(
        answer, [](AnswerBytes bytes, BusDevice& bus) { StoreAtaFirmware(ReadAtaIdentity(bytes), bus); },
        ZendraTest::AfterAtaFirmware, AtaIdentify::headerLength);
    return 0;
}
