// For straceBudget: makes a simulated host, takes its inventory once between two marks that strace shows.
//
//   budgetProbe --kinds           the kinds of devices, one a line
//   budgetProbe KIND COUNT

#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "budgetHosts.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "simhost.h"

namespace {

using namespace Zendra::ZDSystemDevice;

/** Makes the real call too, which a plain file refuses: strace has to see it. */
class SeenByStrace : public Kernel::SystemCalls {
public:
    explicit SeenByStrace(SimHost::MountedHost& theHost) : host(theHost) {}

    int Ioctl(int descriptor, unsigned request, void* argument) override
    {
        SystemCalls::Ioctl(descriptor, request, argument);
        return host.Ioctl(descriptor, request, argument);
    }
    int System(const char* command) override { return host.System(command); }
    unsigned Sleep(unsigned seconds) override { return host.Sleep(seconds); }

private:
    SimHost::MountedHost& host;
};

/** There is no such descriptor, so that only strace notices. */
void Mark(const char* text)
{
    syscall(SYS_write, -1, text, std::strlen(text));
}

std::size_t TakeInventory(const SimHost::Call& call)
{
    DeviceCollector collector;
    std::vector<SystemDevice> devices;
    std::vector<OpticalProperty> drives;
    if (call.kind == SimHost::CallKind::Optical) {
        collector.GetOpticalProperties(drives);
    } else {
        collector.GetIndividualDevice(devices, static_cast<SysDeviceType>(call.type));
    }
    return devices.size() + drives.size();
}

int Run(const std::string& kind, unsigned count)
{
    const std::string reason = SimHost::EnterPrivateNamespace();
    if (!reason.empty()) {
        std::cerr << "budgetProbe: " << reason << "\n";
        return 77;
    }
    const SimHost::Host host = SimHost::ParseHost(Faults::HostText(kind, count), kind);
    SimHost::MountedHost mounted(host);
    SeenByStrace calls(mounted);
    Kernel::AnswerThread(&calls);
    // What is done once in a process's life is not counted.
    TakeInventory(host.calls.at(0));
    mounted.BeginCall();
    Mark("begin");
    const std::size_t records = TakeInventory(host.calls.at(0));
    Mark("end");
    Kernel::AnswerThread(nullptr);
    for (const std::string& complaint : mounted.Complaints()) {
        std::cerr << "budgetProbe: " << complaint << "\n";
    }
    return records == (kind == "capabilities" ? 1 : count) && mounted.Complaints().empty() ? 0 : 1;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    try {
        if (argumentCount == 2 && std::string(arguments[1]) == "--kinds") {
            for (const std::string& kind : Faults::DeviceKinds()) {
                std::cout << kind << "\n";
            }
            return 0;
        }
        if (argumentCount == 3) {
            return Run(arguments[1], static_cast<unsigned>(std::stoul(arguments[2])));
        }
    } catch (const std::exception& error) {
        std::cerr << "budgetProbe: " << error.what() << "\n";
        return 1;
    }
    std::cerr << "usage: budgetProbe --kinds | KIND COUNT\n";
    return 2;
}
