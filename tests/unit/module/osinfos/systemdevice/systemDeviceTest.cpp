#include "module/osinfos/systemdevice/systemDevice.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <type_traits>

#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "support/deviceTest.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using ZendraTest::Record;
using ZendraTest::Text;

SystemDevice FilledRecord()
{
    SystemDevice device;
    device.vendor = "vendor";
    device.product = "product";
    device.device_type = "type";
    device.serial_number = "serial";
    device.firmware_revision = "firmware";
    device.port = "1";
    device.target = "2";
    device.bus = "3";
    device.lun = "4";
    return device;
}

TEST(SystemDeviceRecord, IsNineTextsInDeclaredOrderAndNothingElse)
{
    static_assert(std::is_standard_layout<SystemDevice>::value);
    EXPECT_EQ(9 * sizeof(std::string), sizeof(SystemDevice));
    EXPECT_EQ(0 * sizeof(std::string), offsetof(SystemDevice, vendor));
    EXPECT_EQ(1 * sizeof(std::string), offsetof(SystemDevice, product));
    EXPECT_EQ(2 * sizeof(std::string), offsetof(SystemDevice, device_type));
    EXPECT_EQ(3 * sizeof(std::string), offsetof(SystemDevice, serial_number));
    EXPECT_EQ(4 * sizeof(std::string), offsetof(SystemDevice, firmware_revision));
    EXPECT_EQ(5 * sizeof(std::string), offsetof(SystemDevice, port));
    EXPECT_EQ(6 * sizeof(std::string), offsetof(SystemDevice, target));
    EXPECT_EQ(7 * sizeof(std::string), offsetof(SystemDevice, bus));
    EXPECT_EQ(8 * sizeof(std::string), offsetof(SystemDevice, lun));
}

TEST(SystemDeviceRecord, StartsWithNineEmptyTexts)
{
    EXPECT_EQ("{}{}{}{}{}{}{}{}{}", Text(SystemDevice()));
}

TEST(SystemDeviceRecord, CopyAndAssignmentTakeAllNineFields)
{
    const SystemDevice original = FilledRecord();
    const SystemDevice copy(original);
    EXPECT_EQ(Record("vendor", "product", "type", "serial", "firmware", "1", "2", "3", "4"), Text(copy));
    SystemDevice assigned;
    assigned = original;
    EXPECT_EQ(Text(original), Text(assigned));
}

TEST(SystemDeviceRecord, CopyTakesEmptyFieldsToo)
{
    SystemDevice sparse = FilledRecord();
    sparse.product.clear();
    sparse.lun.clear();
    const SystemDevice copy(sparse);
    EXPECT_EQ(Text(sparse), Text(copy));
    SystemDevice assigned = FilledRecord();
    assigned = SystemDevice();
    EXPECT_EQ("{}{}{}{}{}{}{}{}{}", Text(assigned));
}

TEST(SystemDeviceRecord, CopyIsIndependentOfItsOriginal)
{
    SystemDevice original = FilledRecord();
    const SystemDevice copy(original);
    original.vendor = "changed";
    EXPECT_EQ("vendor", copy.vendor);
}

TEST(SysDeviceTypeValues, AreTheGivenNumbersOnASigned32BitBase)
{
    static_assert(std::is_same<std::underlying_type<SysDeviceType>::type, std::int32_t>::value);
    EXPECT_EQ(0, SYS_DEVICE_TAPE);
    EXPECT_EQ(1, SYS_DEVICE_SCSI);
    EXPECT_EQ(2, SYS_DEVICE_PHYSICAL_DRIVE);
    EXPECT_EQ(3, SYS_DEVICE_CDDVD);
    EXPECT_EQ(std::numeric_limits<std::int32_t>::min(),
              static_cast<int>(static_cast<SysDeviceType>(std::numeric_limits<std::int32_t>::min())));
}

TEST(StatusCodes, AreTheGivenNumbersOfAnUnscopedEnumeration)
{
    static_assert(std::is_convertible<DeviceStatus, int>::value);
    EXPECT_EQ(0, DEVICE_RESULT_OK);
    EXPECT_EQ(2, DEV_OPEN_OK);
    EXPECT_EQ(3, DEV_OPEN_FAILED);
    EXPECT_EQ(4, DEV_SUCCESS);
    EXPECT_EQ(5, DEV_FAILURE);
    EXPECT_EQ(6, DEVICE_RESULT_NONE);
}

TEST(PassthroughCommandTypes, AreTheGivenNumbers)
{
    EXPECT_EQ(0, PT_STD_INQUIRY);
    EXPECT_EQ(11, PT_SERIAL_INQUIRY);
}

TEST(RequestRecords, HaveTheirFieldsInDeclaredOrder)
{
    const std::size_t text = sizeof(std::string);
    const std::size_t word = sizeof(void*);
    static_assert(sizeof(void*) != 8 || sizeof(std::string) == 32);
    static_assert(std::is_standard_layout<ReqIoCtlParam>::value);
    EXPECT_EQ(0U, offsetof(ReqIoCtlParam, driveName));
    EXPECT_EQ(text, offsetof(ReqIoCtlParam, ioctlCode));
    EXPECT_EQ(text + word, offsetof(ReqIoCtlParam, ioctlData));
    static_assert(std::is_same<decltype(ReqIoCtlParam::ioctlCode), int>::value);
    static_assert(std::is_same<decltype(ReqIoCtlParam::ioctlData), void*>::value);

    static_assert(std::is_standard_layout<ReqPassThruParam>::value);
    EXPECT_EQ(0U, offsetof(ReqPassThruParam, driveName));
    EXPECT_EQ(text, offsetof(ReqPassThruParam, cdb));
    EXPECT_EQ(text + word, offsetof(ReqPassThruParam, cdbLength));
    EXPECT_EQ(text + 2 * word, offsetof(ReqPassThruParam, dataBuffer));
    static_assert(std::is_same<decltype(ReqPassThruParam::cdb), unsigned char*>::value);
    static_assert(std::is_same<decltype(ReqPassThruParam::cdbLength), int>::value);
    static_assert(std::is_same<decltype(ReqPassThruParam::dataBuffer), unsigned char*>::value);
}

TEST(BusDeviceRecord, IsFiveNumbersAndTenTextsInDeclaredOrder)
{
    static_assert(std::is_standard_layout<BusDevice>::value);
    static_assert(std::is_same<decltype(BusDevice::hostAdapter), std::uint16_t>::value);
    EXPECT_EQ(0U, offsetof(BusDevice, hostAdapter));
    EXPECT_EQ(2U, offsetof(BusDevice, bus));
    EXPECT_EQ(4U, offsetof(BusDevice, spareNumber));
    EXPECT_EQ(6U, offsetof(BusDevice, targetId));
    EXPECT_EQ(8U, offsetof(BusDevice, lun));
    // Behind ten bytes of numbers, where a text may begin.
    const std::size_t texts = alignof(std::string) == 8 ? 16 : 12;
    EXPECT_EQ(texts + 0 * sizeof(std::string), offsetof(BusDevice, devId));
    EXPECT_EQ(texts + 1 * sizeof(std::string), offsetof(BusDevice, spareText));
    EXPECT_EQ(texts + 2 * sizeof(std::string), offsetof(BusDevice, productId));
    EXPECT_EQ(texts + 3 * sizeof(std::string), offsetof(BusDevice, vendorId));
    EXPECT_EQ(texts + 4 * sizeof(std::string), offsetof(BusDevice, revision));
    EXPECT_EQ(texts + 5 * sizeof(std::string), offsetof(BusDevice, serialNum));
    EXPECT_EQ(texts + 6 * sizeof(std::string), offsetof(BusDevice, otherIdentInfo));
    EXPECT_EQ(texts + 7 * sizeof(std::string), offsetof(BusDevice, shortIdent));
    EXPECT_EQ(texts + 8 * sizeof(std::string), offsetof(BusDevice, deviceType));
    EXPECT_EQ(texts + 9 * sizeof(std::string), offsetof(BusDevice, inquiryString));
    EXPECT_EQ(texts + 10 * sizeof(std::string), sizeof(BusDevice));
}

TEST(BusDeviceRecord, StartsWithZerosAndEmptyTextsAndCopiesEveryField)
{
    BusDevice device;
    EXPECT_EQ(0, device.hostAdapter + device.bus + device.spareNumber + device.targetId + device.lun);
    for (const std::string* text :
         {&device.devId, &device.spareText, &device.productId, &device.vendorId, &device.revision, &device.serialNum,
          &device.otherIdentInfo, &device.shortIdent, &device.deviceType, &device.inquiryString}) {
        EXPECT_EQ("", *text);
    }
    device.spareNumber = 65535;
    device.spareText = "spare";
    device.lun = 7;
    device.inquiryString = "inquiry";
    const BusDevice copy(device);
    EXPECT_EQ(65535, copy.spareNumber);
    EXPECT_EQ("spare", copy.spareText);
    EXPECT_EQ(7, copy.lun);
    EXPECT_EQ("inquiry", copy.inquiryString);
}

}  // namespace
