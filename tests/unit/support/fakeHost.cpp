#include "support/fakeHost.h"

#include <gtest/gtest.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "support/systemCalls.h"

namespace ZendraTest {

namespace {

int Refuse(int error)
{
    errno = error;
    return -1;
}

}  // namespace

FakeDevice ScsiDevice(unsigned char type, const std::string& vendor, const std::string& product,
                      const std::string& revision, const std::string& serial, int host, int channel, int target,
                      int lun)
{
    FakeDevice device;
    device.inquiry = InquiryData(type, vendor, product, revision);
    device.serialPage = SerialPageData(serial);
    device.host = host;
    device.channel = channel;
    device.target = target;
    device.lun = lun;
    return device;
}

void FakeHost::Add(const std::string& name, const FakeDevice& device)
{
    names.push_back(name);
    devices["/dev/" + name] = device;
}

void FakeHost::Install()
{
    Calls().directories["/dev/"].names = names;
    Calls().directories["/sys/block/"].names = {};
    Calls().onOpen = [this](const std::string& path, int flags) {
        const auto device = devices.find(path);
        if (device == devices.end()) {
            ADD_FAILURE() << "unexpected open of " << path;
            return Refuse(ENOENT);
        }
        if (device->second.openError != 0) {
            return Refuse(device->second.openError);
        }
        const int descriptor = RealOpen("/proc/self/exe", flags);
        if (descriptor >= 0) {
            openFiles[descriptor] = path;
        }
        return descriptor;
    };
    Calls().onClose = [this](int descriptor) {
        openFiles.erase(descriptor);
        return RealClose(descriptor);
    };
    Calls().onIoctl = [this](int descriptor, unsigned code, void* argument) {
        const auto file = openFiles.find(descriptor);
        if (file == openFiles.end()) {
            ADD_FAILURE() << "ioctl 0x" << std::hex << code << " on a descriptor that is not open";
            return Refuse(EBADF);
        }
        return OnIoctl(devices.at(file->second), code, argument);
    };
}

int FakeHost::OnIoctl(const FakeDevice& device, unsigned code, void* argument) const
{
    auto* const numbers = static_cast<int*>(argument);
    switch (code) {
    case 0x031f:
        if (device.ata.empty()) {
            return Refuse(EIO);
        }
        std::memcpy(static_cast<unsigned char*>(argument) + 4, device.ata.data(), device.ata.size());
        return 0;
    case 0xc0484e41: {
        if (device.nvme.empty()) {
            return Refuse(ENOTTY);
        }
        const auto* const command = static_cast<const nvme_admin_cmd*>(argument);
        std::memcpy(reinterpret_cast<void*>(static_cast<std::uintptr_t>(command->addr)), device.nvme.data(),
                    device.nvme.size());
        return 0;
    }
    default:
        break;
    }
    if (!device.scsi) {
        return Refuse(ENOTTY);
    }
    switch (code) {
    case 0x2282:
        numbers[0] = 30536;
        return 0;
    case 0x2285:
        return OnCommand(device, argument);
    case 0x2276:
        numbers[0] = device.host;
        numbers[1] = device.channel;
        numbers[2] = device.target;
        numbers[3] = device.lun;
        return 0;
    case 0x5382:
        numbers[0] = (device.target & 0xff) | (device.lun & 0xff) << 8 | (device.channel & 0xff) << 16 |
                     (device.host & 0x7f) << 24;
        return 0;
    case 0x5386:
        numbers[0] = device.host;
        return 0;
    default:
        ADD_FAILURE() << "unexpected ioctl 0x" << std::hex << code;
        return Refuse(ENOTTY);
    }
}

int FakeHost::OnCommand(const FakeDevice& device, void* argument) const
{
    const auto* const header = static_cast<const sg_io_hdr*>(argument);
    const Bytes command(header->cmdp, header->cmdp + header->cmd_len);
    const Bytes* answer = nullptr;
    if (command == Bytes{0x12, 0, 0, 0, 0x80, 0}) {
        answer = &device.inquiry;
    } else if (command == Bytes{0x12, 1, 0x80, 0, 0xff, 0}) {
        answer = &device.serialPage;
    } else {
        ADD_FAILURE() << "unexpected SCSI command";
        return Refuse(EINVAL);
    }
    std::memcpy(header->dxferp, answer->data(), std::min<std::size_t>(answer->size(), header->dxfer_len));
    return 0;
}

}  // namespace ZendraTest
