#include "tools/zddevices/output/messages.h"

#include <boost/algorithm/string/join.hpp>
#include <cstddef>
#include <map>
#include <set>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

namespace {

/** Who must act on more of them reads JSON. */
constexpr std::size_t mostNamed = 10;

}  // namespace

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

std::vector<std::string> DescribeMissing(const std::vector<Missing>& missing, bool userIsRoot)
{
    std::vector<DeniedFile> denied;
    std::vector<std::string> lines;
    std::size_t others = 0;
    for (const Missing& one : missing) {
        if (one.reason == Reason::Denied) {
            denied.push_back({one.deviceFile, one.group});
        } else if (++others <= mostNamed) {
            lines.push_back(Printable((one.deviceFile.empty() ? "" : one.deviceFile + ": ") + one.message));
        }
    }
    if (others > mostNamed) {
        lines.push_back(std::to_string(others - mostNamed) + " more gave no answer; --format json names them all");
    }
    if (!denied.empty()) {
        lines.push_back(DescribeDenied(denied, userIsRoot));
    }
    return lines;
}

std::string DescribeDenied(const std::vector<DeniedFile>& files, bool userIsRoot)
{
    std::vector<std::string> paths;
    std::set<std::string> groups;
    for (const DeniedFile& file : files) {
        if (paths.size() < mostNamed) {
            paths.push_back(Printable(file.path));
        }
        if (!file.group.empty()) {
            groups.insert(Printable(file.group));
        }
    }
    std::string text = std::to_string(files.size()) + (files.size() == 1 ? " device file" : " device files") +
                       " could not be opened for lack of privilege (" + boost::algorithm::join(paths, ", ") +
                       (files.size() > mostNamed ? ", ...); " : "); ");
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
