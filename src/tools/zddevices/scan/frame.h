/**
 * @file
 * @brief What a worker process tells the program, as bytes in a pipe.
 *
 * A frame is the number of bytes that follow, its kind, and texts that each stand behind their length. Both ends are
 * the same program, so the byte order needs no standard. Texts keep every byte.
 */
#ifndef ZENDRA_ZDDEVICES_FRAME_H
#define ZENDRA_ZDDEVICES_FRAME_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Zendra::ZDDevices {

struct Frame {
    enum class Kind : char {
        /** One text: the path of the device file that is asked from now on. */
        DeviceFile = 'D',
        /** Any texts; part of what the worker has to tell. */
        Part = 'P',
        /** Any texts; the worker's last frame. */
        Answer = 'A',
        /** One text: why there is no answer; the worker's last frame. */
        Failure = 'F'
    };

    Kind kind = Kind::Failure;
    std::vector<std::string> texts;
};

/** The longest frame behind the number of its bytes: a host of ten thousand disks stays far below. */
constexpr std::size_t longestFrame = 64UL * 1024 * 1024;

std::string FrameBytes(const Frame& frame);

/** Makes frames of bytes that come in pieces. Holds no more than one frame's bytes and a piece. */
class FrameReader {
public:
    void Append(const std::string& bytes) { received.append(bytes, 0, broken ? 0 : bytes.size()); }

    /** The next whole frame; none while there is none, and for ever when what came is no frame. */
    std::optional<Frame> Next();

    /** Whether something has come that is no frame: too long, of an unknown kind, or with texts that do not fit in. */
    bool IsBroken() const { return broken; }

    /** Whether part of a frame has come. */
    bool IsWithinFrame() const { return received.size() > taken; }

private:
    std::string received;
    /** How many bytes of it were made frames already. */
    std::size_t taken = 0;
    bool broken = false;
};

}  // namespace Zendra::ZDDevices

#endif
