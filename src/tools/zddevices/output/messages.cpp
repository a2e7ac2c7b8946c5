#include "tools/zddevices/output/messages.h"

#include <boost/algorithm/string/join.hpp>
#include <set>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/output/text.h"

namespace Zendra {
namespace ZDDevices {

std::string StatusName(unsigned int status)
{
    switch (status) {
    case ZDSystemDevice::DEVICE_RESULT_OK:
        return "DEVICE_RESULT_OK";
    case ZDSystemDevice::DEV_OPEN_OK:
        return "DEV_OPEN_OK";
    case ZDSystemDevice::DEV_OPEN_FAILED:
        return "DEV_OPEN_FAILED";
    case ZDSystemDevice::DEV_SUCCESS:
        return "DEV_SUCCESS";
    case ZDSystemDevice::DEV_FAILURE:
        return "DEV_FAILURE";
    case ZDSystemDevice::DEVICE_RESULT_NONE:
        return "DEVICE_RESULT_NONE";
    default:
        return "UNKNOWN";
    }
}

std::string DescribeFailedScan(unsigned int status)
{
    return "the scan failed: " + StatusName(status) + " (" + std::to_string(status) + ")";
}

std::string DescribeUnanswered(const Unanswered& unanswered)
{
    const std::string device = unanswered.device.empty() ? "" : " (" + unanswered.device + ")";
    return Printable("class " + unanswered.className + ": " + unanswered.failure + device);
}

std::string DescribeDenied(const std::vector<DeniedFile>& files, bool userIsRoot)
{
    std::vector<std::string> paths;
    std::set<std::string> groups;
    for (const DeniedFile& file : files) {
        paths.push_back(Printable(file.path));
        if (!file.group.empty()) {
            groups.insert(Printable(file.group));
        }
    }
    std::string text = std::to_string(files.size()) + (files.size() == 1 ? " device file" : " device files") +
                       " could not be opened for lack of privilege (" + boost::algorithm::join(paths, ", ") + "); ";
    if (files.size() == 1 && files.front().path == "/dev") {
        text = "the device files could not be listed for lack of privilege (/dev); ";
    }
    if (userIsRoot) {
        return text + "even root may not here: grant this container or service access to the devices";
    }
    text += "run zddevices as root";
    if (!groups.empty()) {
        text += std::string(", or join the ") + (groups.size() == 1 ? "group " : "groups ") +
                boost::algorithm::join(groups, ", ");
    }
    return text;
}

}  // namespace ZDDevices
}  // namespace Zendra
