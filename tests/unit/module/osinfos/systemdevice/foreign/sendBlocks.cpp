/**
 * @file
 * @brief A program of somebody else that sends command blocks and looks which ones the library itself sends.
 */
#include <cstdio>
#include <cstring>
#include <string>

#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"

// Nobody's kernel modules are to be loaded for this.
extern "C" int system(const char*)
{
    return 1;
}

namespace {

using namespace Zendra::ZDSystemDevice;

int wrong = 0;

void Expect(bool condition, const char* what)
{
    if (!condition) {
        std::printf("not so: %s\n", what);
        ++wrong;
    }
}

class Accepting : public DataOperator {
public:
    int ExecIoCtl(ReqIoCtlParam& request) override
    {
        if (request.ioctlCode == 0x2282) {
            *static_cast<int*>(request.ioctlData) = 30000;
        }
        return DEV_SUCCESS;
    }
};

class Watching : public DataOperatorInterface {
public:
    int ExecIoCtl(ReqIoCtlParam&) override { return DEV_FAILURE; }
    int ExecPassThruCmd(ReqPassThruParam& request) override
    {
        if (request.cdb == inquiry_cmd) {
            ++inquiries;
            std::memcpy(request.dataBuffer + 8, "VENDOR  PRODUCT         1.00", 28);
        } else if (request.cdb == serialinquiry_cmd) {
            ++serials;
        } else {
            ++others;
        }
        return DEV_SUCCESS;
    }
    int inquiries = 0;
    int serials = 0;
    int others = 0;
};

class Proxy : public TapeProxy {
public:
    explicit Proxy(DataOperatorInterface* own)
    {
        delete dataOper;
        dataOper = own;
    }
};

}  // namespace

int main()
{
    unsigned char answer[4096] = {};
    Accepting device;
    ReqPassThruParam request;
    request.driveName = "/dev/null";
    request.cdb = inquiry_cmd;
    request.cdbLength = 6;
    request.dataBuffer = answer;
    load_cmd[0] = 0x1b;
    load_cmd[1] = 0x11;
    load_cmd[2] = 0x22;
    load_cmd[3] = 0x33;
    Expect(device.ExecPassThruCmd(request) == DEV_SUCCESS, "inquiry_cmd is sent");
    Expect(load_cmd[0] == 0x1b, "byte 6 stays");
    Expect(load_cmd[1] == 0x00, "byte 7 is written to load_cmd");
    Expect(load_cmd[2] == 0xff, "byte 8 is written to load_cmd");
    Expect(load_cmd[3] == 0x33, "byte 9 stays");

    auto* const watching = new Watching;
    Proxy proxy(watching);
    BusDevice record;
    std::string path = "/dev/null";
    Expect(proxy.GetGenericDeviceData(path, record, false) == DEV_SUCCESS, "the query succeeds");
    Expect(watching->inquiries == 1, "the library sends the inquiry_cmd that we name");
    Expect(watching->serials == 1, "the library sends the serialinquiry_cmd that we name");
    Expect(watching->others == 0, "the library sends nothing else");
    if (wrong == 0) {
        std::printf("the library and its caller mean the same blocks\n");
    }
    return wrong == 0 ? 0 : 1;
}
