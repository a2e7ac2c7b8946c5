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

namespace Zendra {
namespace ZDSystemDevice {

/** A request for one ioctl. */
struct ZENDRA_EXPORT ReqIoCtlParam {
    /** Path of the device file ("/dev/sg0"). */
    std::string driveName;
    /** The ioctl's request number. */
    int ioctlCode = 0;
    /** The ioctl's argument, owned by the caller, laid out as the kernel defines it for `ioctlCode`. */
    void* ioctlData = nullptr;
};

/** A request for one SCSI command with a data-in phase. */
struct ZENDRA_EXPORT ReqPassThruParam {
    /** Path of the device file. */
    std::string driveName;
    /** The command descriptor block, owned by the caller; at least 9 writable bytes whatever `cdbLength` says. */
    unsigned char* cdb = nullptr;
    /** Bytes of the command to send, 6 or 10; only the low byte counts. */
    int cdbLength = 0;
    /** Receives the answer, owned by the caller; at least 255 bytes. */
    unsigned char* dataBuffer = nullptr;
};

/** How the answer to a SCSI command is to be read. Any other value: not at all. */
enum Passthrough_cmd_type : int {
    /** SPC standard INQUIRY data. */
    PT_STD_INQUIRY = 0,
    /** SPC VPD page 0x80, Unit Serial Number. */
    PT_SERIAL_INQUIRY = 11
};

/** What can carry a command to a device: the real thing (DataOperator) or a stand-in. */
class ZENDRA_EXPORT DataOperatorInterface {
public:
    /**
     * @brief Runs one ioctl on a device file. Blocks as long as the driver does.
     * @param request stays the caller's; the kernel's answer stands behind its `ioctlData` on success.
     * @return DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED.
     */
    virtual int ExecIoCtl(ReqIoCtlParam& request) = 0;

    /**
     * @brief Runs one SCSI command on a device file. Blocks until the device has answered.
     * @param request stays the caller's; the answer stands in its `dataBuffer` on success.
     * @return DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED.
     */
    virtual int ExecPassThruCmd(ReqPassThruParam& request) = 0;

    /** Operators are deleted through this interface by the proxy that owns them. */
    virtual ~DataOperatorInterface();

protected:
    DataOperatorInterface() = default;
    DataOperatorInterface(const DataOperatorInterface&) = default;
    DataOperatorInterface& operator=(const DataOperatorInterface&) = default;
};

/**
 * @brief Runs ioctls and SCSI commands through the kernel.
 *
 * Opens the device file for each ioctl and closes it afterwards. Not to be shared between threads. Device
 * errors are answered by status; memory exhaustion throws std::bad_alloc.
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
     * @brief Opens a device file read-only and without waiting for a medium, closing the one open before.
     * @return DEV_OPEN_OK, or DEV_OPEN_FAILED with errno as open(2) left it.
     */
    int OpenDriveFile(std::string& driveName);

    /**
     * @brief Opens the device file, issues one ioctl and closes the file.
     *
     * Only requests that this library needs are let through; another number opens and closes the file, issues
     * nothing and fails.
     *
     * @return DEV_OPEN_FAILED; DEV_SUCCESS when the ioctl answered 0 or more; otherwise DEV_FAILURE.
     */
    int ExecIoCtl(ReqIoCtlParam& request) override;

    /**
     * @brief Sends one SCSI command through SG_IO, with up to 255 bytes of answer.
     *
     * Writes 0x00 and 0xFF into bytes 7 and 8 of the command block. A command that is answered with UNIT
     * ATTENTION, "becoming ready" or "not ready to ready change" is sent again after 5 seconds, up to five
     * times in all; each attempt may take the kernel 20 seconds, so a call blocks for 125 seconds at the worst.
     *
     * @return DEV_OPEN_FAILED or DEV_FAILURE when the command could not be sent. DEV_SUCCESS when it was sent,
     *         whatever the device's SCSI status, and also, with nothing sent and the buffer untouched, when the
     *         driver speaks an sg interface older than version 3.0.
     */
    int ExecPassThruCmd(ReqPassThruParam& request) override;

protected:
    /** The open device file, -1 when none is. */
    int fileDescriptor;
};

}  // namespace ZDSystemDevice
}  // namespace Zendra

#endif
