/**
 * @file
 * @brief Takes the inventory again and again, in one process, while somebody else plugs devices in and out.
 *
 *     labWatch KNOWN END
 *
 * KNOWN holds a line per device that there may ever be: "steady" or "passing", then vendor, product, type, serial
 * number, firmware revision, port, target, bus and LUN, all parted by tabs. A steady device is never touched: every
 * inventory must hold it once, and whole. A passing one comes and goes; what was asked of it in the moment of its
 * removal may be missing in its record, but what is there must be its own. Ends when the file END exists and one more
 * inventory was taken. What was seen goes to standard output, what must not be to standard error and into the exit
 * status.
 *
 * Run it with GLIBC_TUNABLES=glibc.malloc.tcache_count=0: the C library counts what it keeps for a thread as in use.
 */
#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/deviceCollector.h"

namespace {

using Zendra::ZDSystemDevice::DeviceCollector;
using Zendra::ZDSystemDevice::SystemDevice;

constexpr std::size_t mostDevices = 4096;
constexpr int warmUpRounds = 3;
constexpr int mostComplaints = 20;

struct Known {
    SystemDevice record;
    bool steady = false;
};

std::vector<Known> ReadKnown(const char* path)
{
    std::vector<Known> devices;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string kind;
        Known known;
        SystemDevice& record = known.record;
        std::getline(fields, kind, '\t');
        for (std::string* field : {&record.vendor, &record.product, &record.device_type, &record.serial_number,
                                   &record.firmware_revision, &record.port, &record.target, &record.bus, &record.lun}) {
            std::getline(fields, *field, '\t');
        }
        known.steady = kind == "steady";
        devices.push_back(known);
    }
    return devices;
}

bool SameNames(const SystemDevice& left, const SystemDevice& right)
{
    return left.vendor == right.vendor && left.product == right.product && left.device_type == right.device_type &&
           left.firmware_revision == right.firmware_revision;
}

bool SameAddress(const SystemDevice& left, const SystemDevice& right)
{
    return left.port == right.port && left.target == right.target && left.bus == right.bus && left.lun == right.lun;
}

/** Nothing came through, or only what one of the two queries for it answers: the adapter's number is missing. */
bool AddressIsMissing(const SystemDevice& seen, const SystemDevice& device)
{
    const bool nothing = seen.port.empty() && seen.target.empty() && seen.bus.empty() && seen.lun.empty();
    const bool noAdapter =
        seen.port == "0" && seen.target == device.target && seen.bus == device.bus && seen.lun == device.lun;
    return nothing || noAdapter;
}

/** Whether a record can be of this device, whole or as far as it could be asked. */
bool CanBeOf(const SystemDevice& seen, const Known& device)
{
    const bool whole = SameAddress(seen, device.record) && seen.serial_number == device.record.serial_number;
    if (!SameNames(seen, device.record) || device.steady) {
        return SameNames(seen, device.record) && whole;
    }
    return (SameAddress(seen, device.record) || AddressIsMissing(seen, device.record)) &&
           (seen.serial_number == device.record.serial_number || seen.serial_number.empty());
}

std::ostream& operator<<(std::ostream& out, const SystemDevice& device)
{
    return out << "'" << device.vendor << "' '" << device.product << "' '" << device.device_type << "' '"
               << device.serial_number << "' '" << device.firmware_revision << "' " << device.port << ":" << device.bus
               << ":" << device.target << ":" << device.lun;
}

class Watch {
public:
    explicit Watch(std::vector<Known> devices) : known(std::move(devices)) {}

    void TakeInventory()
    {
        std::vector<SystemDevice> seen;
        const unsigned int status = DeviceCollector().GetAllDevice(seen);
        ++inventories;
        if (status != Zendra::ZDSystemDevice::DEVICE_RESULT_OK) {
            Complain() << "status " << status << "\n";
        }
        sizes.set(std::min(seen.size(), mostDevices - 1));
        for (const SystemDevice& record : seen) {
            Judge(record);
        }
        for (const Known& device : known) {
            if (device.steady) {
                const auto times = std::count_if(seen.begin(), seen.end(), [&](const SystemDevice& record) {
                    return SameAddress(record, device.record);
                });
                if (times != 1) {
                    Complain() << times << " times instead of once: " << device.record << "\n";
                }
            }
        }
    }

    std::ostream& Complain()
    {
        ++complaints;
        static std::ofstream nowhere;
        return (complaints <= mostComplaints ? std::cerr : nowhere) << "inventory " << inventories << ": ";
    }

    int inventories = 0;
    int whole = 0;
    int cutShort = 0;
    int complaints = 0;
    std::bitset<mostDevices> sizes;

private:
    void Judge(const SystemDevice& record)
    {
        for (const Known& device : known) {
            if (CanBeOf(record, device)) {
                const bool isWhole =
                    SameAddress(record, device.record) && record.serial_number == device.record.serial_number;
                ++(isWhole ? whole : cutShort);
                return;
            }
        }
        Complain() << "no device says this of itself: " << record << "\n";
    }

    std::vector<Known> known;
};

int OpenDescriptors()
{
    int count = 0;
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

long HeapInUse()
{
    return static_cast<long>(mallinfo2().uordblks);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: labWatch KNOWN END\n";
        return 2;
    }
    Watch watch(ReadKnown(argv[1]));
    for (int round = 0; round < warmUpRounds; ++round) {
        watch.TakeInventory();
    }
    const int descriptorsBefore = OpenDescriptors();
    const long heapBefore = HeapInUse();
    bool over = false;
    while (!over) {
        over = access(argv[2], F_OK) == 0;
        watch.TakeInventory();
    }
    const int descriptorsAfter = OpenDescriptors();
    const long heapAfter = HeapInUse();

    std::cout << "inventories=" << watch.inventories << "\nwhole=" << watch.whole << "\ncut_short=" << watch.cutShort
              << "\nsizes=" << watch.sizes.count() << "\ndescriptors_before=" << descriptorsBefore
              << "\ndescriptors_after=" << descriptorsAfter << "\nheap_before=" << heapBefore
              << "\nheap_after=" << heapAfter << "\ncomplaints=" << watch.complaints << "\n";
    return watch.complaints == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
