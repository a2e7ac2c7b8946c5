/**
 * @file
 * @brief A program of somebody else: names every command block and looks whether it sees the library's own.
 *
 * Built with whatever compiler and options the test chooses; with DECLARE_ITSELF it declares the blocks itself,
 * without the attributes of the header.
 */
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#ifdef DECLARE_ITSELF
namespace Zendra {
namespace ZDSystemDevice {
extern unsigned char inquiry_cmd[6];
extern unsigned char load_cmd[6];
extern unsigned char unload_cmd[6];
extern unsigned char prevent_cmd[6];
extern unsigned char send_diags[6];
extern unsigned char allow_cmd[6];
extern unsigned char rewind_cmd[6];
extern unsigned char tapeAlert_cmd[10];
extern unsigned char driveUsage_cmd[10];
extern unsigned char deviceStatus_cmd[10];
extern unsigned char serialinquiry_cmd[6];
extern unsigned char test_unit_ready[6];
}  // namespace ZDSystemDevice
}  // namespace Zendra
#else
#include "module/osinfos/systemdevice/systemDevice.h"
#endif

namespace {

using namespace Zendra::ZDSystemDevice;

struct Block {
    const char* symbol;
    unsigned char* start;
    std::size_t size;
};

const Block blocks[] = {
    {"_ZN6Zendra14ZDSystemDevice11inquiry_cmdE", inquiry_cmd, sizeof inquiry_cmd},
    {"_ZN6Zendra14ZDSystemDevice8load_cmdE", load_cmd, sizeof load_cmd},
    {"_ZN6Zendra14ZDSystemDevice10unload_cmdE", unload_cmd, sizeof unload_cmd},
    {"_ZN6Zendra14ZDSystemDevice11prevent_cmdE", prevent_cmd, sizeof prevent_cmd},
    {"_ZN6Zendra14ZDSystemDevice10send_diagsE", send_diags, sizeof send_diags},
    {"_ZN6Zendra14ZDSystemDevice9allow_cmdE", allow_cmd, sizeof allow_cmd},
    {"_ZN6Zendra14ZDSystemDevice10rewind_cmdE", rewind_cmd, sizeof rewind_cmd},
    {"_ZN6Zendra14ZDSystemDevice13tapeAlert_cmdE", tapeAlert_cmd, sizeof tapeAlert_cmd},
    {"_ZN6Zendra14ZDSystemDevice14driveUsage_cmdE", driveUsage_cmd, sizeof driveUsage_cmd},
    {"_ZN6Zendra14ZDSystemDevice16deviceStatus_cmdE", deviceStatus_cmd, sizeof deviceStatus_cmd},
    {"_ZN6Zendra14ZDSystemDevice17serialinquiry_cmdE", serialinquiry_cmd, sizeof serialinquiry_cmd},
    {"_ZN6Zendra14ZDSystemDevice15test_unit_readyE", test_unit_ready, sizeof test_unit_ready},
};
constexpr std::size_t count = sizeof blocks / sizeof blocks[0];

}  // namespace

int main()
{
    void* const library = dlopen("libdeviceCollector.so.1", RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        std::printf("the library is not loaded: %s\n", dlerror());
        return 1;
    }
    int wrong = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (dlsym(library, blocks[i].symbol) != blocks[i].start) {
            std::printf("%s is a copy\n", blocks[i].symbol);
            ++wrong;
        }
        // test_unit_ready, the last, stands by itself.
        if (i > 0 && i + 1 < count && blocks[i].start != blocks[i - 1].start + blocks[i - 1].size) {
            std::printf("%s does not follow its predecessor\n", blocks[i].symbol);
            ++wrong;
        }
    }
    // Direct uses, which compilers translate differently from the table above.
    const unsigned char inquiry[] = {0x12, 0x00, 0x00, 0x00, 0x80, 0x00};
    if (std::memcmp(inquiry_cmd, inquiry, sizeof inquiry) != 0 || serialinquiry_cmd[2] != 0x80 ||
        tapeAlert_cmd[2] != 0x6e || test_unit_ready[0] != 0) {
        std::printf("wrong bytes\n");
        ++wrong;
    }
    load_cmd[1] = 0x5a;
    if (static_cast<unsigned char*>(dlsym(library, blocks[1].symbol))[1] != 0x5a) {
        std::printf("a write to load_cmd does not reach the library\n");
        ++wrong;
    }
    if (wrong == 0) {
        std::printf("every block is the library's own\n");
    }
    return wrong == 0 ? 0 : 1;
}
