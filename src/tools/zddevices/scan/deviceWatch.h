/**
 * @file
 * @brief Which device file a scan is at, seen from another thread or another process.
 *
 * The library tells nobody but the log: at level 4 it names each device file that it opens. Looking at the process from
 * outside would not do, since between the attempts at a sick device no file is open.
 */
#ifndef ZENDRA_ZDDEVICES_DEVICEWATCH_H
#define ZENDRA_ZDDEVICES_DEVICEWATCH_H

#include <chrono>
#include <memory>
#include <string>

namespace Zendra {
namespace ZDDevices {

/** What a scan is at. */
struct Sighting {
    /** "/dev/sdb"; empty when the scan has not come to a device, or does not tell. */
    std::string device;
    /** When it turned to this device. */
    std::chrono::steady_clock::time_point since;
};

/** A note on the device that a scan is at. The scan may run in a process that was forked after this was made. */
class DeviceWatch {
public:
    /** @throws std::bad_alloc. */
    DeviceWatch();

    /** The scan's side: takes notice when the message of the library's log names the next device. */
    void Note(const std::string& message) noexcept;

    /** The other side, whatever has become of the scan. */
    Sighting Look() const;

private:
    struct Page;
    struct Unmap {
        void operator()(Page* mapped) const;
    };
    std::unique_ptr<Page, Unmap> page;
};

}  // namespace ZDDevices
}  // namespace Zendra

#endif
