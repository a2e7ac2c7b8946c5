#include "tools/zddevices/output/messages.h"

#include <boost/algorithm/string/join.hpp>
#include <map>
#include <set>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

std::string StatusName(unsigned int status)
{
    static const std::map<unsigned int, const char*> names = {
        {ZDSystemDevice::DEVICE_RESULT_OK, "DEVICE_RESULT_OK"},
        {ZDSystemDevice::DEV_OPEN_OK, "DEV_OPEN_OK"},
        {ZDSystemDevice::DEV_OPEN_FAILED, "DEV_OPEN_FAILED"},
        {ZDSystemDevice::DEV_SUCCESS, "DEV_SUCCESS"},
        {ZDSystemDevice::DEV_FAILURE, "DEV_FAILURE"},
        {ZDSystemDevice::DEVICE_RESULT_NONE, "DEVICE_RESULT_NONE"},
    };
    const auto found = names.find(status);
    return found == names.end() ? "UNKNOWN" : found->second;
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

}  // namespace Zendra::ZDDevices
