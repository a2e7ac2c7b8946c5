/**
 * @file
 * @brief A decoder of the library against the model of it, on exactly the bytes of one answer.
 */
#ifndef ZENDRA_TESTS_FUZZ_IDENTITYTARGET_H
#define ZENDRA_TESTS_FUZZ_IDENTITYTARGET_H

#include <algorithm>
#include <memory>

#include "check.h"
#include "support/busDevices.h"
#include "support/identityModel.h"

namespace Zendra {
namespace Fuzz {

/** @param header bytes that stand in front of the answer. */
template <typename Decode>
void RequireAsModelled(const Bytes& answer, Decode decode,
                       ZDSystemDevice::BusDevice (*model)(const Bytes&, ZDSystemDevice::BusDevice),
                       std::size_t header = 0)
{
    // On the heap and of this size, so that a byte too far is noticed.
    const std::size_t size = header + answer.size();
    const auto data = std::make_unique<unsigned char[]>(size);
    std::copy(answer.begin(), answer.end(), data.get() + header);
    ZDSystemDevice::BusDevice record = ZendraTest::Used();
    decode(ZDSystemDevice::AnswerBytes(data.get(), size), record);
    const std::string all = ZendraTest::All(record);
    RequireEqual(all, ZendraTest::All(model(answer, ZendraTest::Used())), "the record");
    Require(HasNoNul(all), "no text of a record holds a NUL byte");
}

}  // namespace Fuzz
}  // namespace Zendra

#endif
