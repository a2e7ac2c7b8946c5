/**
 * @file
 * @brief What devices answer when they are asked who they are: where it lies in the answer, and how it is read.
 *
 * Turns bytes into texts of the probing record. It sends nothing, opens nothing and logs nothing, and reads no byte
 * outside of the answer that it is given. Every text from a device is taken as it comes, up to its first NUL:
 * it may hold any other byte. Of no use to callers of the library; not installed.
 */
#ifndef ZENDRA_SYSTEMDEVICE_IDENTITYDATA_H
#define ZENDRA_SYSTEMDEVICE_IDENTITYDATA_H

#include <scsi/sg.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "module/osinfos/systemdevice/busDevice.h"

namespace Zendra::ZDSystemDevice {

/** A run of bytes in an answer. */
struct Field {
    std::size_t offset;
    std::size_t length;
};

/** The bytes of an answer; the caller's, who keeps them while they are read. */
class AnswerBytes {
public:
    /** @param first of `count` bytes that may be read. */
    AnswerBytes(const unsigned char* first, std::size_t count) : bytes(first), size(count) {}

    /** The byte at `offset`; 0 behind the end. */
    unsigned char At(std::size_t offset) const { return offset < size ? bytes[offset] : 0; }

    /** What of a field lies in the answer, up to the first NUL. */
    std::string_view Text(Field field) const;

private:
    const unsigned char* bytes;
    std::size_t size;
};

// docs/wire-formats.md has the standards' names of all these.

/** SPC standard INQUIRY data. */
namespace Inquiry {
constexpr std::size_t typeByte = 0;
constexpr unsigned char typeMask = 0x0F;
constexpr unsigned char typeDisk = 0;
constexpr unsigned char typeTape = 1;
constexpr Field vendor{8, 8};
constexpr Field product{16, 16};
constexpr Field revision{32, 4};
constexpr Field identity{8, 28};    ///< The three together.
constexpr std::size_t length = 36;  ///< Bytes that are looked at.
}  // namespace Inquiry

/** SPC VPD page 0x80, Unit Serial Number. */
namespace SerialPage {
constexpr std::size_t lengthByte = 3;
constexpr std::size_t serialOffset = 4;
constexpr std::size_t longestSerial = 32;
constexpr std::size_t shortestSerial = 2;  ///< One character counts as none (oddity: serial-of-one).
constexpr std::size_t length = serialOffset + longestSerial;
}  // namespace SerialPage

/** ATA IDENTIFY DEVICE: the header of the kernel's HDIO_DRIVE_CMD, and positions in the data behind it. */
namespace AtaIdentify {
constexpr std::size_t commandByte = 0;
constexpr unsigned char command = 0xEC;
constexpr std::size_t sectorCountByte = 3;
constexpr unsigned char sectorCount = 1;
constexpr std::size_t headerLength = 4;
constexpr std::size_t dataLength = 512;
constexpr Field serialNumber{20, 20};
constexpr Field firmwareRevision{46, 8};
constexpr Field model{54, 40};
constexpr std::size_t shortModelLength = 23;  ///< Of BusDevice::shortIdent.
using Buffer = std::array<unsigned char, headerLength + dataLength>;
}  // namespace AtaIdentify

/** NVMe Identify Controller data. The last byte of serial number and model counts as NUL. */
namespace NvmeIdentify {
constexpr unsigned char opcode = 0x06;
constexpr unsigned int controllerStructure = 1;
constexpr std::size_t dataLength = 4096;
constexpr Field serialNumber{4, 19};
constexpr std::size_t serialNumberLastByte = 23;
constexpr Field model{24, 39};
constexpr std::size_t modelLastByte = 63;
/** Bytes 64-71, but the text runs on behind them (oddity: nvme-revision-runs-on). */
constexpr Field firmwareRevision{64, dataLength - 64};
}  // namespace NvmeIdentify

/** The words for an SPC peripheral device type; empty for 16 and from 18 upward. */
std::string_view DeviceTypeText(unsigned char code);

/** The record's address as "Port:2|Target:0|Bus:0|Lun:0". */
std::string AddressText(const BusDevice& bus);

/**
 * Reads standard INQUIRY data: the type in words, vendor, product and revision, all three as `inquiryString`. Vendor
 * and product lose blanks and tabs at both ends; an empty product becomes the vendor. Address and serial number stay.
 */
void ReadInquiry(AnswerBytes answer, BusDevice& bus);

/** What ReadSerialPage() did with a serial number. */
enum class SerialNumber {
    Taken,    ///< It stands in the record.
    TooLong,  ///< Longer than 32 bytes; the record has the old one.
    TooShort  ///< Of no byte or one; the record's is empty.
};

/** Reads the Unit Serial Number page. */
SerialNumber ReadSerialPage(AnswerBytes answer, BusDevice& bus);

/** The texts of ATA IDENTIFY DEVICE data, their characters in reading order. */
struct AtaIdentity {
    std::string model;
    std::string firmwareRevision;
    std::string serialNumber;
};

/** HDIO_DRIVE_CMD's argument for IDENTIFY DEVICE, with room for the data. */
AtaIdentify::Buffer AtaIdentifyRequest();

/** @param buffer as HDIO_DRIVE_CMD returned it: four bytes of header, then the data. */
AtaIdentity ReadAtaIdentity(AnswerBytes buffer);

/**
 * Makes the device the one of `identity`. The model's first word becomes the vendor and its second the product; a word
 * that is not there leaves the record's. Revision and serial number keep their blanks; the address stays, and becomes
 * `otherIdentInfo`.
 */
void StoreAtaIdentity(const AtaIdentity& identity, BusDevice& bus);

/** Takes the revision, without any of its blanks, and as product the model up to its first blank. */
void StoreAtaFirmware(const AtaIdentity& identity, BusDevice& bus);

/** The vendor becomes "NVMe" and the type that of a disk. No text loses its blanks; the address stays. */
void ReadNvmeIdentity(AnswerBytes answer, BusDevice& bus);

/** Takes the address that SG_GET_SCSI_ID answers, each number cut to 16 bits. */
void StoreScsiId(const sg_scsi_id& answer, BusDevice& bus);

/** Takes what SCSI_IOCTL_GET_IDLUN packs: target in bits 0-7, LUN in 8-15, channel in 16-23. */
void StoreIdLun(std::uint32_t packed, BusDevice& bus);

}  // namespace Zendra::ZDSystemDevice

#endif
