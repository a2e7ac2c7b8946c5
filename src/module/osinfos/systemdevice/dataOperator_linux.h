/**
 * @file
 * @brief The one place that opens device files and issues ioctls.
 *
 * Knows how a command reaches a device, not what its answer means: that is dataProxy_linux.h's business.
 * Opening most device files takes root or membership of the group that owns them (disk, cdrom, tape).
 */
#ifndef ZENDRA_SYSTEMDEVICE_DATAOPERATOR_LINUX_H
#define ZENDRA_SYSTEMDEVICE_DATAOPERATOR_LINUX_H

#include <string>

#include "common/export.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice {

/** A request for one ioctl. */
struct ZENDRA_EXPORT ReqIoCtlParam {
    std::string driveName;      ///< Path of the device file ("/dev/sg0").
    int ioctlCode = 0;          ///< The ioctl's request number.
    void* ioctlData = nullptr;  ///< The argument, the caller's, laid out as the kernel defines it for `ioctlCode`.
};

/** A request for one SCSI command with a data-in phase. */
struct ZENDRA_EXPORT ReqPassThruParam {
    std::string driveName;                ///< Path of the device file.
    unsigned char* cdb = nullptr;         ///< The command block, the caller's; at least 9 writable bytes in any case.
    int cdbLength = 0;                    ///< Bytes of the command to send, 6 or 10; only the low byte counts.
    unsigned char* dataBuffer = nullptr;  ///< Receives the answer, the caller's; at least 255 bytes.
};

/** How the answer to a SCSI command is to be read. Any other value: not at all. */
enum Passthrough_cmd_type : int {
    PT_STD_INQUIRY = 0,     ///< SPC standard INQUIRY data.
    PT_SERIAL_INQUIRY = 11  ///< SPC VPD page 0x80, Unit Serial Number.
};

/** What can carry a command to a device: the real thing (DataOperator) or a stand-in. */
class ZENDRA_EXPORT DataOperatorInterface {
public:
    /**
     * Runs one ioctl on a device file. Blocks as long as the driver does.
     * @param request stays the caller's; the kernel's answer stands behind its `ioctlData` on success.
     * @return DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED.
     */
    virtual int ExecIoCtl(ReqIoCtlParam& request) = 0;

    /** The same for one SCSI command: blocks until the device has answered; the answer stands in `dataBuffer`. */
    virtual int ExecPassThruCmd(ReqPassThruParam& request) = 0;

    /** Operators are deleted through this interface by the proxy that owns them. */
    virtual ~DataOperatorInterface();

protected:
    DataOperatorInterface() = default;
    DataOperatorInterface(const DataOperatorInterface&) = default;
    DataOperatorInterface& operator=(const DataOperatorInterface&) = default;
};

/**
 * Runs ioctls and SCSI commands through the kernel. Not to be shared between threads. Device errors are answered by
 * status; memory exhaustion throws std::bad_alloc.
 */
class ZENDRA_EXPORT DataOperator : public DataOperatorInterface {
public:
    DataOperator();
    ~DataOperator() override;
    DataOperator(const DataOperator&) = delete;
    DataOperator& operator=(const DataOperator&) = delete;

    /** Closes the open device file, unless its descriptor is 0, which is left as it is. */
    void CloseDev();

    /**
     * Opens a device file read-only and without waiting for a medium, closing the one open before.
     * @return DEV_OPEN_OK, or DEV_OPEN_FAILED with errno as open(2) left it.
     */
    int OpenDriveFile(std::string& driveName);

    /**
     * Opens the device file, issues one ioctl and closes the file. Only requests that this library needs are let
     * through; another number opens and closes the file, issues nothing and fails.
     * @return DEV_OPEN_FAILED; DEV_SUCCESS when the ioctl answered 0 or more; otherwise DEV_FAILURE.
     */
    int ExecIoCtl(ReqIoCtlParam& request) override;

    /**
     * Sends one SCSI command through SG_IO, with up to 255 bytes of answer. Writes 0x00 and 0xFF into bytes 7 and 8 of
     * the command block. A command that is answered with UNIT ATTENTION, "becoming ready" or "not ready to ready
     * change" is sent again after 5 seconds, up to five times in all; each attempt may take the kernel 20 seconds, so a
     * call blocks for 125 seconds at the worst.
     * @return DEV_OPEN_FAILED or DEV_FAILURE when the command could not be sent. DEV_SUCCESS when it was sent,
     *         whatever the device's SCSI status, and also, with nothing sent and the buffer untouched, when the
     *         driver speaks an sg interface older than version 3.0.
     */
    int ExecPassThruCmd(ReqPassThruParam& request) override;

protected:
    int fileDescriptor;  ///< The open device file, -1 when none is.
};

}  // namespace Zendra::ZDSystemDevice

#endif
