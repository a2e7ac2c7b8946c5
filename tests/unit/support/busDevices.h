/**
 * @file
 * @brief Records as a probe fills them, for tests that compare whole records.
 */
#ifndef ZENDRA_TESTS_SUPPORT_BUSDEVICES_H
#define ZENDRA_TESTS_SUPPORT_BUSDEVICES_H

#include <string>

#include "module/osinfos/systemdevice/busDevice.h"

namespace ZendraTest {

/** Every text and number of a record in one comparable line. */
inline std::string All(const Zendra::ZDSystemDevice::BusDevice& device)
{
    std::string text = std::to_string(device.hostAdapter) + "/" + std::to_string(device.bus) + "/" +
                       std::to_string(device.spareNumber) + "/" + std::to_string(device.targetId) + "/" +
                       std::to_string(device.lun);
    for (const std::string* field :
         {&device.devId, &device.spareText, &device.productId, &device.vendorId, &device.revision, &device.serialNum,
          &device.otherIdentInfo, &device.shortIdent, &device.deviceType, &device.inquiryString}) {
        text += "{" + *field + "}";
    }
    return text;
}

/** A record with something in every field, to see what a query leaves alone. */
inline Zendra::ZDSystemDevice::BusDevice Used()
{
    Zendra::ZDSystemDevice::BusDevice device;
    device.hostAdapter = 11;
    device.bus = 12;
    device.spareNumber = 13;
    device.targetId = 14;
    device.lun = 15;
    device.devId = "old devId";
    device.spareText = "old spareText";
    device.productId = "old productId";
    device.vendorId = "old vendorId";
    device.revision = "old revision";
    device.serialNum = "old serialNum";
    device.otherIdentInfo = "old otherIdentInfo";
    device.shortIdent = "old shortIdent";
    device.deviceType = "old deviceType";
    device.inquiryString = "old inquiryString";
    return device;
}

}  // namespace ZendraTest

#endif
