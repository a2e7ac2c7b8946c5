/**
 * @file
 * @brief A disk proxy whose operator gives one answer, for the targets that look at one decoder.
 */
#ifndef ZENDRA_TESTS_FUZZ_SCRIPTEDPROXY_H
#define ZENDRA_TESTS_FUZZ_SCRIPTEDPROXY_H

#include <algorithm>

#include "check.h"
#include "fakeSystem.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"

namespace Zendra {
namespace Fuzz {

/** Writes its answer into the buffer of whatever is asked. */
class ScriptedOperator : public ZDSystemDevice::DataOperatorInterface {
public:
    int ExecIoCtl(ZDSystemDevice::ReqIoCtlParam& request) override
    {
        return Answer(static_cast<unsigned char*>(request.ioctlData) + skipped);
    }

    int ExecPassThruCmd(ZDSystemDevice::ReqPassThruParam& request) override { return Answer(request.dataBuffer); }

    int status = ZDSystemDevice::DEV_SUCCESS;
    Bytes answer;
    /** Bytes of an ioctl's argument that stay in front of the answer. */
    std::size_t skipped = 0;

private:
    int Answer(unsigned char* buffer) const
    {
        if (status == ZDSystemDevice::DEV_SUCCESS) {
            std::copy(answer.begin(), answer.end(), buffer);
        }
        return status;
    }
};

/** Needs a FakeSystem, because a proxy loads the sg module. */
class ScriptedProxy : public ZDSystemDevice::PhysicalDriveProxy {
public:
    explicit ScriptedProxy(ScriptedOperator& scripted)
    {
        DeleteOperator();
        dataOper = &scripted;
    }
    ~ScriptedProxy() override { dataOper = nullptr; }
    ScriptedProxy(const ScriptedProxy&) = delete;
    ScriptedProxy& operator=(const ScriptedProxy&) = delete;
};

/** A record with something in every field, as another device would have left it. */
inline ZDSystemDevice::BusDevice UsedBusDevice()
{
    ZDSystemDevice::BusDevice bus;
    bus.hostAdapter = 11;
    bus.bus = 12;
    bus.spareNumber = 13;
    bus.targetId = 14;
    bus.lun = 15;
    bus.devId = "dev id";
    bus.spareText = "spare text";
    bus.productId = "product of before";
    bus.vendorId = "vendor of before";
    bus.revision = "revision of before";
    bus.serialNum = "serial of before";
    bus.otherIdentInfo = "ident of before";
    bus.shortIdent = "short of before";
    bus.deviceType = "type of before";
    bus.inquiryString = "inquiry of before";
    return bus;
}

/** Requires that all fifteen fields are as expected, and that no text holds a NUL. */
inline void RequireEqual(const ZDSystemDevice::BusDevice& actual, const ZDSystemDevice::BusDevice& expected)
{
    RequireEqual(actual.hostAdapter, expected.hostAdapter, "hostAdapter");
    RequireEqual(actual.bus, expected.bus, "bus");
    RequireEqual(actual.spareNumber, expected.spareNumber, "spareNumber");
    RequireEqual(actual.targetId, expected.targetId, "targetId");
    RequireEqual(actual.lun, expected.lun, "lun");
    RequireEqual(actual.devId, expected.devId, "devId");
    RequireEqual(actual.spareText, expected.spareText, "spareText");
    RequireEqual(actual.productId, expected.productId, "productId");
    RequireEqual(actual.vendorId, expected.vendorId, "vendorId");
    RequireEqual(actual.revision, expected.revision, "revision");
    RequireEqual(actual.serialNum, expected.serialNum, "serialNum");
    RequireEqual(actual.otherIdentInfo, expected.otherIdentInfo, "otherIdentInfo");
    RequireEqual(actual.shortIdent, expected.shortIdent, "shortIdent");
    RequireEqual(actual.deviceType, expected.deviceType, "deviceType");
    RequireEqual(actual.inquiryString, expected.inquiryString, "inquiryString");
    for (const auto* text : {&actual.productId, &actual.vendorId, &actual.revision, &actual.serialNum,
                             &actual.otherIdentInfo, &actual.shortIdent, &actual.deviceType, &actual.inquiryString}) {
        Require(HasNoNul(*text), "no text of a record holds a NUL byte");
    }
}

}  // namespace Fuzz
}  // namespace Zendra

#endif
