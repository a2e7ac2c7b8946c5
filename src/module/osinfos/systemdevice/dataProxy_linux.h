/**
 * @file
 * @brief The probing family: one proxy per class of devices.
 *
 * A proxy finds the device files of its class in /dev, asks each device who it is, and turns the answers into
 * records. It sends commands through its operator only (dataOperator_linux.h) and keeps nothing between calls. It is
 * used by one thread. Device errors are answered by status; memory exhaustion throws std::bad_alloc. What takes the
 * path of a device file and asks sysfs throws std::out_of_range when the path is shorter than "/dev/".
 */
#ifndef ZENDRA_SYSTEMDEVICE_DATAPROXY_LINUX_H
#define ZENDRA_SYSTEMDEVICE_DATAPROXY_LINUX_H

#include <string>
#include <vector>

#include "common/export.h"
#include "module/osinfos/systemdevice/busDevice.h"
#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace Zendra::ZDSystemDevice {

/** What all classes of devices share. Its own list operations find nothing. */
class ZENDRA_EXPORT DataProxy {
public:
    /**
     * Loads the kernel's sg module (through a shell and modprobe) and makes the operator. Neither failing is an error:
     * without the module `sg_ko_loaded` is false, without memory `dataOper` is null, and every query then answers
     * DEV_FAILURE.
     */
    DataProxy();

    /** Does not delete the operator: the destructor of each subclass does. */
    virtual ~DataProxy();

    DataProxy(const DataProxy&) = delete;
    DataProxy& operator=(const DataProxy&) = delete;

    /**
     * Appends one record per device of the class that answers. Blocks while every device file of the class is asked
     * (see DataOperator::ExecPassThruCmd for how long).
     * @return DEVICE_RESULT_OK when there is a device file, whether or not any device answered;
     *         DEVICE_RESULT_NONE when there is none, with `devices` untouched.
     */
    virtual unsigned int GetDeviceList(std::vector<SystemDevice>& devices);

    /**
     * Appends what the optical drives can do; classes without such records append nothing.
     * @return DEVICE_RESULT_OK; DEV_SUCCESS from the generic SCSI class.
     */
    virtual unsigned int GetCDDVDOptList(std::vector<OpticalProperty>& options);

    /** Empties every text and zeroes every number. */
    void InitBusDev(BusDevice& bus);

    /** The words for an SPC peripheral device type; empty for 16 and from 18 upward. */
    std::string GetDeviceTypeString(unsigned char code);

    /**
     * Appends the paths of the device files whose names begin with `prefix`, in directory order. "st" leaves out the
     * standard streams and the tape mode variants, "sd" partitions, "nvme" the controllers nvme0 to nvme9 and
     * everything with a longer name than nvme0n1.
     * @return 0, or 0xFFFFFFFF when /dev cannot be read.
     */
    unsigned int ScanDeviceFiles(std::string& prefix, std::vector<std::string>& files);

    /** Appends `bus` as a record, unconditionally. */
    void StoreBusDev(BusDevice& bus, std::vector<SystemDevice>& devices);

    /**
     * The sysfs directory of the block device at `path`: "/sys/block/" + name + "/", or empty. Takes the first entry of
     * /sys/block whose name occurs anywhere in the device's name.
     */
    std::string GetFirmwareVersionFilePath(const std::string& path);

    /** The firmware revision that sysfs holds for the device at `path`, with its line feed, or empty. */
    std::string GetFirmwareVersionFromFile(const std::string& path);

    /**
     * Sends one SCSI command and reads its answer into `bus` as `type` says. Of SPC VPD page 0x80 the length is byte 3,
     * the serial number begins at byte 4; one of more than 32 characters leaves the old, one of none or one empties it.
     * @return DEV_SUCCESS, or the status of the failed command with `bus` untouched.
     */
    int SendRcvPassthroughCMD(ReqPassThruParam& param, BusDevice& bus, Passthrough_cmd_type type);

    /**
     * Sends one ioctl and reads its answer into `bus` as the ioctl's number says. HDIO_DRIVE_CMD: 516 bytes, 4 of
     * header and the ATA IDENTIFY DEVICE data. NVME_IOCTL_ADMIN_CMD: its data address points at the 4096 bytes of NVMe
     * Identify Controller data, two of which are overwritten.
     * @return DEV_SUCCESS, or the status of the failed ioctl with `bus` untouched.
     */
    int SendRcvIOCTLCMD(ReqIoCtlParam& param, BusDevice& bus);

    /**
     * Reads SPC standard INQUIRY data: type (byte 0), vendor (8-15), product (16-31), revision (32-35).
     * @param data at least 36 bytes, which are only read; the caller's.
     * @param bus  gets the texts; not null. Its address and serial number stay.
     * @return 0, always.
     */
    int ProcessInquiryData(unsigned char* data, BusDevice* bus);

    /**
     * Asks a SCSI device for its identity, its address and, from disks and tapes, its serial number.
     * @param driveName path of the device file.
     * @param bus   gets what the device answered; what it did not answer stays.
     * @param is_sg whether the address comes from SG_GET_SCSI_ID (sg nodes) or from the SCSI ioctls (others).
     * @return DEV_SUCCESS, also when the driver is too old to be asked, which leaves `bus` without names;
     *         DEV_FAILURE when the INQUIRY could not be sent.
     */
    int GetGenericDeviceData(std::string& driveName, BusDevice& bus, bool is_sg);

    /**
     * Asks an ATA disk for its identity (IDENTIFY DEVICE through HDIO_DRIVE_CMD). Serial number: words 10-19, firmware
     * revision: 23-26, model: 27-46, of which the first word becomes the vendor and the second the product. Takes
     * CAP_SYS_RAWIO and CAP_SYS_ADMIN.
     * @return DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED.
     */
    int GetDriverData(std::string& driveName, BusDevice& bus);

protected:
    /** Replaces the revision by the one that sysfs holds, where it holds one. */
    void PreferFirmwareVersionFromFile(const std::string& path, BusDevice& bus);

    /** For the destructors of the classes that own an operator. */
    void DeleteOperator();

    bool sg_ko_loaded;                ///< Whether the sg module could be loaded.
    DataOperatorInterface* dataOper;  ///< Carries every command; owned; null when memory ran out.
};

/** Optical drives: /dev/sr*. */
class ZENDRA_EXPORT CDDVDProxy : public DataProxy {
public:
    CDDVDProxy();
    ~CDDVDProxy() override;
    unsigned int GetDeviceList(std::vector<SystemDevice>& devices) override;

    /**
     * Appends what the host's optical drive can do, after /proc/sys/dev/cdrom/info. The kernel's table has a column per
     * drive and is read as if it had one: with two drives the record names none of them and denies everything. Runs
     * `cat` on the table, for 360 seconds of silence at most, after asking every optical device file who it is.
     * @return DEVICE_RESULT_OK, with one record appended unless the table has no row at all; DEVICE_RESULT_NONE,
     *         with `options` untouched, when there is no optical device file.
     */
    unsigned int GetCDDVDOptList(std::vector<OpticalProperty>& options) override;

    /** Empties name, vendor and product and denies every capability. */
    void InitOpticalPropertyStruct(OpticalProperty& prop);

    /**
     * Probes one device file: SCSI INQUIRY, else ATA IDENTIFY; then the revision that sysfs holds.
     * @return DEV_SUCCESS, or the status of ATA IDENTIFY, which decides where INQUIRY failed or named nothing.
     */
    unsigned int GetDeviceInfo(BusDevice& bus, std::string& path);
};

/** Tape drives: /dev/st*, or /dev/nst* where there is no st. */
class ZENDRA_EXPORT TapeProxy : public DataProxy {
public:
    TapeProxy();
    ~TapeProxy() override;
    unsigned int GetDeviceList(std::vector<SystemDevice>& devices) override;
    unsigned int GetCDDVDOptList(std::vector<OpticalProperty>& options) override;

    /**
     * Probes one device file: SCSI INQUIRY, else ATA IDENTIFY; then the revision that sysfs holds.
     * @return DEV_SUCCESS when INQUIRY was answered, even without names; otherwise the status of ATA IDENTIFY.
     */
    unsigned int GetDeviceInfo(BusDevice& bus, std::string& path);
};

/** Disks: /dev/hd*, /dev/sd*, /dev/nvme*. */
class ZENDRA_EXPORT PhysicalDriveProxy : public DataProxy {
public:
    PhysicalDriveProxy();
    ~PhysicalDriveProxy() override;
    unsigned int GetDeviceList(std::vector<SystemDevice>& devices) override;
    unsigned int GetCDDVDOptList(std::vector<OpticalProperty>& options) override;

    /**
     * Probes one SCSI, SATA or IDE disk into `bus`; `useGeneric` tries SCSI INQUIRY before ATA IDENTIFY. Of disks whose
     * vendor contains "ATA", those at /dev/sd* are asked for their ATA identity too; of the others sysfs is asked.
     * @return DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED, as the last command sent went.
     */
    unsigned int GetDeviceInfo(BusDevice& bus, std::string& path, bool useGeneric);

    /**
     * Asks an NVMe disk for its identity (Identify Controller). Serial number: bytes 4-22, model number: 24-62,
     * firmware revision: from 64 up to the next NUL. The vendor becomes "NVMe". Takes CAP_SYS_ADMIN, on kernels
     * before 6.2.
     * @return DEV_SUCCESS, or DEV_FAILURE or DEV_OPEN_FAILED with `bus` untouched.
     */
    int GetNVMEInfo(BusDevice& bus, std::string& driveName);

    /**
     * Replaces revision and product by those of ATA IDENTIFY DEVICE (words 23-26 and 27-46).
     * @return DEV_SUCCESS, or the status of the failed command with `bus` untouched.
     */
    unsigned int UpdateFirmwareVersionForSdDisk(const std::string& path, BusDevice& bus);
};

/** Generic SCSI devices: /dev/sg*, or /dev/sd* where the sg module is not loaded. */
class ZENDRA_EXPORT SCSIProxy : public DataProxy {
public:
    SCSIProxy();
    ~SCSIProxy() override;
    unsigned int GetDeviceList(std::vector<SystemDevice>& devices) override;
    unsigned int GetCDDVDOptList(std::vector<OpticalProperty>& options) override;

    /**
     * Probes one device file: SCSI INQUIRY, or ATA IDENTIFY where the sg module is not loaded or INQUIRY named nothing;
     * then the revision that sysfs holds.
     * @return DEV_SUCCESS, DEV_FAILURE or DEV_OPEN_FAILED.
     */
    unsigned int GetDeviceInfo(BusDevice& bus, std::string& path);
};

}  // namespace Zendra::ZDSystemDevice

#endif
