#include "tools/zddevices/scan/frame.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

namespace Zendra::ZDDevices {

namespace {

using Length = std::uint32_t;

/** Appends the bytes behind their number. */
void AppendWithLength(const std::string& text, std::string& bytes)
{
    const auto length = static_cast<Length>(text.size());
    bytes.append(reinterpret_cast<const char*>(&length), sizeof(length)).append(text);
}

/** The length that the bytes begin with, which is cut off them; none when there are too few. */
std::optional<std::size_t> TakeLength(std::string_view& bytes)
{
    Length length = 0;
    if (bytes.size() < sizeof(length)) {
        return std::nullopt;
    }
    std::memcpy(&length, bytes.data(), sizeof(length));
    bytes.remove_prefix(sizeof(length));
    return length;
}

/** The frame in what stands behind the number of its bytes. */
std::optional<Frame> ReadFrame(std::string_view bytes)
{
    Frame frame{static_cast<Frame::Kind>(bytes.empty() ? '\0' : bytes.front()), {}};
    bytes.remove_prefix(bytes.empty() ? 0 : 1);
    while (!bytes.empty()) {
        const std::optional<std::size_t> length = TakeLength(bytes);
        if (!length || *length > bytes.size()) {
            return std::nullopt;
        }
        frame.texts.emplace_back(bytes.substr(0, *length));
        bytes.remove_prefix(*length);
    }
    const bool hasOneText = frame.kind == Frame::Kind::DeviceFile || frame.kind == Frame::Kind::Failure;
    const bool hasAnyTexts = frame.kind == Frame::Kind::Answer || frame.kind == Frame::Kind::Part;
    const bool isFrame = hasAnyTexts || (hasOneText && frame.texts.size() == 1);
    return isFrame ? std::make_optional(std::move(frame)) : std::nullopt;
}

}  // namespace

std::string FrameBytes(const Frame& frame)
{
    std::string body(1, static_cast<char>(frame.kind));
    for (const std::string& text : frame.texts) {
        AppendWithLength(text, body);
    }
    std::string bytes;
    AppendWithLength(body, bytes);
    return bytes;
}

std::optional<Frame> FrameReader::Next()
{
    std::string_view rest = received;
    rest.remove_prefix(taken);
    const std::optional<std::size_t> length = TakeLength(rest);
    if (!length || (*length <= longestFrame && *length > rest.size())) {
        received.erase(0, taken);
        taken = 0;
        return std::nullopt;
    }
    std::optional<Frame> frame = *length <= longestFrame ? ReadFrame(rest.substr(0, *length)) : std::nullopt;
    broken = !frame;
    taken = broken ? received.size() : taken + sizeof(Length) + *length;
    return frame;
}

}  // namespace Zendra::ZDDevices
