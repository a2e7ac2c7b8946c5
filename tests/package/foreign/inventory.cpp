// Somebody else's program: takes an inventory and listens to what the library says meanwhile.
#include <atomic>
#include <iostream>
#include <string>
#include <vector>

#include "common/logger/log.h"
#include "module/osinfos/systemdevice/deviceCollector.h"

namespace {

std::atomic<int> messages{0};
std::atomic<int> foreignPaths{0};

void Listen(unsigned, const char* file, int, const std::string&)
{
    ++messages;
    if (std::string(file).rfind("src/", 0) != 0) {
        ++foreignPaths;
    }
}

int failures = 0;

void Expect(bool holds, const char* what)
{
    if (!holds) {
        std::cout << "not so: " << what << '\n';
        ++failures;
    }
}

}  // namespace

int main()
{
    using namespace Zendra::ZDSystemDevice;

    std::vector<SystemDevice> devices(1);
    devices[0].vendor = "mine";
    DeviceCollector().GetAllDevice(devices);
    Expect(messages == 0, "a library that nobody asked to talk is silent");

    Zendra::Log::SetSink(&Listen);
    Zendra::Log::SetMinLogLevel(4);
    const unsigned int status = DeviceCollector().GetAllDevice(devices);
    Expect(status == DEVICE_RESULT_OK, "an inventory succeeds");
    Expect(devices.at(0).vendor == "mine", "records are appended");
    Expect(messages > 0, "the library's messages reach this program's sink");
    Expect(foreignPaths == 0, "paths in messages are relative to the library's tree");
    Expect(inquiry_cmd[0] == 0x12 && test_unit_ready[0] == 0, "the command blocks are there");

    std::cout << (devices.size() - 1) / 2 << " devices, " << messages << " messages\n";
    return failures == 0 ? 0 : 1;
}
