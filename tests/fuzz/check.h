/**
 * @file
 * @brief What every fuzz target needs: reading its input, and stopping where the library breaks a promise.
 */
#ifndef ZENDRA_TESTS_FUZZ_CHECK_H
#define ZENDRA_TESTS_FUZZ_CHECK_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Zendra {
namespace Fuzz {

using Bytes = std::vector<unsigned char>;

/** Ends the process with a message when `kept` is false; the fuzzer keeps the input that led here. */
void Require(bool kept, std::string_view promise);

/** As Require(actual == expected), and shows both. */
void RequireEqual(const std::string& actual, const std::string& expected, std::string_view promise);
void RequireEqual(std::int64_t actual, std::int64_t expected, std::string_view promise);

/** No text of a record holds a NUL byte. */
inline bool HasNoNul(const std::string& text)
{
    return text.find('\0') == std::string::npos;
}

/** Whether the C locale calls it white space. */
inline bool IsWhiteSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/** Takes the input from front to back. Behind its end there are zeros. */
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : next(data), left(size) {}

    bool IsEmpty() const { return left == 0; }

    std::uint8_t Byte()
    {
        if (left == 0) {
            return 0;
        }
        --left;
        return *next++;
    }

    /** Low byte first, as all numbers of the formats. */
    std::uint16_t Number16()
    {
        const unsigned low = Byte();
        return static_cast<std::uint16_t>(low | static_cast<unsigned>(Byte()) << 8);
    }

    std::int32_t Number32()
    {
        const std::uint32_t low = Number16();
        return static_cast<std::int32_t>(low | static_cast<std::uint32_t>(Number16()) << 16);
    }

    /** Up to `most` bytes: fewer at the end of the input. */
    Bytes Take(std::size_t most)
    {
        const std::size_t count = std::min(most, left);
        Bytes bytes(next, next + count);
        next += count;
        left -= count;
        return bytes;
    }

    std::string TakeText(std::size_t most)
    {
        const Bytes bytes = Take(most);
        return std::string(bytes.begin(), bytes.end());
    }

    std::string RestText() { return TakeText(left); }

private:
    const std::uint8_t* next;
    std::size_t left;
};

}  // namespace Fuzz
}  // namespace Zendra

/** The fuzzer's entry, defined by each target. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
