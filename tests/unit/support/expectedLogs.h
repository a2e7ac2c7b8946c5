/**
 * @file
 * @brief The log lines of the operations of the device library, for composing the expected trace of a call.
 *
 * Doubled and trailing blanks and misspellings in these texts are required.
 */
#ifndef ZENDRA_TESTS_SUPPORT_EXPECTEDLOGS_H
#define ZENDRA_TESTS_SUPPORT_EXPECTEDLOGS_H

#include <string>
#include <vector>

#include "support/trace.h"

namespace ZendraTest {
namespace Logs {

/** Making and deleting a proxy of class `name` ("TapeProxy"). */
inline Lines Made(const std::string& name, bool sgLoaded = true)
{
    return {L4(std::string("Entry constructure DataProxy() sg_ko_loaded = ") + (sgLoaded ? "1" : "0")),
            L4("Entry " + name + "::" + name + "()")};
}

inline Lines Deleted(const std::string& name)
{
    return {L4("Entry " + name + "::~" + name + "()"), L4("Entry destructure ~DataProxy() ")};
}

/** A scan of /dev/ that finds `names`. */
inline Lines Scan(const std::vector<std::string>& names = {})
{
    Lines lines = {L4("Entry  DataProxy::ScanDeviceFiles() ")};
    for (const std::string& name : names) {
        lines.push_back(L4("DataProxy::ScanDeviceFiles() detect file : " + name));
    }
    lines.push_back(L4("Exit  DataProxy::ScanDeviceFiles() "));
    return lines;
}

/** A search of /sys/block/ that finds nothing. */
inline Lines NoFirmware()
{
    return {L4("Entry  DataProxy::GetFirmwareVersionFile() "), L4("Exit  DataProxy::GetFirmwareVersionFile() ")};
}

/** A search of /sys/block/ that finds a directory in which neither revision file is. */
inline Lines FirmwareFilesMissing(const std::string& entry)
{
    return {L4("Entry  DataProxy::GetFirmwareVersionFile() "),
            L1("Fail in get firmware version from /sys/block/" + entry + "/device/firmware_rev."),
            L1("Fail in get firmware version from /sys/block/" + entry + "/device/rev.")};
}

/** GetGenericDeviceData up to the address step, for a device with vendor and product. */
inline Lines GenericEntry(bool isSg)
{
    return {L4(std::string("Entry  GetGenericDeviceData() is_sg = ") + (isSg ? "1" : "0")),
            L4("GetGenericDeviceData() dataOper->ExecPassThruCmd vendorID and productID is not empty ")};
}

inline Lines AddressFromIoctls(const std::string& address)
{
    return {L4("Get SCSI_IOCTL_GET_IDLUN passed.. otherIdentInfo = " + address)};
}

inline Lines AddressFromSg(const std::string& address)
{
    return {L4("GetGenericDeviceData() dataOper->ExecPassThruCmdSG_GET_SCSI_ID ret = 4"),
            L4("Get SCSI ID passed... otherIdentInfo = " + address)};
}

inline Lines AddressFromSgFailed(const std::string& status)
{
    return {L4("GetGenericDeviceData() dataOper->ExecPassThruCmdSG_GET_SCSI_ID ret = " + status),
            L4("GetGenericDeviceData() SG_GET_SCSI_ID failed ret = " + status)};
}

inline Lines Serial(const std::string& serial)
{
    return {L4("Serial Number: " + serial)};
}

inline Lines GenericExit()
{
    return {L4("Exit normally GetGenericDeviceData() ")};
}

inline Lines GenericFailed(bool isSg)
{
    return {L4(std::string("Entry  GetGenericDeviceData() is_sg = ") + (isSg ? "1" : "0")),
            L1("Exit  GetGenericDeviceData()")};
}

inline Lines GenericEmpty(bool isSg)
{
    return {L4(std::string("Entry  GetGenericDeviceData() is_sg = ") + (isSg ? "1" : "0")),
            L4("Exit  GetGenericDeviceData() due to vendorId and productId is empty")};
}

/** GetDriverData; `model` is the 40 characters of the model. */
inline Lines Driver(const std::string& model)
{
    return {L4("Entry  GetDriverData() "), L4(model),
            L4("Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = Port:0|Target:0|Bus:0|Lun:0"),
            L4("Entry  GetDriverData() ")};
}

inline Lines DriverFailed(const std::string& address = "")
{
    return {L4("Entry  GetDriverData() "),
            L4("Get HDIO_DRIVE_CMD|HDIO_DRIVE_TASK Inquiry passed.. otherIdentInfo = " + address),
            L4("Entry  GetDriverData() ")};
}

}  // namespace Logs

/** `text` with blanks up to `width` characters. */
inline std::string Padded(std::string text, std::size_t width)
{
    text.resize(width, ' ');
    return text;
}

}  // namespace ZendraTest

#endif
