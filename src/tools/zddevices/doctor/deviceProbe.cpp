#include "tools/zddevices/doctor/deviceProbe.h"

#include <fcntl.h>
#include <linux/hdreg.h>
#include <linux/major.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/format.hpp>
#include <cerrno>
#include <cstdint>

#include "tools/zddevices/scan/access.h"

namespace Zendra {
namespace ZDDevices {

namespace {

/** The bit of a tape node's minor number by which the driver leaves the tape where it is at close(2). */
constexpr unsigned int withoutRewind = 0x80;

constexpr int firstVersionWithSgIo = 30000;
constexpr unsigned int commandTimeoutMilliseconds = 20000;
constexpr std::size_t dataInLength = 255;
constexpr std::size_t senseLength = 32;

/** SPC standard INQUIRY data. */
constexpr std::size_t typeByte = 0;
constexpr unsigned char connectedDisk = 0;
constexpr unsigned char connectedTape = 1;
constexpr std::size_t vendorOffset = 8;
constexpr std::size_t vendorLength = 8;
constexpr std::size_t productOffset = 16;
constexpr std::size_t productLength = 16;

using CommandBlock = std::array<unsigned char, 6>;
/** SPC INQUIRY: standard data; page 0x80. */
constexpr CommandBlock inquiryCommand = {0x12, 0x00, 0x00, 0x00, 0x80, 0x00};
constexpr CommandBlock serialCommand = {0x12, 0x01, 0x80, 0x00, 0xFF, 0x00};

/** ATA IDENTIFY DEVICE by HDIO_DRIVE_CMD: command, sector count, and room for a header and a sector. */
constexpr unsigned char ataIdentify = 0xEC;
constexpr std::size_t ataCommandByte = 0;
constexpr std::size_t ataSectorCountByte = 3;
using AtaBuffer = std::array<unsigned char, 4 + 512>;

/** NVMe Identify, controller structure. */
constexpr unsigned char nvmeIdentify = 0x06;
constexpr unsigned int nvmeController = 1;
constexpr std::size_t nvmeAnswerLength = 4096;

using DataBuffer = std::array<unsigned char, dataInLength>;
using SenseBuffer = std::array<unsigned char, senseLength>;

class RealKernel : public DeviceKernel {
public:
    int Open(const std::string& path) override
    {
        const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        return descriptor >= 0 ? descriptor : -errno;
    }

    int Ioctl(int descriptor, unsigned long request, void* argument) override
    {
        const int result = ioctl(descriptor, request, argument);
        return result >= 0 ? result : -errno;
    }

    void Close(int descriptor) override { close(descriptor); }

    bool MayNotRead(const std::string& path) override { return ZDDevices::MayNotRead(path); }

    dev_t CharacterDevice(const std::string& path) override
    {
        struct stat state {};
        return stat(path.c_str(), &state) == 0 && S_ISCHR(state.st_mode) ? state.st_rdev : 0;
    }
};

std::string TextUpToNul(const DataBuffer& data, std::size_t offset, std::size_t length)
{
    const auto* const first = data.data() + offset;
    return std::string(first, std::find(first, first + length, '\0'));
}

/** What the sense data says, in SPC's numbers; empty when there is too little of it. */
std::string DescribeSense(const SenseBuffer& sense, std::size_t written)
{
    constexpr unsigned char formatMask = 0x7F;
    constexpr unsigned char descriptorFormat = 0x72;
    constexpr unsigned char keyMask = 0x0F;
    const bool descriptors = (sense[0] & formatMask) >= descriptorFormat;
    const std::size_t keyByte = descriptors ? 1 : 2;
    const std::size_t codeByte = descriptors ? 2 : 12;
    if (written < codeByte + 2) {
        return {};
    }
    return (boost::format(", sense key 0x%x, additional sense 0x%02x/0x%02x") %
            static_cast<unsigned int>(sense[keyByte] & keyMask) % static_cast<unsigned int>(sense[codeByte]) %
            static_cast<unsigned int>(sense[codeByte + 1]))
        .str();
}

std::string DescribeAnswer(const sg_io_hdr_t& header, const SenseBuffer& sense)
{
    if ((header.info & SG_INFO_CHECK) == 0) {
        return {};
    }
    if (header.host_status != 0) {
        return (boost::format("nothing came back from the device (host status 0x%x)") % header.host_status).str();
    }
    return (boost::format("the device answered with SCSI status 0x%02x") % static_cast<unsigned int>(header.status))
               .str() +
           DescribeSense(sense, std::min<std::size_t>(header.sb_len_wr, sense.size()));
}

/** An open device file that is being asked. */
class Interview {
public:
    Interview(DeviceKernel& askedKernel, int openDescriptor, Finding& noted)
        : kernel(askedKernel), descriptor(openDescriptor), finding(noted)
    {
    }

    /** The library's usual way. @return whether a SCSI INQUIRY could be sent, or need not be. */
    bool AskScsi(bool isSg)
    {
        int version = 0;
        if (!Ask("SG_GET_VERSION_NUM", "the version of the SCSI command interface", SG_GET_VERSION_NUM, &version)) {
            return false;
        }
        if (version < firstVersionWithSgIo) {
            Last().remark = "too old to carry commands; the library then sends none";
            return true;
        }
        DataBuffer data{};
        if (!Send("INQUIRY, standard data", inquiryCommand, data)) {
            return false;
        }
        finding.vendor = TextUpToNul(data, vendorOffset, vendorLength);
        finding.product = TextUpToNul(data, productOffset, productLength);
        if (finding.vendor.empty()) {
            return true;
        }
        AskAddress(isSg);
        if (data[typeByte] == connectedDisk || data[typeByte] == connectedTape) {
            data.fill(0);
            Send("INQUIRY, unit serial number", serialCommand, data);
        }
        return true;
    }

    bool AskAta()
    {
        AtaBuffer buffer{};
        buffer[ataCommandByte] = ataIdentify;
        buffer[ataSectorCountByte] = 1;
        return Ask("HDIO_DRIVE_CMD", "ATA IDENTIFY DEVICE", HDIO_DRIVE_CMD, buffer.data());
    }

    bool AskNvme()
    {
        alignas(sizeof(std::uint64_t)) std::array<unsigned char, nvmeAnswerLength> data{};
        nvme_admin_cmd command{};
        command.opcode = nvmeIdentify;
        command.addr = reinterpret_cast<std::uintptr_t>(data.data());
        command.data_len = static_cast<std::uint32_t>(data.size());
        command.cdw10 = nvmeController;
        int result = 0;
        const bool answered =
            Ask("NVME_IOCTL_ADMIN_CMD", "NVMe Identify Controller", NVME_IOCTL_ADMIN_CMD, &command, &result);
        if (answered && result > 0) {
            Last().remark = (boost::format("the device answered with NVMe status 0x%x") % result).str();
        }
        return answered;
    }

    bool HasNames() const { return !finding.vendor.empty() || !finding.product.empty(); }

    /** The library takes such a disk's revision from the disk itself, and leaves it out when that fails. */
    bool IsAtaBehindScsi() const { return finding.vendor.find("ATA") != std::string::npos; }

private:
    Question& Last() { return finding.questions.back(); }

    bool Ask(const char* name, const char* asks, unsigned long request, void* argument, int* result = nullptr)
    {
        const int answer = kernel.Ioctl(descriptor, request, argument);
        finding.questions.push_back({name, asks, answer < 0 ? -answer : 0, {}});
        if (result != nullptr) {
            *result = answer;
        }
        return answer >= 0;
    }

    bool Send(const char* asks, CommandBlock block, DataBuffer& data)
    {
        SenseBuffer sense{};
        sg_io_hdr_t header{};
        header.interface_id = 'S';
        header.dxfer_direction = SG_DXFER_FROM_DEV;
        header.cmd_len = static_cast<unsigned char>(block.size());
        header.mx_sb_len = senseLength;
        header.dxfer_len = static_cast<unsigned int>(data.size());
        header.dxferp = data.data();
        header.cmdp = block.data();
        header.sbp = sense.data();
        header.timeout = commandTimeoutMilliseconds;
        if (!Ask("SG_IO", asks, SG_IO, &header)) {
            return false;
        }
        Last().remark = DescribeAnswer(header, sense);
        return true;
    }

    void AskAddress(bool isSg)
    {
        if (isSg) {
            sg_scsi_id id{};
            Ask("SG_GET_SCSI_ID", "the SCSI address", SG_GET_SCSI_ID, &id);
            return;
        }
        std::array<int, 2> idLun{};
        Ask("SCSI_IOCTL_GET_IDLUN", "channel, target and LUN", SCSI_IOCTL_GET_IDLUN, idLun.data());
        int host = 0;
        Ask("SCSI_IOCTL_GET_BUS_NUMBER", "the SCSI host's number", SCSI_IOCTL_GET_BUS_NUMBER, &host);
    }

    DeviceKernel& kernel;
    int descriptor;
    Finding& finding;
};

/** Asks as the library does. @return whether the library then lists the device. */
bool Conduct(Interview& interview, Manner manner)
{
    switch (manner) {
    case Manner::IdeDisk:
    case Manner::GenericWithoutDriver:
        return interview.AskAta();
    case Manner::NvmeDisk:
        return interview.AskNvme();
    case Manner::Tape:
        return interview.AskScsi(false) || interview.AskAta();
    case Manner::Generic:
        return interview.AskScsi(true) && (interview.HasNames() || interview.AskAta());
    case Manner::Optical:
        return (interview.AskScsi(false) && interview.HasNames()) || interview.AskAta();
    case Manner::ScsiDisk:
        break;
    }
    if (!interview.AskScsi(false) || !interview.HasNames()) {
        return interview.AskAta();
    }
    return !interview.IsAtaBehindScsi() || interview.AskAta();
}

/** The node that leaves the tape of a rewinding node where it is; empty when there is none. */
std::string TwinWithoutRewind(const std::string& path, dev_t number, DeviceKernel& kernel)
{
    std::string twin = path;
    twin.insert(twin.rfind('/') + 1, "n");
    const dev_t wanted = makedev(major(number), minor(number) | withoutRewind);
    return kernel.CharacterDevice(twin) == wanted ? twin : std::string();
}

}  // namespace

DeviceKernel& HostKernel()
{
    static RealKernel kernel;
    return kernel;
}

Finding ProbeDeviceFile(const std::string& path, Manner manner, DeviceKernel& kernel)
{
    Finding finding;
    finding.path = path;
    if (kernel.MayNotRead(path)) {
        finding.visibility = Visibility::Denied;
        finding.openError = EACCES;
        return finding;
    }
    std::string opened = path;
    if (manner == Manner::Tape) {
        const dev_t number = kernel.CharacterDevice(path);
        if (major(number) == SCSI_TAPE_MAJOR && (minor(number) & withoutRewind) == 0) {
            opened = TwinWithoutRewind(path, number, kernel);
            if (opened.empty()) {
                finding.visibility = Visibility::NotAsked;
                return finding;
            }
            finding.askedThrough = opened;
        }
    }
    const int descriptor = kernel.Open(opened);
    if (descriptor < 0) {
        finding.openError = -descriptor;
        const bool denied = finding.openError == EACCES || finding.openError == EPERM;
        finding.visibility = denied ? Visibility::Denied : Visibility::CannotBeOpened;
        return finding;
    }
    Interview interview(kernel, descriptor, finding);
    finding.visibility = Conduct(interview, manner) ? Visibility::Visible : Visibility::NoUsableAnswer;
    kernel.Close(descriptor);
    return finding;
}

}  // namespace ZDDevices
}  // namespace Zendra
