#include "module/osinfos/systemdevice/dataProxy_linux.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "common/concatenate.h"
#include "common/descriptor.h"
#include "common/logger/logLine.h"
#include "common/osspecific/osspecific_lin.h"
#include "module/osinfos/systemdevice/deviceNames.h"
#include "module/osinfos/systemdevice/identityData.h"
#include "module/osinfos/systemdevice/opticalTable.h"
#include "module/osinfos/systemdevice/sysBlock.h"

namespace Zendra::ZDSystemDevice {

namespace {

const char deviceDirectory[] = "/dev/";

constexpr int opticalTableTimeoutSeconds = 360;

/** Room for a data-in phase; the operator lets the kernel use the first 255 bytes. */
using DataInBuffer = std::array<unsigned char, 4096>;

constexpr int sixByteCommand = 6;

static_assert(sizeof(sg_scsi_id) == 32, "SG_GET_SCSI_ID answers in 32 bytes");
static_assert(sizeof(nvme_admin_cmd) == 72, "NVME_IOCTL_ADMIN_CMD takes 72 bytes");

bool BothNamesEmpty(const BusDevice& bus)
{
    return bus.vendorId.empty() && bus.productId.empty();
}

ReqIoCtlParam MakeIoCtlRequest(const std::string& driveName, unsigned int ioctlCode, void* data)
{
    return {driveName, static_cast<int>(ioctlCode), data};
}

/** A copy of what the kernel wrote: callers' buffers need not be aligned for `Answer`. */
template <typename Answer>
Answer CopyAnswer(const void* data)
{
    Answer answer{};
    std::memcpy(&answer, data, sizeof(answer));
    return answer;
}

/** All bytes that can be read. */
std::string ReadAll(const Descriptor& file)
{
    std::string contents;
    std::array<char, 4096> chunk;
    ssize_t count = 0;
    while ((count = read(file.Get(), chunk.data(), chunk.size())) > 0 || (count < 0 && errno == EINTR)) {
        if (count > 0) {
            contents.append(chunk.data(), static_cast<std::size_t>(count));
        }
    }
    return contents;
}

/** As DataProxy::GetFirmwareVersionFilePath. */
std::string FirmwareDirectory(const std::string& path, SysBlock& sysBlock)
{
    // The text names the method without its "Path" (oddity: firmware-file-text).
    ZENDRA_LOG(4, "Entry  DataProxy::GetFirmwareVersionFile() ");
    const std::optional<std::string> directory = sysBlock.DirectoryOf(path.substr(std::strlen(deviceDirectory)));
    if (!directory) {
        return "";
    }
    if (directory->empty()) {
        ZENDRA_LOG(4, "Exit  DataProxy::GetFirmwareVersionFile() ");
    }
    return *directory;
}

/** As DataProxy::GetFirmwareVersionFromFile. */
std::string FirmwareVersion(const std::string& path, SysBlock& sysBlock)
{
    const std::string directory = FirmwareDirectory(path, sysBlock);
    if (directory.empty()) {
        return "";
    }
    // NVMe and others publish firmware_rev, SCSI disks and drives rev.
    for (const char* name : {"device/firmware_rev", "device/rev"}) {
        const std::string fileName = directory + name;
        const Descriptor file(open(fileName.c_str(), O_RDONLY | O_CLOEXEC));
        if (file.IsOpen()) {
            return ReadAll(file);
        }
        ZENDRA_LOG(1, "Fail in get firmware version from " << fileName << ".");
    }
    return "";
}

/** As DataProxy::PreferFirmwareVersionFromFile. */
void PreferFirmwareVersion(const std::string& path, SysBlock& sysBlock, BusDevice& bus)
{
    std::string revision = FirmwareVersion(path, sysBlock);
    if (!revision.empty()) {
        bus.revision = std::move(revision);
    }
}

/** The device files whose names begin with `prefix`. */
std::vector<std::string> FilesOf(DataProxy& proxy, std::string prefix)
{
    std::vector<std::string> files;
    proxy.ScanDeviceFiles(prefix, files);
    return files;
}

/** Probes the files one after the other and stores each device that answers. */
template <typename Probe>
void ProbeEach(DataProxy& proxy, std::vector<std::string>& files, std::vector<SystemDevice>& devices, Probe probe)
{
    BusDevice bus;
    for (std::string& path : files) {
        proxy.InitBusDev(bus);
        if (probe(bus, path) == DEV_SUCCESS) {
            proxy.StoreBusDev(bus, devices);
        }
    }
}

/** As CDDVDProxy::GetDeviceInfo. */
unsigned int ProbeOptical(DataProxy& proxy, BusDevice& bus, std::string& path, SysBlock& sysBlock)
{
    ZENDRA_LOG(4, "Entry CDDVDProxy::GetDeviceInfo()");
    int status = proxy.GetGenericDeviceData(path, bus, false);
    if (status != DEV_SUCCESS || BothNamesEmpty(bus)) {
        status = proxy.GetDriverData(path, bus);
    }
    PreferFirmwareVersion(path, sysBlock, bus);
    ZENDRA_LOG(4, "Exit CDDVDProxy::GetDeviceInfo()");
    return static_cast<unsigned int>(status);
}

/** As TapeProxy::GetDeviceInfo. */
unsigned int ProbeTape(DataProxy& proxy, BusDevice& bus, std::string& path, SysBlock& sysBlock)
{
    ZENDRA_LOG(4, "Entry TapeProxy::GetDeviceInfo()");
    int status = proxy.GetGenericDeviceData(path, bus, false);
    if (status != DEV_SUCCESS) {
        status = proxy.GetDriverData(path, bus);
    } else if (BothNamesEmpty(bus)) {
        // Unlike for optical drives, a failure here does not cost the tape its record (oddity: nameless-tape-stays).
        proxy.GetDriverData(path, bus);
    }
    PreferFirmwareVersion(path, sysBlock, bus);
    ZENDRA_LOG(4, "Exit TapeProxy::GetDeviceInfo()");
    return static_cast<unsigned int>(status);
}

/** As PhysicalDriveProxy::GetDeviceInfo. */
unsigned int ProbeDisk(PhysicalDriveProxy& proxy, BusDevice& bus, std::string& path, bool useGeneric,
                       SysBlock& sysBlock)
{
    ZENDRA_LOG(4, "Entry PhysicalDriveProxy::GetDeviceInfo()");
    int status = useGeneric ? proxy.GetGenericDeviceData(path, bus, false) : static_cast<int>(DEV_FAILURE);
    if (!useGeneric || status != DEV_SUCCESS || BothNamesEmpty(bus)) {
        status = proxy.GetDriverData(path, bus);
    }
    if (bus.vendorId.find("ATA") == std::string::npos) {
        return static_cast<unsigned int>(status);
    }
    if (path.rfind("/dev/sd", 0) == 0) {
        // A failure here drops a disk that has answered already (oddity: ata-failure-drops-disk).
        return proxy.UpdateFirmwareVersionForSdDisk(path, bus);
    }
    PreferFirmwareVersion(path, sysBlock, bus);
    return static_cast<unsigned int>(status);
}

/** As SCSIProxy::GetDeviceInfo. */
unsigned int ProbeGeneric(DataProxy& proxy, bool sgLoaded, BusDevice& bus, std::string& path, SysBlock& sysBlock)
{
    ZENDRA_LOG(4, "Entry SCSIProxy::GetDeviceInfo()");
    int status = DEV_FAILURE;
    if (sgLoaded) {
        status = proxy.GetGenericDeviceData(path, bus, true);
        ZENDRA_LOG(4, "GetGenericDeviceData() ret = " << status);
        // Unlike elsewhere a failed INQUIRY gets no second attempt (oddity: no-second-attempt).
        if (status == DEV_SUCCESS && BothNamesEmpty(bus)) {
            status = proxy.GetDriverData(path, bus);
        }
    } else {
        status = proxy.GetDriverData(path, bus);
    }
    PreferFirmwareVersion(path, sysBlock, bus);
    return static_cast<unsigned int>(status);
}

}  // namespace

DataProxy::DataProxy() : sg_ko_loaded(false), dataOper(nullptr)
{
    // A shell command and not a module system call: modprobe knows aliases, dependencies and blacklists.
    sg_ko_loaded = system("modprobe sg >/dev/null 2>&1") == 0;
    try {
        dataOper = new DataOperator;
    } catch (const std::bad_alloc&) {
        ZENDRA_LOG(4, "DataProxy::DataProxy()  error due to catch an exception bad_alloc");
    }
    // The texts of this file are what they are, doubled and trailing blanks and misspellings included: callers
    // read them.
    ZENDRA_LOG(4, "Entry constructure DataProxy() sg_ko_loaded = " << (sg_ko_loaded ? 1 : 0));
}

DataProxy::~DataProxy()
{
    // The operator belongs to the subclass.
    ZENDRA_LOG(4, "Entry destructure ~DataProxy() ");
}

void DataProxy::DeleteOperator()
{
    delete dataOper;
    dataOper = nullptr;
}

unsigned int DataProxy::GetDeviceList(std::vector<SystemDevice>& /*devices*/)
{
    ZENDRA_LOG(4, "Entry DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int DataProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    ZENDRA_LOG(4, "Entry DataProxy::GetCDDVDOptList()");
    return DEVICE_RESULT_OK;
}

void DataProxy::InitBusDev(BusDevice& bus)
{
    bus.hostAdapter = bus.bus = bus.spareNumber = bus.targetId = bus.lun = 0;
    // Emptied and not made anew: texts find the room of the last device's (0.2 of 128 million instructions, 500 disks).
    for (std::string BusDevice::*text :
         {&BusDevice::devId, &BusDevice::spareText, &BusDevice::productId, &BusDevice::vendorId, &BusDevice::revision,
          &BusDevice::serialNum, &BusDevice::otherIdentInfo, &BusDevice::shortIdent, &BusDevice::deviceType,
          &BusDevice::inquiryString}) {
        (bus.*text).clear();
    }
}

std::string DataProxy::GetDeviceTypeString(unsigned char code)
{
    return std::string(DeviceTypeText(code));
}

unsigned int DataProxy::ScanDeviceFiles(std::string& prefix, std::vector<std::string>& files)
{
    ZENDRA_LOG(4, "Entry  DataProxy::ScanDeviceFiles() ");
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(deviceDirectory), closedir);
    if (!directory) {
        return 0xFFFFFFFFU;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (!IsDeviceFileName(prefix, name)) {
            continue;
        }
        ZENDRA_LOG(4, "DataProxy::ScanDeviceFiles() detect file : " << name);
        std::string path(deviceDirectory);
        path.append(name);
        files.push_back(std::move(path));
    }
    ZENDRA_LOG(4, "Exit  DataProxy::ScanDeviceFiles() ");
    return 0;
}

void DataProxy::StoreBusDev(BusDevice& bus, std::vector<SystemDevice>& devices)
{
    const std::string port = std::to_string(bus.hostAdapter);
    const std::string target = std::to_string(bus.targetId);
    const std::string channel = std::to_string(bus.bus);
    const std::string lun = std::to_string(bus.lun);
    // Composed on every call, whatever the log level (oddity: trace-always-composed).
    const std::string trace = Concatenate(
        "vendor id: ", bus.vendorId, " productId: ", bus.productId, " deviceType: ", bus.deviceType,
        " serialNum: ", bus.serialNum, " rev: ", bus.revision, " host adapter: ", port, " target ID: ", target, " bus ",
        channel, " lun ", lun, " devId: ", bus.devId, "  otherIdentInfo: ", bus.otherIdentInfo, "\n");
    ZENDRA_LOG(4, "DataProxy::StoreBusDev   " << trace);
    SystemDevice record{bus.vendorId, bus.productId, bus.deviceType, bus.serialNum, bus.revision, port, target, channel,
                        lun};
    // sysfs ends its texts with a line feed.
    if (!bus.revision.empty() && bus.revision.back() == '\n') {
        record.firmware_revision.pop_back();
    }
    devices.push_back(std::move(record));
}

std::string DataProxy::GetFirmwareVersionFilePath(const std::string& path)
{
    SysBlock sysBlock;
    return FirmwareDirectory(path, sysBlock);
}

std::string DataProxy::GetFirmwareVersionFromFile(const std::string& path)
{
    SysBlock sysBlock;
    return FirmwareVersion(path, sysBlock);
}

void DataProxy::PreferFirmwareVersionFromFile(const std::string& path, BusDevice& bus)
{
    SysBlock sysBlock;
    PreferFirmwareVersion(path, sysBlock, bus);
}

int DataProxy::SendRcvPassthroughCMD(ReqPassThruParam& param, BusDevice& bus, Passthrough_cmd_type type)
{
    if (dataOper == nullptr) {
        return DEV_FAILURE;
    }
    const int status = dataOper->ExecPassThruCmd(param);
    if (status != DEV_SUCCESS) {
        return status;
    }
    if (type == PT_STD_INQUIRY) {
        ProcessInquiryData(param.dataBuffer, &bus);
    } else if (type == PT_SERIAL_INQUIRY) {
        switch (ReadSerialPage({param.dataBuffer, SerialPage::length}, bus)) {
        case SerialNumber::TooLong:
            ZENDRA_LOG(4, "Size pointer is too large.");
            break;
        case SerialNumber::TooShort:
            ZENDRA_LOG(4, "Size pointer is too small, size<=1");
            break;
        case SerialNumber::Taken:
            ZENDRA_LOG(4, "Serial Number: " << bus.serialNum);
            break;
        }
    }
    return DEV_SUCCESS;
}

int DataProxy::ProcessInquiryData(unsigned char* data, BusDevice* bus)
{
    ReadInquiry({data, Inquiry::length}, *bus);
    return 0;
}

int DataProxy::SendRcvIOCTLCMD(ReqIoCtlParam& param, BusDevice& bus)
{
    if (dataOper == nullptr) {
        return DEV_FAILURE;
    }
    const int status = dataOper->ExecIoCtl(param);
    if (status != DEV_SUCCESS) {
        return status;
    }
    switch (static_cast<unsigned int>(param.ioctlCode)) {
    case SG_GET_SCSI_ID:
        StoreScsiId(CopyAnswer<sg_scsi_id>(param.ioctlData), bus);
        break;
    case SCSI_IOCTL_GET_IDLUN:
        StoreIdLun(CopyAnswer<std::uint32_t>(param.ioctlData), bus);
        break;
    case SCSI_IOCTL_GET_BUS_NUMBER:
        bus.hostAdapter = static_cast<std::uint16_t>(CopyAnswer<int>(param.ioctlData));
        break;
    case HDIO_DRIVE_CMD: {
        const AtaIdentity identity =
            ReadAtaIdentity({static_cast<const unsigned char*>(param.ioctlData), sizeof(AtaIdentify::Buffer)});
        ZENDRA_LOG(4, identity.model);
        StoreAtaIdentity(identity, bus);
        break;
    }
    case NVME_IOCTL_ADMIN_CMD: {
        const auto command = CopyAnswer<nvme_admin_cmd>(param.ioctlData);
        // The kernel's interface carries the address as a number. NOLINTNEXTLINE(performance-no-int-to-ptr)
        auto* const answer = reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(command.addr));
        // Callers see these bytes change.
        answer[NvmeIdentify::modelLastByte] = 0;
        answer[NvmeIdentify::serialNumberLastByte] = 0;
        ReadNvmeIdentity({answer, NvmeIdentify::dataLength}, bus);
        break;
    }
    default:
        break;
    }
    return DEV_SUCCESS;
}

int DataProxy::GetGenericDeviceData(std::string& driveName, BusDevice& bus, bool is_sg)
{
    ZENDRA_LOG(4, "Entry  GetGenericDeviceData() is_sg = " << (is_sg ? 1 : 0));
    DataInBuffer data{};
    ReqPassThruParam passThru{driveName, inquiry_cmd, sixByteCommand, data.data()};
    if (SendRcvPassthroughCMD(passThru, bus, PT_STD_INQUIRY) != DEV_SUCCESS) {
        ZENDRA_LOG(1, "Exit  GetGenericDeviceData()");
        return DEV_FAILURE;
    }
    if (bus.vendorId.empty() || bus.productId.empty()) {
        ZENDRA_LOG(4, "Exit  GetGenericDeviceData() due to vendorId and productId is empty");
        return DEV_SUCCESS;
    }
    ZENDRA_LOG(4, "GetGenericDeviceData() dataOper->ExecPassThruCmd vendorID and productID is not empty ");

    if (is_sg) {
        sg_scsi_id scsiId{};
        ReqIoCtlParam request = MakeIoCtlRequest(driveName, SG_GET_SCSI_ID, &scsiId);
        const int status = SendRcvIOCTLCMD(request, bus);
        ZENDRA_LOG(4, "GetGenericDeviceData() dataOper->ExecPassThruCmdSG_GET_SCSI_ID ret = " << status);
        if (status != DEV_SUCCESS) {
            ZENDRA_LOG(4, "GetGenericDeviceData() SG_GET_SCSI_ID failed ret = " << status);
            bus.otherIdentInfo.clear();
        } else {
            bus.otherIdentInfo = AddressText(bus);
            ZENDRA_LOG(4, "Get SCSI ID passed... otherIdentInfo = " << bus.otherIdentInfo);
        }
    } else {
        std::array<int, 2> idLun{};
        ReqIoCtlParam request = MakeIoCtlRequest(driveName, SCSI_IOCTL_GET_IDLUN, idLun.data());
        SendRcvIOCTLCMD(request, bus);
        int hostNumber = 0;
        request.ioctlCode = SCSI_IOCTL_GET_BUS_NUMBER;
        request.ioctlData = &hostNumber;
        SendRcvIOCTLCMD(request, bus);
        bus.otherIdentInfo = AddressText(bus);
        ZENDRA_LOG(4, "Get SCSI_IOCTL_GET_IDLUN passed.. otherIdentInfo = " << bus.otherIdentInfo);
    }

    // The whole byte counts, qualifier included: only connected disks and tapes are asked for a serial number.
    const unsigned char qualifierAndType = data[Inquiry::typeByte];
    if (qualifierAndType == Inquiry::typeDisk || qualifierAndType == Inquiry::typeTape) {
        data.fill(0);
        passThru.cdb = serialinquiry_cmd;
        SendRcvPassthroughCMD(passThru, bus, PT_SERIAL_INQUIRY);
    }
    ZENDRA_LOG(4, "Exit normally GetGenericDeviceData() ");
    return DEV_SUCCESS;
}

int DataProxy::GetDriverData(std::string& driveName, BusDevice& bus)
{
    ZENDRA_LOG(4, "Entry  GetDriverData() ");
    if (dataOper == nullptr) {
        return DEV_FAILURE;
    }
    AtaIdentify::Buffer buffer = AtaIdentifyRequest();
    ReqIoCtlParam request = MakeIoCtlRequest(driveName, HDIO_DRIVE_CMD, buffer.data());
    const int status = SendRcvIOCTLCMD(request, bus);
    // Written whatever the status, and followed by the entry text as exit line (oddity: driver-data-texts).
    ZENDRA_LOG(4, "Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = " << bus.otherIdentInfo);
    ZENDRA_LOG(4, "Entry  GetDriverData() ");
    return status;
}

CDDVDProxy::CDDVDProxy()
{
    ZENDRA_LOG(4, "Entry CDDVDProxy::CDDVDProxy()");
}

CDDVDProxy::~CDDVDProxy()
{
    ZENDRA_LOG(4, "Entry CDDVDProxy::~CDDVDProxy()");
    DeleteOperator();
}

unsigned int CDDVDProxy::GetDeviceList(std::vector<SystemDevice>& devices)
{
    ZENDRA_LOG(4, "Entry DataProxy::GetDeviceList()");
    std::vector<std::string> files = FilesOf(*this, DevicePrefix::optical);
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    SysBlock sysBlock;
    ProbeEach(*this, files, devices,
              [&](BusDevice& bus, std::string& path) { return ProbeOptical(*this, bus, path, sysBlock); });
    ZENDRA_LOG(4, "Exit DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int CDDVDProxy::GetDeviceInfo(BusDevice& bus, std::string& path)
{
    SysBlock sysBlock;
    return ProbeOptical(*this, bus, path, sysBlock);
}

void CDDVDProxy::InitOpticalPropertyStruct(OpticalProperty& prop)
{
    prop = OpticalProperty();
}

unsigned int CDDVDProxy::GetCDDVDOptList(std::vector<OpticalProperty>& options)
{
    ZENDRA_LOG(4, "Entry CDDVDProxy::GetCDDVDOptList()");
    std::vector<std::string> files = FilesOf(*this, DevicePrefix::optical);
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    SysBlock sysBlock;
    std::vector<std::pair<std::string, BusDevice>> drives;
    for (std::string& path : files) {
        BusDevice bus;
        if (ProbeOptical(*this, bus, path, sysBlock) == DEV_SUCCESS) {
            drives.emplace_back(path, bus);
        }
    }

    std::string table;
    OSSpecific::SpawnProcess("cat", {OpticalTable::path}, &table, opticalTableTimeoutSeconds);
    const std::vector<std::string> lines = OpticalTable::SplitLines(table);
    ZENDRA_LOG(4, "cat cdrom info result =      " << table);
    ZENDRA_LOG(4, "cat cdrom lines =      " << lines.size());
    if (lines.size() < OpticalTable::completeLineCount) {
        ZENDRA_LOG(4, "reading cdrom information is incomplete.");
    }
    const OpticalTable::Rows rows = OpticalTable::ReadRows(lines);
    if (rows.empty()) {
        return DEVICE_RESULT_OK;
    }

    OpticalProperty prop;
    OpticalTable::StoreRows(rows, prop);
    for (const auto& [path, bus] : drives) {
        if (path == prop.drive_name_) {
            prop.vendor_ = bus.vendorId;
            prop.product_ = bus.productId;
        }
    }
    ZENDRA_LOG(4, "cddvd   dvd_read_ = " << prop.dvd_read_ << "  dvd_ram_write_ = " << prop.dvd_ram_write_
                                         << "cddvd   dvd_r_write_ = " << prop.dvd_r_write_ << "  cd_rw_write_ = "
                                         << prop.cd_rw_write_ << "cddvd   cd_r_write_ = " << prop.cd_r_write_
                                         << "read MRW mrw_r_= " << prop.mrw_r_ << "write MRW mrw_w_=" << prop.mrw_w_
                                         << "RAM write cddvd.ram_w_= " << prop.ram_w_);
    ZENDRA_LOG(4, "Exit CDDVDProxy::GetCDDVDOptList()");
    options.push_back(prop);
    return DEVICE_RESULT_OK;
}

TapeProxy::TapeProxy()
{
    ZENDRA_LOG(4, "Entry TapeProxy::TapeProxy()");
}

TapeProxy::~TapeProxy()
{
    ZENDRA_LOG(4, "Entry TapeProxy::~TapeProxy()");
    DeleteOperator();
}

unsigned int TapeProxy::GetDeviceList(std::vector<SystemDevice>& devices)
{
    ZENDRA_LOG(4, "Entry DataProxy::GetDeviceList()");
    std::vector<std::string> files = FilesOf(*this, DevicePrefix::tape);
    if (files.empty()) {
        files = FilesOf(*this, DevicePrefix::nonRewindingTape);
    }
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    SysBlock sysBlock;
    ProbeEach(*this, files, devices,
              [&](BusDevice& bus, std::string& path) { return ProbeTape(*this, bus, path, sysBlock); });
    ZENDRA_LOG(4, "Exit DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int TapeProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    return DEVICE_RESULT_OK;
}

unsigned int TapeProxy::GetDeviceInfo(BusDevice& bus, std::string& path)
{
    SysBlock sysBlock;
    return ProbeTape(*this, bus, path, sysBlock);
}

PhysicalDriveProxy::PhysicalDriveProxy()
{
    ZENDRA_LOG(4, "Entry PhysicalDriveProxy::PhysicalDriveProxy()");
}

PhysicalDriveProxy::~PhysicalDriveProxy()
{
    ZENDRA_LOG(4, "Entry PhysicalDriveProxy::~PhysicalDriveProxy()");
    DeleteOperator();
}

unsigned int PhysicalDriveProxy::GetDeviceList(std::vector<SystemDevice>& devices)
{
    ZENDRA_LOG(4, "Entry DataProxy::GetDeviceList()");
    std::vector<std::string> ideFiles = FilesOf(*this, DevicePrefix::ideDisk);
    std::vector<std::string> scsiFiles = FilesOf(*this, DevicePrefix::scsiDisk);
    std::vector<std::string> nvmeFiles = FilesOf(*this, DevicePrefix::nvmeDisk);
    if (ideFiles.empty() && scsiFiles.empty() && nvmeFiles.empty()) {
        return DEVICE_RESULT_NONE;
    }
    SysBlock sysBlock;
    ProbeEach(*this, ideFiles, devices,
              [&](BusDevice& bus, std::string& path) { return ProbeDisk(*this, bus, path, false, sysBlock); });
    ProbeEach(*this, scsiFiles, devices,
              [&](BusDevice& bus, std::string& path) { return ProbeDisk(*this, bus, path, true, sysBlock); });
    ProbeEach(*this, nvmeFiles, devices, [&](BusDevice& bus, std::string& path) { return GetNVMEInfo(bus, path); });
    ZENDRA_LOG(4, "Exit DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int PhysicalDriveProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    return DEVICE_RESULT_OK;
}

unsigned int PhysicalDriveProxy::GetDeviceInfo(BusDevice& bus, std::string& path, bool useGeneric)
{
    SysBlock sysBlock;
    return ProbeDisk(*this, bus, path, useGeneric, sysBlock);
}

int PhysicalDriveProxy::GetNVMEInfo(BusDevice& bus, std::string& driveName)
{
    ZENDRA_LOG(4, "Entry PhysicalDriveProxy::GetNVMEInfo()");
    alignas(sizeof(std::uint64_t)) std::array<unsigned char, NvmeIdentify::dataLength> data{};
    nvme_admin_cmd command{};
    command.opcode = NvmeIdentify::opcode;
    command.addr = reinterpret_cast<std::uintptr_t>(data.data());
    command.data_len = static_cast<std::uint32_t>(data.size());
    command.cdw10 = NvmeIdentify::controllerStructure;
    // The exit line comes before the command (oddity: nvme-exit-first).
    ZENDRA_LOG(4, "Exit PhysicalDriveProxy::GetNVMEInfo()");
    ReqIoCtlParam request = MakeIoCtlRequest(driveName, NVME_IOCTL_ADMIN_CMD, &command);
    return SendRcvIOCTLCMD(request, bus);
}

unsigned int PhysicalDriveProxy::UpdateFirmwareVersionForSdDisk(const std::string& path, BusDevice& bus)
{
    ZENDRA_LOG(4, "Entry  UpdateFirmwareVersionForSdDisk() ");
    AtaIdentify::Buffer buffer = AtaIdentifyRequest();
    ReqIoCtlParam request = MakeIoCtlRequest(path, HDIO_DRIVE_CMD, buffer.data());
    if (dataOper == nullptr) {
        return DEV_FAILURE;
    }
    const int status = dataOper->ExecIoCtl(request);
    if (status != DEV_SUCCESS) {
        return static_cast<unsigned int>(status);
    }
    StoreAtaFirmware(ReadAtaIdentity({buffer.data(), buffer.size()}), bus);
    return DEV_SUCCESS;
}

SCSIProxy::SCSIProxy()
{
    ZENDRA_LOG(4, "Entry SCSIProxy::SCSIProxy()");
}

SCSIProxy::~SCSIProxy()
{
    ZENDRA_LOG(4, "Entry SCSIProxy::~SCSIProxy()");
    DeleteOperator();
}

unsigned int SCSIProxy::GetDeviceList(std::vector<SystemDevice>& devices)
{
    ZENDRA_LOG(4, "Entry DataProxy::GetDeviceList()");
    std::vector<std::string> files = FilesOf(*this, sg_ko_loaded ? DevicePrefix::genericScsi : DevicePrefix::scsiDisk);
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    SysBlock sysBlock;
    ProbeEach(*this, files, devices, [&](BusDevice& bus, std::string& path) {
        const unsigned int status = ProbeGeneric(*this, sg_ko_loaded, bus, path, sysBlock);
        if (!sg_ko_loaded) {
            ZENDRA_LOG(4, "GetDriverData() ret = " << static_cast<int>(status));
        }
        return status;
    });
    // No exit line here, unlike in the other classes (oddity: no-exit-line).
    return DEVICE_RESULT_OK;
}

unsigned int SCSIProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    return DEV_SUCCESS;
}

unsigned int SCSIProxy::GetDeviceInfo(BusDevice& bus, std::string& path)
{
    SysBlock sysBlock;
    return ProbeGeneric(*this, sg_ko_loaded, bus, path, sysBlock);
}

}  // namespace Zendra::ZDSystemDevice
