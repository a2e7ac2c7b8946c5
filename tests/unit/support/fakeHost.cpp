#include "support/fakeHost.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

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
    const auto answer = [](const Bytes& data, int failure) {
        Kernel::Answer given;
        given.anyTimes = true;
        given.failure = failure;
        given.data = data;
        return std::vector<Kernel::Answer>{given};
    };
    const int failure = device.scsi ? 0 : ENOTTY;
    const auto packed = static_cast<unsigned>((device.target & 0xff) | (device.lun & 0xff) << 8 |
                                              (device.channel & 0xff) << 16 | (device.host & 0x7f) << 24);
    names.push_back(name);
    Kernel::DevEntry& entry = devices["/dev/" + name];
    entry.name = name;
    entry.node.sgVersion = Kernel::PlainAnswer{failure, {30536}, 0};
    entry.node.scsiId = Kernel::PlainAnswer{failure, {device.host, device.channel, device.target, device.lun}, 0};
    entry.node.idLun = Kernel::PlainAnswer{failure, {static_cast<std::int32_t>(packed)}, 0};
    entry.node.busNumber = Kernel::PlainAnswer{failure, {device.host}, 0};
    entry.node.inquiry = answer(device.inquiry, failure);
    entry.node.serial = answer(device.serialPage, failure);
    entry.node.ataIdentify = answer(device.ata, device.ata.empty() ? EIO : 0);
    entry.node.nvmeIdentify = answer(device.nvme, device.nvme.empty() ? ENOTTY : 0);
    openErrors["/dev/" + name] = device.openError;
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
        if (openErrors[path] != 0) {
            return Refuse(openErrors[path]);
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
        return answers.Ioctl(devices.at(file->second), code, argument);
    };
}

}  // namespace ZendraTest
