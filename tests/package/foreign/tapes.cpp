#include <cstdio>

#include "module/osinfos/systemdevice/deviceCollector.h"

int main()
{
    using namespace Zendra::ZDSystemDevice;
    std::vector<SystemDevice> devices;
    const unsigned int status = DeviceCollector().GetIndividualDevice(devices, SYS_DEVICE_TAPE);
    std::printf("status %u, %zu devices\n", status, devices.size());
    return status == DEVICE_RESULT_OK || status == DEVICE_RESULT_NONE ? 0 : 1;
}
