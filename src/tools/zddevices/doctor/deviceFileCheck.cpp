#include "tools/zddevices/doctor/deviceFileCheck.h"

#include <linux/hdreg.h>
#include <linux/major.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <boost/format.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "tools/zddevices/scan/access.h"

namespace Zendra::ZDDevices {

namespace {

/** The bit of a tape node's minor number by which the driver leaves the tape where it is at close(2). */
constexpr unsigned int withoutRewind = 0x80;

constexpr int firstVersionWithSgIo = 30000;

/** The kernel's DID_NO_CONNECT, DID_BUS_BUSY, DID_TIME_OUT and DID_BAD_TARGET, which are 1 to 4. */
constexpr unsigned int highestSilentStatus = 4;

/** SPC INQUIRY: the bit of byte 1 by which it asks for a page of vital product data. */
constexpr std::size_t pageBitByte = 1;
constexpr unsigned char pageBit = 0x01;

/** What the sense data says, in SPC's numbers; empty when there is too little of it. */
std::string DescribeSense(const sg_io_hdr_t& header)
{
    constexpr unsigned char formatMask = 0x7F;
    constexpr unsigned char descriptorFormat = 0x72;
    constexpr unsigned char keyMask = 0x0F;
    const std::size_t written = std::min(header.sb_len_wr, header.mx_sb_len);
    const bool descriptors = written > 0 && (header.sbp[0] & formatMask) >= descriptorFormat;
    const std::size_t keyByte = descriptors ? 1 : 2;
    const std::size_t codeByte = descriptors ? 2 : 12;
    if (written < codeByte + 2) {
        return {};
    }
    return (boost::format(", sense key 0x%x, additional sense 0x%02x/0x%02x") %
            static_cast<unsigned int>(header.sbp[keyByte] & keyMask) % static_cast<unsigned int>(header.sbp[codeByte]) %
            static_cast<unsigned int>(header.sbp[codeByte + 1]))
        .str();
}

std::string DescribeScsiAnswer(const sg_io_hdr_t& header)
{
    if ((header.info & SG_INFO_CHECK) == 0) {
        return {};
    }
    if (header.host_status != 0) {
        // Behind any other error there may be an answer all the same.
        const char* const what = header.host_status <= highestSilentStatus ? "nothing came back from the device"
                                                                           : "the host adapter reported an error";
        return (boost::format("%s (host status 0x%x)") % what % header.host_status).str();
    }
    return (boost::format("the device answered with SCSI status 0x%02x") % static_cast<unsigned int>(header.status))
               .str() +
           DescribeSense(header);
}

/** A controller that refuses the command leaves the buffer as it was, and the ioctl succeeds. */
std::string DescribeNvmeAnswer(const nvme_admin_cmd& command)
{
    // The kernel's interface carries the address as a number. NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto* const data = reinterpret_cast<const unsigned char*>(static_cast<std::uintptr_t>(command.addr));
    const bool empty = std::all_of(data, data + command.data_len, [](unsigned char byte) { return byte == 0; });
    return empty ? "the device gave no data" : std::string();
}

/** A request that the library makes. */
struct KnownRequest {
    unsigned int code;
    const char* name;
    const char* asks;
};

constexpr std::array<KnownRequest, 7> knownRequests = {{
    {SG_GET_VERSION_NUM, "SG_GET_VERSION_NUM", "the version of the SCSI command interface"},
    {SG_IO, "SG_IO", "INQUIRY, standard data"},
    {SG_GET_SCSI_ID, "SG_GET_SCSI_ID", "the SCSI address"},
    {SCSI_IOCTL_GET_IDLUN, "SCSI_IOCTL_GET_IDLUN", "channel, target and LUN"},
    {SCSI_IOCTL_GET_BUS_NUMBER, "SCSI_IOCTL_GET_BUS_NUMBER", "the SCSI host's number"},
    {HDIO_DRIVE_CMD, "HDIO_DRIVE_CMD", "ATA IDENTIFY DEVICE"},
    {NVME_IOCTL_ADMIN_CMD, "NVME_IOCTL_ADMIN_CMD", "NVMe Identify Controller"},
}};

/** What is odd about the answer to a request; empty when nothing is. */
std::string DescribeAnswer(const DeviceRequest& request)
{
    switch (request.code) {
    case SG_GET_VERSION_NUM:
        return *static_cast<const int*>(request.argument) < firstVersionWithSgIo
                   ? "too old to carry commands; the library then sends none"
                   : "";
    case SG_IO:
        return DescribeScsiAnswer(*static_cast<const sg_io_hdr_t*>(request.argument));
    case NVME_IOCTL_ADMIN_CMD:
        return DescribeNvmeAnswer(*static_cast<const nvme_admin_cmd*>(request.argument));
    default:
        return {};
    }
}

}  // namespace

RequestResult Describe(const DeviceRequest& request)
{
    RequestResult result{(boost::format("ioctl 0x%x") % request.code).str(), "something else", request.error, {}};
    for (const KnownRequest& known : knownRequests) {
        if (known.code == request.code) {
            result.request = known.name;
            result.asks = known.asks;
        }
    }
    if (request.code == SG_IO &&
        (static_cast<const sg_io_hdr_t*>(request.argument)->cmdp[pageBitByte] & pageBit) != 0) {
        result.asks = "INQUIRY, unit serial number";
    }
    if (request.error == 0) {
        result.remark = DescribeAnswer(request);
    }
    return result;
}

dev_t CharacterDevice(const std::string& path)
{
    struct stat state {};
    return stat(path.c_str(), &state) == 0 && S_ISCHR(state.st_mode) ? state.st_rdev : 0;
}

std::string TapeNodeToAsk(const std::string& path, const std::function<dev_t(const std::string& path)>& numberOf)
{
    const dev_t number = numberOf(path);
    if (major(number) != SCSI_TAPE_MAJOR || (minor(number) & withoutRewind) != 0) {
        return path;
    }
    std::string twin = path;
    twin.insert(twin.rfind('/') + 1, "n");
    return numberOf(twin) == makedev(major(number), minor(number) | withoutRewind) ? twin : std::string();
}

CheckedFile CheckDeviceFile(ZDSystemDevice::SysDeviceType type, const std::string& path, const DeviceFileAsker& ask,
                            const std::function<void(const std::string& path)>& tell)
{
    CheckedFile file;
    file.path = path;
    if (MayNotRead(path)) {
        file.visibility = Visibility::Denied;
        file.openError = EACCES;
        return file;
    }
    const std::string asked = type == ZDSystemDevice::SYS_DEVICE_TAPE ? TapeNodeToAsk(path, CharacterDevice) : path;
    if (asked.empty()) {
        file.visibility = Visibility::NotAsked;
        return file;
    }
    file.askedThrough = asked == path ? "" : asked;
    const DeviceFileAnswer answer =
        ask(asked, {[&tell](const std::string& deviceFile) {
                        tell(deviceFile);
                        return true;
                    },
                    [&file](const DeviceRequest& request) {
                        if (request.status == ZDSystemDevice::DEV_OPEN_FAILED && file.requests.empty()) {
                            file.openError = request.error;
                        } else {
                            file.requests.push_back(Describe(request));
                        }
                    }});
    if (answer.listed) {
        file.visibility = Visibility::Visible;
        file.openError = 0;
    } else if (file.openError != 0) {
        file.visibility = IsPrivilegeLacking(file.openError) ? Visibility::Denied : Visibility::CannotBeOpened;
    }
    file.vendor = answer.vendor;
    file.product = answer.product;
    return file;
}

std::vector<std::string> TextsOf(const CheckedFile& file)
{
    std::vector<std::string> texts = {file.path,
                                      file.askedThrough,
                                      std::to_string(static_cast<int>(file.visibility)),
                                      std::to_string(file.openError),
                                      file.vendor,
                                      file.product};
    for (const RequestResult& one : file.requests) {
        texts.insert(texts.end(), {one.request, one.asks, std::to_string(one.error), one.remark});
    }
    return texts;
}

CheckedFile CheckedFileFrom(const std::vector<std::string>& texts)
{
    constexpr std::size_t textsOfFile = 6;
    constexpr std::size_t textsOfRequest = 4;
    if (texts.size() < textsOfFile || (texts.size() - textsOfFile) % textsOfRequest != 0) {
        throw std::runtime_error("a process gave no checked device file");
    }
    CheckedFile file{
        texts[0], texts[1], static_cast<Visibility>(std::stoi(texts[2])), std::stoi(texts[3]), {}, texts[4],
        texts[5], {}};
    for (std::size_t i = textsOfFile; i < texts.size(); i += textsOfRequest) {
        file.requests.push_back({texts[i], texts[i + 1], std::stoi(texts[i + 2]), texts[i + 3]});
    }
    return file;
}

}  // namespace Zendra::ZDDevices
