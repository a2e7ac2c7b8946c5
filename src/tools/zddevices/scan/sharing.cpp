#include "tools/zddevices/scan/sharing.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <system_error>

namespace Zendra::ZDDevices {

namespace {

constexpr std::uint32_t isFree = 0;
constexpr std::uint32_t isOver = 1;
constexpr std::uint32_t isTaken = 2;

/** Drivers whose adapters take little at a time; the kernel keeps what is too much waiting, and others with it. */
struct DriverLimit {
    const char* driver;
    unsigned int atATime;
};
constexpr std::array<DriverLimit, 4> driverLimits = {{
    // One command at a time, whatever is behind it.
    {"usb-storage", 1},
    {"uas", 4},
    // Two disks a channel, of which one is served.
    {"ata_piix", 2},
    {"ahci", 8},
}};
constexpr unsigned int usualLimit = 16;

}  // namespace

HostAdapter HostAdapterOf(const std::string& deviceFile)
{
    namespace fs = std::filesystem;
    const std::string name = fs::path(deviceFile).filename();
    std::error_code error;
    for (const char* group : {"block", "scsi_generic"}) {
        const fs::path device = fs::canonical(fs::path("/sys/class") / group / name / "device", error);
        if (error) {
            continue;
        }
        // .../0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0 and .../0000:01:00.0/nvme/nvme0: the first with a driver
        // above the SCSI device or the controller is the adapter.
        for (fs::path parent = device.parent_path(); parent.has_relative_path(); parent = parent.parent_path()) {
            const fs::path driver = fs::read_symlink(parent / "driver", error);
            if (!error) {
                const auto* const limit =
                    std::find_if(driverLimits.begin(), driverLimits.end(),
                                 [&](const DriverLimit& one) { return driver.filename() == one.driver; });
                return {parent, limit == driverLimits.end() ? usualLimit : limit->atATime};
            }
        }
    }
    return {{}, usualLimit};
}

HostAdapter TapeDriveOf(const std::string& deviceFile)
{
    const std::string name = std::filesystem::path(deviceFile).filename();
    const std::size_t begin = name.rfind("nst", 0) == 0 ? 1 : 0;
    if (name.compare(begin, 2, "st") != 0) {
        return {{}, usualLimit};
    }
    return {name.substr(begin, name.find_last_of("0123456789") + 1 - begin), 1};
}

void SharedFiles::Unmap::operator()(File* mapped) const
{
    munmap(mapped, size);
}

SharedFiles::SharedFiles(const std::vector<std::vector<std::string>>& filesOfQuestions)
{
    // The number 0 is nobody's.
    std::size_t count = 1;
    for (const std::vector<std::string>& paths : filesOfQuestions) {
        auto& ofQuestion = numbers.emplace_back();
        for (const std::string& path : paths) {
            count += ofQuestion.emplace(path, count).second ? 1 : 0;
        }
    }
    const std::size_t size = count * sizeof(File);
    // Zeros: all are free and of no adapter.
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "no memory can be shared with worker processes");
    }
    files = {static_cast<File*>(memory), Unmap{size}};
}

bool SharedFiles::Has(std::size_t question, const std::string& path) const
{
    return numbers[question].count(path) > 0;
}

bool SharedFiles::Take(std::size_t question, const std::string& path)
{
    File& file = files[numbers[question].at(path)];
    const std::uint32_t adapter = file.adapter;
    Number& underWay = files[adapter].underWay;
    if (adapter != 0 && underWay++ >= files[adapter].atATime) {
        --underWay;
        return false;
    }
    std::uint32_t expected = isFree;
    if (file.state.compare_exchange_strong(expected, isTaken + adapter)) {
        return true;
    }
    underWay -= adapter != 0 ? 1 : 0;
    return false;
}

void SharedFiles::LetGo(std::size_t question, const std::string& path)
{
    const auto number = numbers[question].find(path);
    if (number == numbers[question].end()) {
        return;
    }
    const std::uint32_t state = files[number->second].state.exchange(isOver);
    if (state > isTaken) {
        --files[state - isTaken].underWay;
    }
}

bool SharedFiles::HasRoom(const File& file) const
{
    const std::uint32_t adapter = file.adapter;
    return adapter == 0 || files[adapter].underWay < files[adapter].atATime;
}

std::size_t SharedFiles::LeftToTake(std::size_t question) const
{
    return static_cast<std::size_t>(
        std::count_if(numbers[question].begin(), numbers[question].end(), [this](const auto& entry) {
            return files[entry.second].state == isFree && HasRoom(files[entry.second]);
        }));
}

void SharedFiles::Spare(const std::function<HostAdapter(const std::string& path)>& adapterOf)
{
    std::map<std::string, std::uint32_t> adapters;
    for (const auto& ofQuestion : numbers) {
        for (const auto& [path, number] : ofQuestion) {
            const HostAdapter adapter = adapterOf(path);
            if (adapter.directory.empty()) {
                continue;
            }
            const auto [entry, isNew] = adapters.emplace(adapter.directory, static_cast<std::uint32_t>(number));
            if (isNew) {
                files[number].atATime = adapter.atATime;
            }
            files[number].adapter = entry->second;
        }
    }
}

}  // namespace Zendra::ZDDevices
