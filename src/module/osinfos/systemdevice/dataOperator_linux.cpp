#include "module/osinfos/systemdevice/dataOperator_linux.h"

#include <fcntl.h>
#include <linux/cdrom.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <locale>
#include <sstream>

#include "common/logger/logLine.h"

namespace Zendra::ZDSystemDevice {

namespace {

constexpr int noDescriptor = -1;

/** The first sg driver with the sg_io_hdr interface is 3.0, written as 30000. */
constexpr int firstVersionWithSgIo = 30000;

constexpr unsigned int maxDataInLength = 255;
constexpr unsigned int commandTimeoutMilliseconds = 20000;
constexpr int maxAttempts = 5;
constexpr unsigned int secondsBetweenAttempts = 5;

/** The two bytes of a command block that are set before it is sent: the allocation length of a 10-byte block. */
constexpr std::size_t allocationLengthHighByte = 7;
constexpr std::size_t allocationLengthLowByte = 8;

/** SPC fixed-format sense data. */
constexpr std::size_t senseLength = 32;
constexpr std::size_t senseKeyByte = 2;
constexpr unsigned char senseKeyMask = 0x0F;
constexpr unsigned char senseKeyUnitAttention = 0x06;
constexpr std::size_t additionalSenseCodeByte = 12;
constexpr std::size_t additionalSenseCodeQualifierByte = 13;

/** An additional sense code and its qualifier. */
struct AdditionalSense {
    unsigned char code;
    unsigned char qualifier;
};
constexpr AdditionalSense becomingReady{0x04, 0x01};
constexpr AdditionalSense notReadyToReadyChange{0x28, 0x00};

using SenseBuffer = std::array<unsigned char, senseLength>;

bool IsAllowed(unsigned int ioctlCode)
{
    switch (ioctlCode) {
    case HDIO_DRIVE_TASK:
    case HDIO_DRIVE_CMD:
    case SG_EMULATED_HOST:
    case SG_GET_SCSI_ID:
    case SG_GET_VERSION_NUM:
    case SG_IO:
    case CDROM_GET_CAPABILITY:
    case SCSI_IOCTL_GET_IDLUN:
    case SCSI_IOCTL_GET_BUS_NUMBER:
    case NVME_IOCTL_ADMIN_CMD:
        return true;
    default:
        return false;
    }
}

sg_io_hdr_t MakeHeader(const ReqPassThruParam& request, SenseBuffer& sense)
{
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_FROM_DEV;
    header.cmd_len = static_cast<unsigned char>(request.cdbLength);
    header.mx_sb_len = senseLength;
    header.dxfer_len = maxDataInLength;
    header.dxferp = request.dataBuffer;
    header.cmdp = request.cdb;
    header.sbp = sense.data();
    header.timeout = commandTimeoutMilliseconds;
    return header;
}

/**
 * Sets the allocation length of a 10-byte command to 255, and does so for every command:
 * (oddity: allocation-length-always) of a 6-byte block these bytes lie in the room behind it. The blocks are shared by
 * all threads, which write the same values, hence the atomic stores.
 */
void SetAllocationLength(unsigned char* commandBlock)
{
    __atomic_store_n(&commandBlock[allocationLengthLowByte], 0xFF, __ATOMIC_RELAXED);
    __atomic_store_n(&commandBlock[allocationLengthHighByte], 0x00, __ATOMIC_RELAXED);
}

bool IsRetryCondition(const SenseBuffer& sense)
{
    const auto says = [&](AdditionalSense additional) {
        return sense[additionalSenseCodeByte] == additional.code &&
               sense[additionalSenseCodeQualifierByte] == additional.qualifier;
    };
    return (sense[senseKeyByte] & senseKeyMask) == senseKeyUnitAttention || says(becomingReady) ||
           says(notReadyToReadyChange);
}

void LogErrorStatus(const sg_io_hdr_t& header, const SenseBuffer& sense)
{
    // One stream for all lines: its base stays hexadecimal once sense bytes were written (oddity: hexadecimal-stays).
    std::ostringstream text;
    text.imbue(std::locale::classic());
    if (header.sb_len_wr != 0) {
        text << "SCSI sense data: " << std::hex;
        const std::size_t written = std::min<std::size_t>(header.sb_len_wr, sense.size());
        for (std::size_t i = 0; i < written; ++i) {
            text << static_cast<unsigned int>(sense[i]);
        }
        ZENDRA_LOG(4, text.str());
    }
    const auto logStatus = [&text](bool wanted, const char* name, auto status) {
        if (wanted) {
            text.str("");
            text << name << status;
            ZENDRA_LOG(4, text.str());
        }
    };
    // Asks for one field and writes the other, and that as a character (oddity: raw-status-character).
    logStatus(header.masked_status != 0, "SG SCSI status=", header.status);
    logStatus(header.host_status != 0, "SG Host status=", header.host_status);
    logStatus(header.driver_status != 0, "SG Driver status=", header.driver_status);
}

}  // namespace

DataOperatorInterface::~DataOperatorInterface() = default;

DataOperator::DataOperator() : fileDescriptor(noDescriptor) {}

DataOperator::~DataOperator()
{
    CloseDev();
}

void DataOperator::CloseDev()
{
    // A descriptor of 0 is never closed (oddity: zero-stays-open).
    if (fileDescriptor > 0) {
        close(fileDescriptor);
        fileDescriptor = noDescriptor;
    }
}

int DataOperator::OpenDriveFile(std::string& driveName)
{
    ZENDRA_LOG(4, "Enter DataOperator::OpenDriveFile() driveName = " << driveName);
    CloseDev();
    fileDescriptor = open(driveName.c_str(), O_RDONLY | O_NONBLOCK);
    return fileDescriptor >= 0 ? DEV_OPEN_OK : DEV_OPEN_FAILED;
}

int DataOperator::ExecIoCtl(ReqIoCtlParam& request)
{
    ZENDRA_LOG(4, "Enter DataOperator::ExecIoCtl().");
    if (fileDescriptor < 0 && OpenDriveFile(request.driveName) == DEV_OPEN_FAILED) {
        ZENDRA_LOG(4, "DataOperator::ExecIoCtl(" << request.driveName << ")  invalid");
        return DEV_OPEN_FAILED;
    }
    // Request numbers are unsigned; as int, those with the top bit set would reach ioctl sign-extended.
    const unsigned int ioctlCode = static_cast<unsigned int>(request.ioctlCode);
    const int result = IsAllowed(ioctlCode) ? ioctl(fileDescriptor, ioctlCode, request.ioctlData) : -1;
    CloseDev();
    ZENDRA_LOG(4, "Exit DataOperator::ExecIoCtl(), ret = " << result);
    return result >= 0 ? DEV_SUCCESS : DEV_FAILURE;
}

int DataOperator::ExecPassThruCmd(ReqPassThruParam& request)
{
    ZENDRA_LOG(4, "Enter DataOperator::ExecPassThruCmd()");
    SenseBuffer sense{};
    int version = 0;
    ReqIoCtlParam ioctlRequest{request.driveName, SG_GET_VERSION_NUM, &version};
    int status = ExecIoCtl(ioctlRequest);
    // A driver that is too old counts as success with nothing sent (oddity: old-driver-succeeds).
    if (status != DEV_SUCCESS || version < firstVersionWithSgIo) {
        ZENDRA_LOG(4, "Device do not compat with SCSI");
        return status;
    }

    for (int attemptsLeft = maxAttempts; attemptsLeft > 0; --attemptsLeft) {
        sg_io_hdr_t header = MakeHeader(request, sense);
        SetAllocationLength(request.cdb);
        ioctlRequest.ioctlCode = SG_IO;
        ioctlRequest.ioctlData = &header;
        status = ExecIoCtl(ioctlRequest);
        if (status != DEV_SUCCESS) {
            ZENDRA_LOG(4, "SG IOCTL error.");
            if (attemptsLeft == 1) {
                return status;
            }
        }
        if ((header.info & SG_INFO_CHECK) == 0) {
            break;
        }
        const bool retry = IsRetryCondition(sense);
        if (retry) {
            // After the last attempt too (oddity: sleep-after-last).
            ZENDRA_LOG(4, "Retry condition...");
            sleep(secondsBetweenAttempts);
        }
        if (Log::GetMinLogLevel() >= 4) {
            LogErrorStatus(header, sense);
        }
        if (!retry) {
            break;
        }
    }
    // The name is of another time (oddity: exit-line-of-another).
    ZENDRA_LOG(4, "Exit scsiPassThrough::execSCSICommand().");
    return status;
}

}  // namespace Zendra::ZDSystemDevice
