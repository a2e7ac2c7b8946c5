#include "module/osinfos/systemdevice/dataProxy_linux.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/finder.hpp>
#include <boost/algorithm/string/iter_find.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/container/small_vector.hpp>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <locale>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "common/composeText.h"
#include "common/descriptor.h"
#include "common/logger/logLine.h"
#include "common/makeRoom.h"
#include "common/osspecific/osspecific_lin.h"
#include "module/osinfos/systemdevice/deviceNames.h"

namespace Zendra {
namespace ZDSystemDevice {

namespace {

const char deviceDirectory[] = "/dev/";
const char blockDirectory[] = "/sys/block/";

/** A run of bytes in a device's answer. */
struct Field {
    std::size_t offset;
    std::size_t length;
};

/** SPC standard INQUIRY data. */
namespace Inquiry {
constexpr std::size_t typeByte = 0;
constexpr unsigned char typeMask = 0x0F;
constexpr unsigned char typeDisk = 0;
constexpr unsigned char typeTape = 1;
constexpr Field identity{8, 28};
constexpr Field vendor{8, 8};
constexpr Field product{16, 16};
constexpr Field revision{32, 4};
}  // namespace Inquiry

/** SPC VPD page 0x80, Unit Serial Number. */
namespace SerialPage {
constexpr std::size_t lengthByte = 3;
constexpr std::size_t serialOffset = 4;
constexpr std::size_t maxLength = 32;
/** A serial number of one character counts as none; required. */
constexpr std::size_t longestIgnoredLength = 1;
}  // namespace SerialPage

/** ATA IDENTIFY DEVICE data, behind the header of HDIO_DRIVE_CMD. */
namespace AtaIdentify {
constexpr std::size_t commandByte = 0;
constexpr unsigned char command = 0xEC;
constexpr std::size_t sectorCountByte = 3;
constexpr unsigned char sectorCount = 1;
constexpr std::size_t headerLength = 4;
constexpr std::size_t bufferLength = headerLength + 512;
constexpr Field serialNumber{20, 20};
constexpr Field firmwareRevision{46, 8};
constexpr Field model{54, 40};
constexpr std::size_t shortModelLength = 23;

using Buffer = std::array<unsigned char, bufferLength>;
}  // namespace AtaIdentify

/** NVMe Identify Controller data. */
namespace NvmeIdentify {
constexpr unsigned char opcode = 0x06;
constexpr unsigned int controllerStructure = 1;
constexpr std::size_t bufferLength = 4096;
constexpr std::size_t serialNumberOffset = 4;
constexpr std::size_t serialNumberLastByte = 23;
constexpr std::size_t modelOffset = 24;
constexpr std::size_t modelLastByte = 63;
constexpr std::size_t firmwareRevisionOffset = 64;
}  // namespace NvmeIdentify

/** The kernel's table of optical drives: a row per property, "name:", then a column per drive. */
namespace OpticalTable {
const char path[] = "/proc/sys/dev/cdrom/info";
constexpr int timeoutSeconds = 360;
constexpr std::size_t longestLine = 255;
/** A whole table has this many lines, the empty one at its end included. */
constexpr std::size_t completeLineCount = 20;
}  // namespace OpticalTable

/** Which row of the table tells of which capability, in the order in which they are looked up. */
struct OpticalCapability {
    const char* rowName;
    std::string OpticalProperty::*field;
};

constexpr std::array<OpticalCapability, 8> opticalCapabilities = {{
    {"Can write CD-R", &OpticalProperty::cd_r_write_},
    {"Can write CD-RW", &OpticalProperty::cd_rw_write_},
    {"Can read DVD", &OpticalProperty::dvd_read_},
    {"Can write DVD-R", &OpticalProperty::dvd_r_write_},
    {"Can write DVD-RAM", &OpticalProperty::dvd_ram_write_},
    {"Can read MRW", &OpticalProperty::mrw_r_},
    {"Can write MRW", &OpticalProperty::mrw_w_},
    {"Can write RAM", &OpticalProperty::ram_w_},
}};

/** Room for a data-in phase; the operator lets the kernel use the first 255 bytes. */
using DataInBuffer = std::array<unsigned char, 4096>;

constexpr int sixByteCommand = 6;

/** Room for what StoreBusDev tells of most devices. */
constexpr std::size_t usualTraceLength = 512;

static_assert(sizeof(sg_scsi_id) == 32, "SG_GET_SCSI_ID answers in 32 bytes");
static_assert(sizeof(nvme_admin_cmd) == 72, "NVME_IOCTL_ADMIN_CMD takes 72 bytes");

/** The bytes up to the first NUL, at most `length`. */
std::string_view TextUpToNul(const unsigned char* bytes, std::size_t length)
{
    const char* const text = reinterpret_cast<const char*>(bytes);
    return {text, strnlen(text, length)};
}

std::string_view TextField(const unsigned char* data, Field field)
{
    return TextUpToNul(data + field.offset, field.length);
}

/** ATA keeps two characters in a 16-bit word, the first in the high byte. `answer` is the data behind the header. */
std::string AtaTextField(const unsigned char* answer, Field field)
{
    std::string text;
    text.reserve(field.length);
    for (std::size_t i = field.offset; i < field.offset + field.length; i += 2) {
        text += static_cast<char>(answer[i + 1]);
        text += static_cast<char>(answer[i]);
    }
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

/** Leaves a text of blanks and tabs alone as it is; required. */
void CutBlanksAndTabs(std::string& text)
{
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    const auto end = std::find_if_not(text.rbegin(), text.rend(), isBlank).base();
    if (end == text.begin()) {
        return;
    }
    text.erase(end, text.end());
    text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isBlank));
}

bool BothNamesEmpty(const BusDevice& bus)
{
    return bus.vendorId.empty() && bus.productId.empty();
}

std::string_view DeviceTypeText(unsigned char code)
{
    // 10 and 11 share a text and 16 has none; required.
    static constexpr std::array<std::string_view, 18> texts = {"Direct Access Device",
                                                               "Sequential Access Device",
                                                               "Printer Device",
                                                               "Processor Device",
                                                               "Write-Once Device",
                                                               "CD-ROM Device",
                                                               "Scanner Device",
                                                               "Optical Memory Device",
                                                               "Medium Changer Device",
                                                               "Communications Device",
                                                               "Graphic Arts Device",
                                                               "Graphic Arts Device",
                                                               "Storage Array Controller",
                                                               "Enclosure Device",
                                                               "Simple Direct Access Device",
                                                               "Optical Card Reader Device",
                                                               "",
                                                               "Optical Based Storage Device"};
    if (code >= texts.size()) {
        return {};
    }
    return texts[code];
}

void StoreIdentity(BusDevice& bus)
{
    ComposeText(bus.otherIdentInfo, "Port:", bus.hostAdapter, "|Target:", bus.targetId, "|Bus:", bus.bus,
                "|Lun:", bus.lun);
}

AtaIdentify::Buffer MakeAtaIdentifyRequest()
{
    AtaIdentify::Buffer buffer{};
    buffer[AtaIdentify::commandByte] = AtaIdentify::command;
    buffer[AtaIdentify::sectorCountByte] = AtaIdentify::sectorCount;
    return buffer;
}

ReqIoCtlParam MakeIoCtlRequest(const std::string& driveName, unsigned int ioctlCode, void* data)
{
    return {driveName, static_cast<int>(ioctlCode), data};
}

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

/** The entries of /sys/block as they were at one moment. */
class BlockEntries {
public:
    /** Nothing when the directory cannot be opened. */
    static std::optional<BlockEntries> Read()
    {
        const DirectoryStream directory(opendir(blockDirectory));
        if (!directory) {
            return std::nullopt;
        }
        BlockEntries entries;
        errno = 0;
        while (const dirent* entry = readdir(directory.get())) {
            const std::string_view name = entry->d_name;
            entries.positionByName.try_emplace(std::string(name), entries.positionByName.size());
            entries.lengths.set(name.size());
            entries.firstBytes.set(static_cast<unsigned char>(name.front()));
            errno = 0;
        }
        entries.complete = errno == 0;
        return entries;
    }

    /** Whether the directory was read to its end. */
    bool IsComplete() const { return complete; }

    /**
     * The first entry, in the directory's order, whose name occurs anywhere in the device's name; empty when none
     * does. Containment, not equality: sdab may be answered by sda. Required.
     *
     * Device names are short and there may be thousands of entries, so what is looked up is each part of the
     * device's name that may be an entry's by its first byte and its length.
     */
    std::string FirstWithin(std::string_view deviceName) const
    {
        const Position* first = nullptr;
        for (std::size_t begin = 0; begin < deviceName.size(); ++begin) {
            if (!firstBytes[static_cast<unsigned char>(deviceName[begin])]) {
                continue;
            }
            const std::size_t longest = std::min(lengths.size() - 1, deviceName.size() - begin);
            for (std::size_t length = 1; length <= longest; ++length) {
                if (!lengths[length]) {
                    continue;
                }
                const auto found = positionByName.find(std::string(deviceName.substr(begin, length)));
                if (found != positionByName.end() && (first == nullptr || found->second < first->second)) {
                    first = &*found;
                }
            }
        }
        return first != nullptr ? first->first : std::string();
    }

private:
    using Positions = std::unordered_map<std::string, std::size_t>;
    using Position = Positions::value_type;

    /** Where in the directory's order each name stands. */
    Positions positionByName;
    /** Of the names: lengths, and bytes that any begins with. */
    std::bitset<sizeof(dirent::d_name)> lengths;
    std::bitset<std::numeric_limits<unsigned char>::max() + 1> firstBytes;
    bool complete = false;
};

/**
 * What a list operation remembers of /sys/block while it runs: a host with a thousand disks has a thousand entries
 * there, which each lookup would otherwise read again. Lookups outside of a list operation remember nothing.
 */
class BlockDirectoryMemory {
public:
    explicit BlockDirectoryMemory(const DataProxy& listingProxy) : proxy(&listingProxy), outer(current)
    {
        current = this;
    }
    ~BlockDirectoryMemory() { current = outer; }
    BlockDirectoryMemory(const BlockDirectoryMemory&) = delete;
    BlockDirectoryMemory& operator=(const BlockDirectoryMemory&) = delete;

    /** The memory of the list operation that `lookingProxy` is running in this thread; null when it runs none. */
    static BlockDirectoryMemory* Of(const DataProxy& lookingProxy)
    {
        return current != nullptr && current->proxy == &lookingProxy ? current : nullptr;
    }

    /** A directory that could not be opened, or not be read to its end, is tried again by the next lookup. */
    const std::optional<BlockEntries>& Entries()
    {
        if (!entries || !entries->IsComplete()) {
            entries = BlockEntries::Read();
        }
        return entries;
    }

private:
    static thread_local BlockDirectoryMemory* current;

    const DataProxy* proxy;
    BlockDirectoryMemory* outer;
    std::optional<BlockEntries> entries;
};

thread_local BlockDirectoryMemory* BlockDirectoryMemory::current = nullptr;

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

/** Converts to the record of a device. */
struct RecordOf {
    const BusDevice& bus;

    operator SystemDevice() const
    {
        // sysfs ends its texts with a line feed.
        const bool endsLine = !bus.revision.empty() && bus.revision.back() == '\n';
        return {bus.vendorId,
                bus.productId,
                bus.deviceType,
                bus.serialNum,
                bus.revision.substr(0, bus.revision.size() - (endsLine ? 1 : 0)),
                DecimalText(bus.hostAdapter),
                DecimalText(bus.targetId),
                DecimalText(bus.bus),
                DecimalText(bus.lun)};
    }
};

/** Probes the files one after the other into `bus` and stores each device that answers. */
template <typename Probe>
void ProbeEach(DataProxy& proxy, std::vector<std::string>& files, BusDevice& bus, std::vector<SystemDevice>& devices,
               Probe probe)
{
    std::size_t filesLeft = files.size();
    for (std::string& path : files) {
        proxy.InitBusDev(bus);
        if (probe(path) == DEV_SUCCESS) {
            MakeRoom(devices, filesLeft);
            proxy.StoreBusDev(bus, devices);
        }
        --filesLeft;
    }
}

/** A copy of what the kernel wrote: callers' buffers need not be aligned for `Answer`. */
template <typename Answer>
Answer CopyAnswer(const void* data)
{
    Answer answer{};
    std::memcpy(&answer, data, sizeof(answer));
    return answer;
}

void DecodeScsiId(const sg_scsi_id& answer, BusDevice& bus)
{
    bus.hostAdapter = static_cast<std::uint16_t>(answer.host_no);
    bus.bus = static_cast<std::uint16_t>(answer.channel);
    bus.targetId = static_cast<std::uint16_t>(answer.scsi_id);
    bus.lun = static_cast<std::uint16_t>(answer.lun);
}

/** The kernel packs a byte each: id, LUN, channel, host. */
void DecodeIdLun(std::uint32_t packed, BusDevice& bus)
{
    const auto byteAt = [&](unsigned int shift) { return static_cast<std::uint16_t>(packed >> shift & 0xFFU); };
    bus.targetId = byteAt(0);
    bus.lun = byteAt(8);
    bus.bus = byteAt(16);
}

void DecodeAtaIdentify(const unsigned char* answer, BusDevice& bus)
{
    const std::string model = AtaTextField(answer, AtaIdentify::model);
    ZENDRA_LOG(4, model);
    std::istringstream words(model);
    words.imbue(std::locale::classic());
    words >> bus.vendorId >> bus.productId;
    bus.shortIdent = model.substr(0, AtaIdentify::shortModelLength);
    bus.revision = AtaTextField(answer, AtaIdentify::firmwareRevision);
    bus.serialNum = AtaTextField(answer, AtaIdentify::serialNumber);
    StoreIdentity(bus);
}

/** The lines of the table, with one empty line for the end of the text; a longer line is cut and ends it. */
std::vector<std::string> SplitOpticalTable(const std::string& table)
{
    std::vector<std::string> lines;
    std::istringstream text(table);
    std::array<char, OpticalTable::longestLine + 1> line{};
    while (text) {
        text.getline(line.data(), line.size());
        lines.emplace_back(line.data());
    }
    return lines;
}

/** The rows that have a name and one value; of rows of the same name the first counts. */
std::map<std::string, std::string> ReadOpticalRows(const std::vector<std::string>& lines)
{
    std::map<std::string, std::string> rows;
    for (const std::string& line : lines) {
        std::vector<std::string> parts;
        boost::algorithm::iter_split(
            parts, line,
            boost::algorithm::token_finder(boost::algorithm::is_any_of(":"), boost::algorithm::token_compress_on));
        if (parts.size() != 2) {
            continue;
        }
        for (std::string& part : parts) {
            boost::algorithm::trim_if(part, boost::algorithm::is_any_of(" \t"));
        }
        rows.emplace(parts[0], parts[1]);
    }
    return rows;
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
    for (std::uint16_t* number : {&bus.hostAdapter, &bus.bus, &bus.spareNumber, &bus.targetId, &bus.lun}) {
        *number = 0;
    }
    // Not by assigning a new record: the texts keep their room for the next device.
    for (std::string* text : {&bus.devId, &bus.spareText, &bus.productId, &bus.vendorId, &bus.revision, &bus.serialNum,
                              &bus.otherIdentInfo, &bus.shortIdent, &bus.deviceType, &bus.inquiryString}) {
        text->clear();
    }
}

std::string DataProxy::GetDeviceTypeString(unsigned char code)
{
    return std::string(DeviceTypeText(code));
}

unsigned int DataProxy::ScanDeviceFiles(std::string& prefix, std::vector<std::string>& files)
{
    ZENDRA_LOG(4, "Entry  DataProxy::ScanDeviceFiles() ");
    const DirectoryStream directory(opendir(deviceDirectory));
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
    // Made where it stays: moving nine short texts costs as much as making them.
    const SystemDevice& record = devices.emplace_back(RecordOf{bus});
    // Composed on every call, whatever the log level; required.
    boost::container::small_vector<char, usualTraceLength> trace;
    ComposeText(trace, "vendor id: ", bus.vendorId, " productId: ", bus.productId, " deviceType: ", bus.deviceType,
                " serialNum: ", bus.serialNum, " rev: ", bus.revision, " host adapter: ", record.port,
                " target ID: ", record.target, " bus ", record.bus, " lun ", record.lun, " devId: ", bus.devId,
                "  otherIdentInfo: ", bus.otherIdentInfo, "\n");
    ZENDRA_LOG(4, "DataProxy::StoreBusDev   " << std::string_view(trace.data(), trace.size()));
}

std::string DataProxy::GetFirmwareVersionFilePath(const std::string& path)
{
    // The text names the method without its "Path"; required.
    ZENDRA_LOG(4, "Entry  DataProxy::GetFirmwareVersionFile() ");
    const std::string deviceName = path.substr(std::strlen(deviceDirectory));
    BlockDirectoryMemory* const memory = BlockDirectoryMemory::Of(*this);
    const auto ownReading = memory == nullptr ? BlockEntries::Read() : std::nullopt;
    const auto& entries = memory == nullptr ? ownReading : memory->Entries();
    if (!entries) {
        return "";
    }
    const std::string name = entries->FirstWithin(deviceName);
    if (!name.empty()) {
        return blockDirectory + name + "/";
    }
    ZENDRA_LOG(4, "Exit  DataProxy::GetFirmwareVersionFile() ");
    return "";
}

std::string DataProxy::GetFirmwareVersionFromFile(const std::string& path)
{
    const std::string base = GetFirmwareVersionFilePath(path);
    if (base.empty()) {
        return "";
    }
    // NVMe and others publish firmware_rev, SCSI disks and drives rev.
    for (const char* name : {"device/firmware_rev", "device/rev"}) {
        const std::string fileName = base + name;
        const Descriptor file(open(fileName.c_str(), O_RDONLY | O_CLOEXEC));
        if (file.IsOpen()) {
            return ReadAll(file);
        }
        ZENDRA_LOG(1, "Fail in get firmware version from " << fileName << ".");
    }
    return "";
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
        const std::size_t length = param.dataBuffer[SerialPage::lengthByte];
        if (length > SerialPage::maxLength) {
            ZENDRA_LOG(4, "Size pointer is too large.");
        } else if (length <= SerialPage::longestIgnoredLength) {
            bus.serialNum.clear();
            ZENDRA_LOG(4, "Size pointer is too small, size<=1");
        } else {
            bus.serialNum = TextUpToNul(param.dataBuffer + SerialPage::serialOffset, length);
            ZENDRA_LOG(4, "Serial Number: " << bus.serialNum);
        }
    }
    return DEV_SUCCESS;
}

int DataProxy::ProcessInquiryData(unsigned char* data, BusDevice* bus)
{
    bus->inquiryString = TextField(data, Inquiry::identity);
    bus->vendorId = TextField(data, Inquiry::vendor);
    CutBlanksAndTabs(bus->vendorId);
    bus->productId = TextField(data, Inquiry::product);
    if (bus->productId.empty()) {
        bus->productId = bus->vendorId;
    }
    CutBlanksAndTabs(bus->productId);
    bus->revision = TextField(data, Inquiry::revision);
    // Only four of the five bits of the type: an unknown type (0x1F) reads as 15. Required.
    bus->deviceType = DeviceTypeText(data[Inquiry::typeByte] & Inquiry::typeMask);
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
        DecodeScsiId(CopyAnswer<sg_scsi_id>(param.ioctlData), bus);
        break;
    case SCSI_IOCTL_GET_IDLUN:
        DecodeIdLun(CopyAnswer<std::uint32_t>(param.ioctlData), bus);
        break;
    case SCSI_IOCTL_GET_BUS_NUMBER:
        bus.hostAdapter = static_cast<std::uint16_t>(CopyAnswer<int>(param.ioctlData));
        break;
    case HDIO_DRIVE_CMD:
        DecodeAtaIdentify(static_cast<const unsigned char*>(param.ioctlData) + AtaIdentify::headerLength, bus);
        break;
    case NVME_IOCTL_ADMIN_CMD: {
        const auto command = CopyAnswer<nvme_admin_cmd>(param.ioctlData);
        // The kernel's interface carries the address as a number. NOLINTNEXTLINE(performance-no-int-to-ptr)
        auto* answer = reinterpret_cast<unsigned char*>(static_cast<std::uintptr_t>(command.addr));
        bus.vendorId = "NVMe";
        answer[NvmeIdentify::modelLastByte] = 0;
        bus.productId =
            TextUpToNul(answer + NvmeIdentify::modelOffset, NvmeIdentify::modelLastByte - NvmeIdentify::modelOffset);
        // Not cut at the end of its 8 bytes: the text runs on to the next NUL; required.
        bus.revision = TextUpToNul(answer + NvmeIdentify::firmwareRevisionOffset,
                                   NvmeIdentify::bufferLength - NvmeIdentify::firmwareRevisionOffset);
        answer[NvmeIdentify::serialNumberLastByte] = 0;
        bus.serialNum = TextUpToNul(answer + NvmeIdentify::serialNumberOffset,
                                    NvmeIdentify::serialNumberLastByte - NvmeIdentify::serialNumberOffset);
        bus.deviceType = DeviceTypeText(Inquiry::typeDisk);
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
            StoreIdentity(bus);
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
        StoreIdentity(bus);
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
    AtaIdentify::Buffer buffer = MakeAtaIdentifyRequest();
    ReqIoCtlParam request = MakeIoCtlRequest(driveName, HDIO_DRIVE_CMD, buffer.data());
    const int status = SendRcvIOCTLCMD(request, bus);
    // Written whatever the status, and followed by the entry text as exit line; both required.
    ZENDRA_LOG(4, "Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = " << bus.otherIdentInfo);
    ZENDRA_LOG(4, "Entry  GetDriverData() ");
    return status;
}

void DataProxy::PreferFirmwareVersionFromFile(const std::string& path, BusDevice& bus)
{
    std::string revision = GetFirmwareVersionFromFile(path);
    if (!revision.empty()) {
        bus.revision = std::move(revision);
    }
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
    std::string prefix = DevicePrefix::optical;
    std::vector<std::string> files;
    ScanDeviceFiles(prefix, files);
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    const BlockDirectoryMemory memory(*this);
    BusDevice bus;
    ProbeEach(*this, files, bus, devices, [&](std::string& path) { return GetDeviceInfo(bus, path); });
    ZENDRA_LOG(4, "Exit DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int CDDVDProxy::GetDeviceInfo(BusDevice& bus, std::string& path)
{
    ZENDRA_LOG(4, "Entry CDDVDProxy::GetDeviceInfo()");
    int status = GetGenericDeviceData(path, bus, false);
    if (status != DEV_SUCCESS || BothNamesEmpty(bus)) {
        status = GetDriverData(path, bus);
    }
    PreferFirmwareVersionFromFile(path, bus);
    ZENDRA_LOG(4, "Exit CDDVDProxy::GetDeviceInfo()");
    return static_cast<unsigned int>(status);
}

void CDDVDProxy::InitOpticalPropertyStruct(OpticalProperty& prop)
{
    prop = OpticalProperty();
}

unsigned int CDDVDProxy::GetCDDVDOptList(std::vector<OpticalProperty>& options)
{
    ZENDRA_LOG(4, "Entry CDDVDProxy::GetCDDVDOptList()");
    std::string prefix = DevicePrefix::optical;
    std::vector<std::string> files;
    ScanDeviceFiles(prefix, files);
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    const BlockDirectoryMemory memory(*this);
    std::vector<std::pair<std::string, BusDevice>> drives;
    for (std::string& path : files) {
        BusDevice bus;
        InitBusDev(bus);
        if (GetDeviceInfo(bus, path) == DEV_SUCCESS) {
            drives.emplace_back(path, bus);
        }
    }

    std::string table;
    OSSpecific::SpawnProcess("cat", {OpticalTable::path}, &table, OpticalTable::timeoutSeconds);
    const std::vector<std::string> lines = SplitOpticalTable(table);
    ZENDRA_LOG(4, "cat cdrom info result =      " << table);
    ZENDRA_LOG(4, "cat cdrom lines =      " << lines.size());
    if (lines.size() < OpticalTable::completeLineCount) {
        ZENDRA_LOG(4, "reading cdrom information is incomplete.");
    }

    OpticalProperty prop;
    InitOpticalPropertyStruct(prop);
    const std::map<std::string, std::string> rows = ReadOpticalRows(lines);
    if (rows.empty()) {
        return DEVICE_RESULT_OK;
    }
    const auto driveName = rows.find("drive name");
    if (driveName != rows.end()) {
        prop.drive_name_ = deviceDirectory + driveName->second;
        for (const auto& [path, bus] : drives) {
            if (path == prop.drive_name_) {
                prop.vendor_ = bus.vendorId;
                prop.product_ = bus.productId;
            }
        }
    }
    for (const OpticalCapability& capability : opticalCapabilities) {
        const auto row = rows.find(capability.rowName);
        if (row != rows.end()) {
            prop.*capability.field = row->second == "1" ? "Yes" : "No";
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
    std::string prefix = DevicePrefix::tape;
    std::vector<std::string> files;
    ScanDeviceFiles(prefix, files);
    if (files.empty()) {
        prefix = DevicePrefix::nonRewindingTape;
        ScanDeviceFiles(prefix, files);
    }
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    const BlockDirectoryMemory memory(*this);
    BusDevice bus;
    ProbeEach(*this, files, bus, devices, [&](std::string& path) { return GetDeviceInfo(bus, path); });
    ZENDRA_LOG(4, "Exit DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int TapeProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    return DEVICE_RESULT_OK;
}

unsigned int TapeProxy::GetDeviceInfo(BusDevice& bus, std::string& path)
{
    ZENDRA_LOG(4, "Entry TapeProxy::GetDeviceInfo()");
    int status = GetGenericDeviceData(path, bus, false);
    if (status != DEV_SUCCESS) {
        status = GetDriverData(path, bus);
    } else if (BothNamesEmpty(bus)) {
        // Unlike for optical drives, a failure here does not cost the tape its record; required.
        GetDriverData(path, bus);
    }
    PreferFirmwareVersionFromFile(path, bus);
    ZENDRA_LOG(4, "Exit TapeProxy::GetDeviceInfo()");
    return static_cast<unsigned int>(status);
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
    std::vector<std::string> ideFiles;
    std::vector<std::string> scsiFiles;
    std::vector<std::string> nvmeFiles;
    std::string prefix = DevicePrefix::ideDisk;
    ScanDeviceFiles(prefix, ideFiles);
    prefix = DevicePrefix::scsiDisk;
    ScanDeviceFiles(prefix, scsiFiles);
    prefix = DevicePrefix::nvmeDisk;
    ScanDeviceFiles(prefix, nvmeFiles);
    if (ideFiles.empty() && scsiFiles.empty() && nvmeFiles.empty()) {
        return DEVICE_RESULT_NONE;
    }
    const BlockDirectoryMemory memory(*this);
    BusDevice bus;
    ProbeEach(*this, ideFiles, bus, devices, [&](std::string& path) { return GetDeviceInfo(bus, path, false); });
    ProbeEach(*this, scsiFiles, bus, devices, [&](std::string& path) { return GetDeviceInfo(bus, path, true); });
    ProbeEach(*this, nvmeFiles, bus, devices, [&](std::string& path) { return GetNVMEInfo(bus, path); });
    ZENDRA_LOG(4, "Exit DataProxy::GetDeviceList()");
    return DEVICE_RESULT_OK;
}

unsigned int PhysicalDriveProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    return DEVICE_RESULT_OK;
}

unsigned int PhysicalDriveProxy::GetDeviceInfo(BusDevice& bus, std::string& path, bool useGeneric)
{
    ZENDRA_LOG(4, "Entry PhysicalDriveProxy::GetDeviceInfo()");
    int status = DEV_FAILURE;
    if (useGeneric) {
        status = GetGenericDeviceData(path, bus, false);
    }
    if (!useGeneric || status != DEV_SUCCESS || BothNamesEmpty(bus)) {
        status = GetDriverData(path, bus);
    }
    if (bus.vendorId.find("ATA") == std::string::npos) {
        return static_cast<unsigned int>(status);
    }
    if (path.rfind("/dev/sd", 0) == 0) {
        // A failure here drops a disk that has answered already; required.
        return UpdateFirmwareVersionForSdDisk(path, bus);
    }
    PreferFirmwareVersionFromFile(path, bus);
    return static_cast<unsigned int>(status);
}

int PhysicalDriveProxy::GetNVMEInfo(BusDevice& bus, std::string& driveName)
{
    ZENDRA_LOG(4, "Entry PhysicalDriveProxy::GetNVMEInfo()");
    alignas(sizeof(std::uint64_t)) std::array<unsigned char, NvmeIdentify::bufferLength> data{};
    nvme_admin_cmd command{};
    command.opcode = NvmeIdentify::opcode;
    command.addr = reinterpret_cast<std::uintptr_t>(data.data());
    command.data_len = static_cast<std::uint32_t>(data.size());
    command.cdw10 = NvmeIdentify::controllerStructure;
    // The exit line comes before the command; required.
    ZENDRA_LOG(4, "Exit PhysicalDriveProxy::GetNVMEInfo()");
    ReqIoCtlParam request = MakeIoCtlRequest(driveName, NVME_IOCTL_ADMIN_CMD, &command);
    return SendRcvIOCTLCMD(request, bus);
}

unsigned int PhysicalDriveProxy::UpdateFirmwareVersionForSdDisk(const std::string& path, BusDevice& bus)
{
    ZENDRA_LOG(4, "Entry  UpdateFirmwareVersionForSdDisk() ");
    AtaIdentify::Buffer buffer = MakeAtaIdentifyRequest();
    ReqIoCtlParam request = MakeIoCtlRequest(path, HDIO_DRIVE_CMD, buffer.data());
    if (dataOper == nullptr) {
        return DEV_FAILURE;
    }
    const int status = dataOper->ExecIoCtl(request);
    if (status != DEV_SUCCESS) {
        return static_cast<unsigned int>(status);
    }
    const unsigned char* const answer = buffer.data() + AtaIdentify::headerLength;
    bus.revision = AtaTextField(answer, AtaIdentify::firmwareRevision);
    bus.revision.erase(std::remove(bus.revision.begin(), bus.revision.end(), ' '), bus.revision.end());
    // Only the first word of the model is kept; required.
    bus.productId = AtaTextField(answer, AtaIdentify::model);
    bus.productId.resize(std::min(bus.productId.find(' '), bus.productId.size()));
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
    std::string prefix = sg_ko_loaded ? DevicePrefix::genericScsi : DevicePrefix::scsiDisk;
    std::vector<std::string> files;
    ScanDeviceFiles(prefix, files);
    if (files.empty()) {
        return DEVICE_RESULT_NONE;
    }
    const BlockDirectoryMemory memory(*this);
    BusDevice bus;
    ProbeEach(*this, files, bus, devices, [&](std::string& path) {
        const unsigned int status = GetDeviceInfo(bus, path);
        if (!sg_ko_loaded) {
            ZENDRA_LOG(4, "GetDriverData() ret = " << static_cast<int>(status));
        }
        return status;
    });
    // No exit line here, unlike in the other classes; required.
    return DEVICE_RESULT_OK;
}

unsigned int SCSIProxy::GetCDDVDOptList(std::vector<OpticalProperty>& /*options*/)
{
    return DEV_SUCCESS;
}

unsigned int SCSIProxy::GetDeviceInfo(BusDevice& bus, std::string& path)
{
    ZENDRA_LOG(4, "Entry SCSIProxy::GetDeviceInfo()");
    int status = DEV_FAILURE;
    if (sg_ko_loaded) {
        status = GetGenericDeviceData(path, bus, true);
        ZENDRA_LOG(4, "GetGenericDeviceData() ret = " << status);
        // Unlike elsewhere a failed INQUIRY gets no second attempt; required.
        if (status == DEV_SUCCESS && BothNamesEmpty(bus)) {
            status = GetDriverData(path, bus);
        }
    } else {
        status = GetDriverData(path, bus);
    }
    PreferFirmwareVersionFromFile(path, bus);
    return static_cast<unsigned int>(status);
}

}  // namespace ZDSystemDevice
}  // namespace Zendra
