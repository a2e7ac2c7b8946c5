/**
 * @file
 * @brief Device files that answer ioctls, for calls of the library from its facade down to open and ioctl.
 *
 * A device file or an ioctl that the host was not told of fails the test.
 */
#ifndef ZENDRA_TESTS_SUPPORT_FAKEHOST_H
#define ZENDRA_TESTS_SUPPORT_FAKEHOST_H

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kernel/devices.h"
#include "support/scriptedOperator.h"

namespace ZendraTest {

/** What one device file answers. An empty answer to ATA or NVMe means that the ioctl fails, as on a real device. */
struct FakeDevice {
    Bytes inquiry;
    Bytes serialPage;
    Bytes ata;
    Bytes nvme;
    int host = 0;
    int channel = 0;
    int target = 0;
    int lun = 0;
    /** Whether the SCSI ioctls, SG_IO among them, are answered at all. */
    bool scsi = true;
    /** open fails with this error. */
    int openError = 0;
};

/** A SCSI device with this address; the serial number is asked of disks and tapes only. */
FakeDevice ScsiDevice(unsigned char type, const std::string& vendor, const std::string& product,
                      const std::string& revision, const std::string& serial, int host, int channel, int target,
                      int lun);

class FakeHost {
public:
    /** Lists the device in /dev/ under this name, behind those that were added before. */
    void Add(const std::string& name, const FakeDevice& device);

    /** Takes open, close, ioctl and the scan of /dev/ and of an empty /sys/block/. */
    void Install();

    /** Device files that are open at the moment. */
    std::size_t OpenFiles() const { return openFiles.size(); }

private:
    std::vector<std::string> names;
    std::map<std::string, int> openErrors;
    std::map<std::string, Kernel::DevEntry> devices;
    std::map<int, std::string> openFiles;
    Kernel::Devices answers{[](const std::string& what) { ADD_FAILURE() << what; }};
};

}  // namespace ZendraTest

#endif
