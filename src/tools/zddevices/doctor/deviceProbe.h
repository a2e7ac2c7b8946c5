/**
 * @file
 * @brief Asks one device file what the library would ask it, and remembers every refusal.
 *
 * The library answers with records or with silence. Here each step is kept with the kernel's error, so that a person
 * can be told why a device is missing. Files are opened as the library opens them, read-only and without waiting for
 * a medium, and the same commands are sent, each once: the library repeats those that are answered with UNIT
 * ATTENTION. Closing a rewinding tape node rewinds the tape; such a node is not opened, its non-rewinding twin is.
 */
#ifndef ZENDRA_ZDDEVICES_DEVICEPROBE_H
#define ZENDRA_ZDDEVICES_DEVICEPROBE_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace Zendra {
namespace ZDDevices {

/** What carries the questions to the kernel; a test's stand-in answers them itself. */
class DeviceKernel {
public:
    virtual ~DeviceKernel() = default;
    /** A descriptor, or a negative error number. */
    virtual int Open(const std::string& path) = 0;
    /** What ioctl(2) answers, or a negative error number. */
    virtual int Ioctl(int descriptor, unsigned long request, void* argument) = 0;
    virtual void Close(int descriptor) = 0;
    /** Whether the file may not be read for lack of privilege; nothing is opened. */
    virtual bool MayNotRead(const std::string& path) = 0;
    /** The number of a character device; 0 for any other file and for none. */
    virtual dev_t CharacterDevice(const std::string& path) = 0;

protected:
    DeviceKernel() = default;
    DeviceKernel(const DeviceKernel&) = default;
    DeviceKernel& operator=(const DeviceKernel&) = default;
};

/** The kernel of this host. */
DeviceKernel& HostKernel();

/** How the library asks a device file. */
enum class Manner {
    /** A tape node. */
    Tape,
    /** A file of the sg driver. */
    Generic,
    /** A disk's file in place of one of the sg driver, which cannot be used: ATA disks alone answer. */
    GenericWithoutDriver,
    IdeDisk,
    ScsiDisk,
    NvmeDisk,
    Optical
};

/** One question to a device and what came back. */
struct Question {
    /** The ioctl's name. */
    std::string request;
    /** What it asks for, in words. */
    std::string asks;
    /** The kernel's error number; 0 when it answered. */
    int error = 0;
    /** What was odd about the answer; empty when nothing was. */
    std::string remark;
};

/** Whether the library lists the device behind a file. */
enum class Visibility {
    /** It does. */
    Visible,
    /** This user may not open the file. */
    Denied,
    /** The file cannot be opened for another reason. */
    CannotBeOpened,
    /** The device was asked and gave nothing that the library takes for a device. */
    NoUsableAnswer,
    /** Nothing came back in time. */
    NoAnswerInTime,
    /** A rewinding tape node without a twin that could be asked; it may be opened. */
    NotAsked
};

/** What is known of one device file. */
struct Finding {
    /** The file. */
    std::string path;
    /** The file that was opened in its place; empty when it was opened itself or nothing was. */
    std::string askedThrough;
    Visibility visibility = Visibility::NoUsableAnswer;
    /** Of open(2); 0 when the file was opened. */
    int openError = 0;
    /** In the order in which they were asked. */
    std::vector<Question> questions;
    /** As the device gave them in standard INQUIRY data; else empty. */
    std::string vendor;
    std::string product;
};

/** Asks the file; blocks for as long as the kernel does. Only vendor and product hold bytes from the device. */
Finding ProbeDeviceFile(const std::string& path, Manner manner, DeviceKernel& kernel);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
