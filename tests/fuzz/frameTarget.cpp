// What a worker process of zddevices sends, whose memory a library may have broken: FrameReader.
//
// Input: byte 0: the size of the pieces in which the rest comes, less one. Then the bytes from the pipe.

#include <algorithm>
#include <string>

#include "check.h"
#include "tools/zddevices/scan/frame.h"

using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using namespace Zendra::ZDDevices;

namespace {

/** The frames written again, and how the reader is left. */
struct Result {
    std::string frames;
    bool broken = false;
    bool withinFrame = false;
};

Result Read(const std::string& bytes, std::size_t pieceSize)
{
    FrameReader reader;
    Result result;
    for (std::size_t first = 0; first < bytes.size(); first += pieceSize) {
        reader.Append(bytes.substr(first, pieceSize));
        while (const std::optional<Frame> frame = reader.Next()) {
            Require(!reader.IsBroken(), "what is broken gives no frame");
            const bool hasOneText = frame->kind == Frame::Kind::DeviceFile || frame->kind == Frame::Kind::Failure;
            Require(hasOneText || frame->kind == Frame::Kind::Part || frame->kind == Frame::Kind::Answer,
                    "a frame is of a known kind");
            Require(!hasOneText || frame->texts.size() == 1, "a kind of one text has one");
            result.frames += FrameBytes(*frame);
        }
    }
    result.broken = reader.IsBroken();
    result.withinFrame = reader.IsWithinFrame();
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::Input input(data, size);
    const std::size_t pieceSize = input.Byte() + 1U;
    const std::string bytes = input.RestText();
    const Result inPieces = Read(bytes, pieceSize);
    const Result atOnce = Read(bytes, std::max<std::size_t>(bytes.size(), 1));
    RequireEqual(inPieces.frames, bytes.substr(0, inPieces.frames.size()), "frames are what was sent");
    RequireEqual(inPieces.frames, atOnce.frames, "the size of the pieces means nothing");
    Require(inPieces.broken == atOnce.broken && inPieces.withinFrame == atOnce.withinFrame,
            "the size of the pieces means nothing to the reader");
    Require(!inPieces.broken || !inPieces.withinFrame, "of what is broken nothing is kept");
    Require(inPieces.broken || inPieces.withinFrame == (inPieces.frames.size() < bytes.size()), "no byte is lost");
    return 0;
}
