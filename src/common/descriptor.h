/**
 * @file
 * @brief The one owner of a file descriptor; not installed.
 */
#ifndef ZENDRA_COMMON_DESCRIPTOR_H
#define ZENDRA_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace Zendra {

/** A file descriptor that is closed once, at the end of its owner at the latest; or none. */
class Descriptor {
public:
    /** What Get() answers where there is none. */
    static constexpr int none = -1;

    /** @param descriptor taken over; a negative one, such as open(2) answers when it fails, is none. */
    explicit Descriptor(int descriptor = none) : number(descriptor) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : number(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            Close();
            number = other.Release();
        }
        return *this;
    }

    /** Whether there is a descriptor. */
    bool IsOpen() const { return number >= 0; }

    /** The descriptor, which stays this object's; `none` where there is none. */
    int Get() const { return number; }

    /** Closes the descriptor, if there is one. An error of close(2) is ignored, but errno is what it left. */
    void Close()
    {
        if (IsOpen()) {
            close(Release());
        }
    }

    /** Gives the descriptor away: the caller closes it, or nobody does. */
    int Release() { return std::exchange(number, none); }

private:
    int number;
};

}  // namespace Zendra

#endif
