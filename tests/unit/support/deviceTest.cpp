#include "support/deviceTest.h"

#include "common/logger/log.h"

namespace ZendraTest {

const char* const modprobeCommand = "modprobe sg >/dev/null 2>&1";

void DeviceTest::SetUp()
{
    ResetCalls();
    Trace::Install();
    AnswerModprobe(0);
    descriptorsBefore = OpenDescriptors();
}

void DeviceTest::TearDown()
{
    EXPECT_EQ(Calls().directoriesOpened, Calls().directoriesClosed);
    ResetCalls();
    Trace::Remove();
    EXPECT_EQ(descriptorsBefore, OpenDescriptors());
}

void DeviceTest::AnswerModprobe(int result)
{
    Calls().onSystem = [result](const std::string& command) {
        EXPECT_EQ(modprobeCommand, command);
        return result;
    };
}

void DeviceTest::ListDev(const std::vector<std::string>& names)
{
    Calls().directories["/dev/"].names = names;
}

void DeviceTest::ListSysBlock(const std::vector<std::string>& names)
{
    Calls().directories["/sys/block/"].names = names;
}

std::string Record(const std::string& vendor, const std::string& product, const std::string& deviceType,
                   const std::string& serial, const std::string& firmware, const std::string& port,
                   const std::string& target, const std::string& bus, const std::string& lun)
{
    std::string text;
    for (const std::string* field : {&vendor, &product, &deviceType, &serial, &firmware, &port, &target, &bus, &lun}) {
        text += "{" + *field + "}";
    }
    return text;
}

std::string Text(const Zendra::ZDSystemDevice::SystemDevice& device)
{
    return Record(device.vendor, device.product, device.device_type, device.serial_number, device.firmware_revision,
                  device.port, device.target, device.bus, device.lun);
}

Lines Texts(const std::vector<Zendra::ZDSystemDevice::SystemDevice>& devices)
{
    Lines texts;
    for (const Zendra::ZDSystemDevice::SystemDevice& device : devices) {
        texts.push_back(Text(device));
    }
    return texts;
}

}  // namespace ZendraTest
