#include "simulatedHost.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace ZendraBench {

namespace {

constexpr std::size_t disksPerTarget = 20;
constexpr std::size_t targetsPerHost = 5;

/** sda to sdz, sdaa, ... as the kernel counts. */
std::string DiskName(std::size_t number)
{
    std::string letters;
    for (std::size_t rest = number + 1; rest > 0; rest = (rest - 1) / 26) {
        letters.insert(letters.begin(), static_cast<char>('a' + (rest - 1) % 26));
    }
    return "sd" + letters;
}

std::vector<Kernel::Answer> Always(void (*fill)(unsigned char*))
{
    Kernel::Answer answer;
    answer.anyTimes = true;
    answer.data.resize(Kernel::scsiDataLimit);
    fill(answer.data.data());
    return {answer};
}

Kernel::DevEntry Node(const std::string& name)
{
    Kernel::DevEntry entry;
    entry.name = name;
    return entry;
}

[[noreturn]] void Abort(const std::string& complaint)
{
    std::fprintf(stderr, "%s\n", complaint.c_str());
    std::abort();
}

}  // namespace

Kernel::Host HostOf(std::size_t disks)
{
    Kernel::Host host;
    // What a server's /dev has besides its disks.
    for (int number = 0; number < 64; ++number) {
        host.dev.push_back(Node("tty" + std::to_string(number)));
        host.dev.push_back(Node("vcs" + std::to_string(number)));
    }
    for (std::size_t disk = 0; disk < disks; ++disk) {
        const auto hostNumber = static_cast<std::int32_t>(disk / (disksPerTarget * targetsPerHost) + 1);
        const auto target = static_cast<std::int32_t>(disk / disksPerTarget % targetsPerHost);
        const auto lun = static_cast<std::int32_t>(disk % disksPerTarget);
        host.block.push_back({DiskName(disk), std::nullopt, std::nullopt});
        for (const std::string& name : {DiskName(disk), "sg" + std::to_string(disk)}) {
            Kernel::DevEntry entry = Node(name);
            entry.node.sgVersion = Kernel::PlainAnswer{0, {30536}, 0};
            entry.node.scsiId = Kernel::PlainAnswer{0, {hostNumber, 0, target, lun}, 0};
            entry.node.idLun = Kernel::PlainAnswer{0, {target | lun << 8}, 0};
            entry.node.busNumber = Kernel::PlainAnswer{0, {hostNumber}, 0};
            entry.node.inquiry = Always(FillInquiry);
            entry.node.serial = Always(FillSerialPage);
            host.dev.push_back(entry);
        }
    }
    return host;
}

SimulatedHost::SimulatedHost(std::size_t disks) : host(HostOf(disks)), memory(host, Abort) {}

void FillInquiry(unsigned char* data)
{
    std::memset(data, 0, 96);
    data[2] = 6;
    data[3] = 2;
    data[4] = 91;
    std::memcpy(data + 8, "HALVARD HX 900 DISK     A1B2", 28);
}

void FillSerialPage(unsigned char* data)
{
    std::memcpy(data, "\0\x80\0\x14HX900-0000-SN-004711", 24);
}

}  // namespace ZendraBench
