/**
 * @file
 * @brief Asks the library. The only source of the program that calls the facade.
 */
#ifndef ZENDRA_ZDDEVICES_INVENTORY_H
#define ZENDRA_ZDDEVICES_INVENTORY_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/records/report.h"
#include "tools/zddevices/scan/answer.h"
#include "tools/zddevices/scan/deviceWatch.h"
#include "tools/zddevices/scan/isolate.h"
#include "tools/zddevices/scan/logging.h"
#include "tools/zddevices/scan/progress.h"

namespace Zendra {
namespace ZDDevices {

/**
 * @name Single calls of the facade, in this process. They block.
 * @{
 */
/** The devices of one class as their device files stand, or, without a class, all devices merged. */
DeviceAnswer AskForDevices(std::optional<ZDSystemDevice::SysDeviceType> type);
/** What the optical drive can read and write. */
OpticalAnswer AskForOptical();
/** The firmware of the disks. */
FirmwareAnswer AskForFirmware();
/** @} */

/** A call as a task for RunIsolated(); Decode() makes an answer of the outcome. */
template <typename Record>
Task MakeTask(const std::string& name, std::function<Answer<Record>()> ask)
{
    const auto watch = std::make_shared<DeviceWatch>();
    return {name,
            [ask = std::move(ask), watch] {
                FollowDevices(watch.get());
                return Encode(ask());
            },
            [watch] { return watch->Look(); }};
}

/** The task that asks for the devices of one class; named after it. */
Task MakeDeviceTask(const DeviceClass& deviceClass);

/** Why a task has no answer, or none that Decode() takes. */
std::string DescribeFailure(const Outcome& outcome);

/** What the class lists make together: the list that the facade's merged call gives. */
std::vector<ZDSystemDevice::SystemDevice> Merge(std::vector<ZDSystemDevice::SystemDevice> listsOfTheClasses);

/** How a report is collected. */
struct Collection {
    /** With a limit, each class is asked in a process of its own and is unanswered when the time is over. */
    std::optional<Duration> limit;
    /** Shows which devices take their time; may be null. */
    Progress* progress = nullptr;
};

/** The devices of one class as their device files stand, or, without a class, all devices merged. */
Report<ZDSystemDevice::SystemDevice> CollectDevices(std::optional<ZDSystemDevice::SysDeviceType> type,
                                                    const Collection& collection);

/** What the optical drive can read and write. */
Report<ZDSystemDevice::OpticalProperty> CollectOptical(const Collection& collection);

/** The firmware of the disks. */
Report<ZDOptions::SoftwareIdentity_> CollectFirmware(const Collection& collection);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
