/**
 * @file
 * @brief The public values of the device inventory: records, classes of devices, status codes, command blocks.
 *
 * Everything here is plain data that callers may copy freely; nothing here talks to a device. The calls that
 * fill the records are in deviceCollector.h.
 */
#ifndef ZENDRA_SYSTEMDEVICE_SYSTEMDEVICE_H
#define ZENDRA_SYSTEMDEVICE_SYSTEMDEVICE_H

#include <cstdint>
#include <string>

#include "common/export.h"

namespace Zendra::ZDSystemDevice {

/** What an operation answers. Every operation of the library uses this one list; 1 is not in use. */
enum DeviceStatus {
    DEVICE_RESULT_OK = 0,  ///< A list operation ran; the output holds what was found, which may be nothing. Also the
                           ///< answer when memory ran out before the scan began.
    DEV_OPEN_OK = 2,       ///< A device file was opened.
    DEV_OPEN_FAILED = 3,   ///< A device file could not be opened.
    DEV_SUCCESS = 4,       ///< An operation on one device file succeeded.
    DEV_FAILURE = 5,  ///< An operation on one device file failed, is not allowed, or there was no operator to run it.
    DEVICE_RESULT_NONE = 6  ///< No device file of the requested class exists; the output is as it was.
};

/** A class of devices. Any other 32-bit value is legal and means SYS_DEVICE_SCSI. */
enum SysDeviceType : std::int32_t {
    SYS_DEVICE_TAPE = 0,  ///< Tape drives: /dev/st*, and /dev/nst* where there is no st.
    SYS_DEVICE_SCSI = 1,  ///< Generic SCSI devices: /dev/sg*, or /dev/sd* where the sg driver cannot be loaded.
    SYS_DEVICE_PHYSICAL_DRIVE = 2,  ///< Disks: /dev/hd*, /dev/sd*, /dev/nvme*.
    SYS_DEVICE_CDDVD = 3            ///< Optical drives: /dev/sr*.
};

/**
 * One device. An empty text means that the value is not known. Texts come from the device as it sent them and may hold
 * any byte: blanks, control characters, bytes that are not UTF-8; a firmware revision out of sysfs even NUL.
 */
struct ZENDRA_EXPORT SystemDevice {
    std::string vendor;   ///< T10 vendor (SPC standard INQUIRY bytes 8-15), first word of an ATA model, or "NVMe".
    std::string product;  ///< SPC standard INQUIRY bytes 16-31, a word of the ATA model (IDENTIFY words 27-46), or the
                          ///< NVMe model number (Identify Controller bytes 24-62).
    std::string device_type;    ///< Peripheral device type in words ("Direct Access Device"); empty for disks that only
                                ///< ATA IDENTIFY reached.
    std::string serial_number;  ///< SPC VPD page 0x80, ATA IDENTIFY words 10-19, NVMe Identify Controller bytes 4-22.
    /// SPC standard INQUIRY bytes 32-35, ATA IDENTIFY words 23-26, NVMe Identify Controller from byte 64 to the next
    /// NUL, or what sysfs holds, without the line feed behind it.
    std::string firmware_revision;
    std::string port;    ///< SCSI host number, decimal, no leading zeros. All four address fields "0": no address.
    std::string target;  ///< SCSI target id, decimal.
    std::string bus;     ///< SCSI channel, decimal.
    std::string lun;     ///< Logical unit number, decimal.
};

/** What one optical drive can read and write ("Yes" or "No"), after the kernel's table of optical drives. */
struct ZENDRA_EXPORT OpticalProperty {
    std::string drive_name_;            ///< Device path ("/dev/sr0").
    std::string vendor_;                ///< Vendor identification of the drive.
    std::string product_;               ///< Product identification of the drive.
    std::string dvd_ram_write_ = "No";  ///< Can write DVD-RAM.
    std::string cd_rw_write_ = "No";    ///< Can write CD-RW.
    std::string cd_r_write_ = "No";     ///< Can write CD-R.
    std::string dvd_read_ = "No";       ///< Can read DVD.
    std::string dvd_r_write_ = "No";    ///< Can write DVD-R.
    std::string mrw_r_ = "No";          ///< Can read MRW (Mount Rainier).
    std::string mrw_w_ = "No";          ///< Can write MRW (Mount Rainier).
    std::string ram_w_ = "No";          ///< Can write random-access media.
};

/** Not for callers. */
namespace Internal {
/** Does nothing; see libraryAnchor. */
ZENDRA_EXPORT void KeepLibraryNeeded();

/**
 * Makes every program that includes this header need the library. The command blocks are weak references, for
 * which alone the linker drops a library under --as-needed, the default of Debian's g++; they would then be null.
 */
__attribute__((used)) inline void (*const libraryAnchor)() = &KeepLibraryNeeded;
}  // namespace Internal

/**
 * @name SCSI command blocks
 *
 * Command descriptor blocks for DataOperator::ExecPassThruCmd, with operation code and allocation length; PC is
 * the page control, 1 for current cumulative values. They are writable, and that call writes to bytes 7 and 8 behind
 * the block's start, which for a 6-byte block lie in its neighbour: the blocks follow one another without a gap, in
 * this order up to serialinquiry_cmd, and some room follows that one. Whoever needs pristine bytes takes a copy before
 * the first command is sent.
 * @{
 */
extern ZENDRA_EXPORTED_DATA unsigned char inquiry_cmd[6];      ///< SPC INQUIRY 0x12, standard data, 128 bytes.
extern ZENDRA_EXPORTED_DATA unsigned char load_cmd[6];         ///< SBC START STOP UNIT 0x1B, START 1.
extern ZENDRA_EXPORTED_DATA unsigned char unload_cmd[6];       ///< SBC START STOP UNIT 0x1B, START 0.
extern ZENDRA_EXPORTED_DATA unsigned char prevent_cmd[6];      ///< SBC PREVENT ALLOW MEDIUM REMOVAL 0x1E, PREVENT 1.
extern ZENDRA_EXPORTED_DATA unsigned char send_diags[6];       ///< SPC SEND DIAGNOSTIC 0x1D, all options clear.
extern ZENDRA_EXPORTED_DATA unsigned char allow_cmd[6];        ///< SBC PREVENT ALLOW MEDIUM REMOVAL 0x1E, PREVENT 0.
extern ZENDRA_EXPORTED_DATA unsigned char rewind_cmd[6];       ///< SSC REWIND 0x01, IMMED 1.
extern ZENDRA_EXPORTED_DATA unsigned char tapeAlert_cmd[10];   ///< SPC LOG SENSE 0x4D, PC 1, page 0x2E, 512 bytes.
extern ZENDRA_EXPORTED_DATA unsigned char driveUsage_cmd[10];  ///< SPC LOG SENSE 0x4D, PC 1, page 0x00, 65535 bytes.
/** SPC LOG SENSE 0x4D, PC 0, page 0x33, parameter pointer 1, 512 bytes. */
extern ZENDRA_EXPORTED_DATA unsigned char deviceStatus_cmd[10];
extern ZENDRA_EXPORTED_DATA unsigned char serialinquiry_cmd[6];  ///< SPC INQUIRY 0x12, EVPD 1, page 0x80, 255 bytes.
extern ZENDRA_EXPORTED_DATA unsigned char test_unit_ready[6];    ///< SPC TEST UNIT READY 0x00. Stands by itself.
/** @} */

}  // namespace Zendra::ZDSystemDevice

#endif
