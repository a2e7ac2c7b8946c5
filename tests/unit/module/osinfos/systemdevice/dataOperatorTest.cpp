#include "module/osinfos/systemdevice/dataOperator_linux.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "common/logger/log.h"
#include "support/allocations.h"
#include "support/deviceTest.h"
#include "support/groupingLocale.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using ZendraTest::Calls;
using ZendraTest::ExpectTraceAtEveryLevel;
using ZendraTest::Join;
using ZendraTest::L4;
using ZendraTest::Lines;
namespace Trace = ZendraTest::Trace;
using Bytes = std::vector<unsigned char>;

constexpr unsigned hdioDriveTask = 0x031e;
constexpr unsigned hdioDriveCmd = 0x031f;
constexpr unsigned sgEmulatedHost = 0x2203;
constexpr unsigned sgGetScsiId = 0x2276;
constexpr unsigned sgGetVersionNum = 0x2282;
constexpr unsigned sgIo = 0x2285;
constexpr unsigned cdromGetCapability = 0x5331;
constexpr unsigned scsiIoctlGetIdlun = 0x5382;
constexpr unsigned scsiIoctlGetBusNumber = 0x5386;
constexpr unsigned nvmeIoctlAdminCmd = 0xc0484e41;

/** Shows the descriptor and lets a test set it. */
class OpenableOperator : public DataOperator {
public:
    explicit OpenableOperator(int descriptor = -1) { fileDescriptor = descriptor; }
    int Descriptor() const { return fileDescriptor; }
};

class PlainOperator : public DataOperator {
public:
    int Descriptor() const { return fileDescriptor; }
};

/** A plain file takes the place of the device file; every open, ioctl, close and sleep is noted in the trace. */
class DataOperatorTest : public ZendraTest::DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        char name[] = "/tmp/zendra-device-XXXXXX";
        const int descriptor = mkstemp(name);
        ASSERT_GE(descriptor, 0);
        close(descriptor);
        path = name;
        Calls().onOpen = [this](const std::string& file, int flags) {
            // Close-on-exec is nothing that the caller or the device can notice.
            EXPECT_EQ(O_RDONLY | O_NONBLOCK, flags & ~O_CLOEXEC);
            Trace::Note("open " + file);
            ++opens;
            if (opens == failOpenNumber) {
                errno = EACCES;
                return -1;
            }
            const int opened = ZendraTest::RealOpen(file.c_str(), flags);
            if (opened >= 0) {
                ours.insert(opened);
            }
            return opened;
        };
        Calls().onClose = [this](int open) {
            if (ours.erase(open) == 1) {
                Trace::Note("close");
            }
            return ZendraTest::RealClose(open);
        };
        Calls().onIoctl = [this](int open, unsigned code, void* argument) { return OnIoctl(open, code, argument); };
        Calls().onSleep = [](unsigned seconds) { Trace::Note("sleep " + std::to_string(seconds)); };
    }

    void TearDown() override
    {
        EXPECT_TRUE(answers.empty()) << answers.size() << " ioctls never issued";
        EXPECT_TRUE(ours.empty()) << "device file left open";
        unlink(path.c_str());
        DeviceTest::TearDown();
    }

    using Answer = std::function<int(void* argument)>;

    /** The next ioctl must be this one; `answer` is called with its argument. */
    void ExpectIoctl(unsigned code, Answer answer) { answers.push_back({code, std::move(answer)}); }

    void ExpectVersion(int version)
    {
        ExpectIoctl(sgGetVersionNum, [version](void* argument) {
            EXPECT_EQ(0, *static_cast<int*>(argument));
            *static_cast<int*>(argument) = version;
            return 0;
        });
    }

    void ExpectCommand(std::function<int(sg_io_hdr&)> answer)
    {
        ExpectIoctl(sgIo, [this, answer](void* argument) {
            sg_io_hdr& header = *static_cast<sg_io_hdr*>(argument);
            ExpectPristine(header);
            return answer(header);
        });
    }

    /** Sends `block`, inquiry_cmd's bytes, to the device file. */
    int Send()
    {
        DataOperator device;
        ReqPassThruParam request = Request();
        return device.ExecPassThruCmd(request);
    }

    ReqPassThruParam Request()
    {
        ReqPassThruParam request;
        request.driveName = path;
        request.cdb = block;
        request.cdbLength = 6;
        request.dataBuffer = data;
        return request;
    }

    ReqIoCtlParam IoCtl(unsigned code, void* argument)
    {
        ReqIoCtlParam request;
        request.driveName = path;
        request.ioctlCode = static_cast<int>(code);
        request.ioctlData = argument;
        return request;
    }

    /** The trace of one ExecIoCtl that opens the file. */
    Lines IoCtlTrace(unsigned code, int result)
    {
        return {L4("Enter DataOperator::ExecIoCtl()."),
                L4("Enter DataOperator::OpenDriveFile() driveName = " + path),
                "open " + path,
                "ioctl " + std::to_string(code),
                "close",
                L4("Exit DataOperator::ExecIoCtl(), ret = " + std::to_string(result))};
    }
    Lines EnterTrace() const { return {L4("Enter DataOperator::ExecPassThruCmd()")}; }
    Lines VersionTrace() { return Join({EnterTrace(), IoCtlTrace(sgGetVersionNum, 0)}); }
    Lines CommandTrace(int result = 0) { return IoCtlTrace(sgIo, result); }
    Lines ExitTrace() const { return {L4("Exit scsiPassThrough::execSCSICommand().")}; }
    Lines RetryTrace() const { return {L4("Retry condition..."), "sleep 5"}; }

    /** Expects version 30000 and one command, answered by `fill`; the trace has `report` before the exit line. */
    void ExpectReport(const std::function<void(sg_io_hdr&)>& fill, const Lines& report)
    {
        ExpectTraceAtEveryLevel(Join({VersionTrace(), CommandTrace(), report, ExitTrace()}), [&] {
            ExpectVersion(30000);
            ExpectCommand([&fill](sg_io_hdr& header) {
                fill(header);
                return 0;
            });
            EXPECT_EQ(DEV_SUCCESS, Send());
        });
    }

    std::string path;
    unsigned char block[16] = {0x12, 0, 0, 0, 0x80, 0, 0x66, 0x77, 0x88, 0x99};
    unsigned char data[255] = {};
    int opens = 0;
    int failOpenNumber = -1;
    int commandLengthSent = 6;

private:
    struct Expected {
        unsigned code;
        Answer answer;
    };

    int OnIoctl(int open, unsigned code, void* argument)
    {
        Trace::Note("ioctl " + std::to_string(code));
        EXPECT_EQ(path, ZendraTest::PathOfDescriptor(open));
        if (answers.empty() || answers.front().code != code) {
            ADD_FAILURE() << "unexpected ioctl 0x" << std::hex << code;
            errno = ENOTTY;
            return -1;
        }
        const Expected expected = answers.front();
        answers.pop_front();
        return expected.answer(argument);
    }

    /** The header as every attempt must begin with it, whatever the attempt before left in its own. */
    void ExpectPristine(const sg_io_hdr& header) const
    {
        EXPECT_EQ('S', header.interface_id);
        EXPECT_EQ(-3, header.dxfer_direction);
        EXPECT_EQ(commandLengthSent, header.cmd_len);
        EXPECT_EQ(32, header.mx_sb_len);
        EXPECT_EQ(0, header.iovec_count);
        EXPECT_EQ(255U, header.dxfer_len);
        EXPECT_EQ(static_cast<const void*>(data), header.dxferp);
        EXPECT_EQ(block, header.cmdp);
        EXPECT_NE(nullptr, header.sbp);
        EXPECT_EQ(20000U, header.timeout);
        EXPECT_EQ(0U, header.flags);
        EXPECT_EQ(0, header.pack_id);
        EXPECT_EQ(nullptr, header.usr_ptr);
        EXPECT_EQ(0, header.status);
        EXPECT_EQ(0, header.masked_status);
        EXPECT_EQ(0, header.msg_status);
        EXPECT_EQ(0, header.sb_len_wr);
        EXPECT_EQ(0, header.host_status);
        EXPECT_EQ(0, header.driver_status);
        EXPECT_EQ(0, header.resid);
        EXPECT_EQ(0U, header.duration);
        EXPECT_EQ(0U, header.info);
        EXPECT_EQ(0x00, block[7]);
        EXPECT_EQ(0xff, block[8]);
    }

    std::deque<Expected> answers;
    std::set<int> ours;
};

/** A check condition with fixed-format sense bytes: key, additional sense code, qualifier. */
void WriteSense(sg_io_hdr& header, unsigned char key, unsigned char code, unsigned char qualifier,
                unsigned char written = 18)
{
    header.info = 1;
    header.sb_len_wr = written;
    header.sbp[0] = 0x70;
    header.sbp[2] = key;
    header.sbp[7] = 10;
    header.sbp[12] = code;
    header.sbp[13] = qualifier;
}

/** The report line of the 18 bytes of WriteSense. */
std::string SenseReport(unsigned key, unsigned code, unsigned qualifier)
{
    char text[64];
    std::snprintf(text, sizeof text, "SCSI sense data: 700%x0000a0000%x%x0000", key, code, qualifier);
    return L4(text);
}

// Life of the descriptor

TEST_F(DataOperatorTest, StartsClosedAndOpensNothing)
{
    ExpectTraceAtEveryLevel({}, [] {
        const PlainOperator device;
        EXPECT_EQ(-1, device.Descriptor());
    });
    EXPECT_EQ(0, opens);
}

TEST_F(DataOperatorTest, OpenDriveFileOpensReadOnlyWithoutBlockingAndDestructorCloses)
{
    ExpectTraceAtEveryLevel(
        {L4("Enter DataOperator::OpenDriveFile() driveName = " + path), "open " + path, "close"}, [this] {
            OpenableOperator device;
            EXPECT_EQ(DEV_OPEN_OK, device.OpenDriveFile(path));
            EXPECT_EQ(path, ZendraTest::PathOfDescriptor(device.Descriptor()));
            EXPECT_EQ(O_RDONLY | O_NONBLOCK, fcntl(device.Descriptor(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
        });
}

TEST_F(DataOperatorTest, OpenDriveFileClosesTheFileThatWasOpen)
{
    OpenableOperator device;
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ(DEV_OPEN_OK, device.OpenDriveFile(path));
    EXPECT_EQ(DEV_OPEN_OK, device.OpenDriveFile(path));
    const std::string enter = L4("Enter DataOperator::OpenDriveFile() driveName = " + path);
    EXPECT_EQ((Lines{enter, "open " + path, enter, "close", "open " + path}), Trace::Take());
    device.CloseDev();
    EXPECT_EQ(-1, device.Descriptor());
}

TEST_F(DataOperatorTest, OpenDriveFileThatFailsLeavesTheOperatorClosedAndKeepsErrno)
{
    std::string missing = path + ".missing";
    ExpectTraceAtEveryLevel({L4("Enter DataOperator::OpenDriveFile() driveName = " + missing), "open " + missing},
                            [&missing] {
                                OpenableOperator device;
                                errno = 0;
                                EXPECT_EQ(DEV_OPEN_FAILED, device.OpenDriveFile(missing));
                                EXPECT_EQ(ENOENT, errno);
                                EXPECT_EQ(-1, device.Descriptor());
                            });
}

TEST_F(DataOperatorTest, OpenDriveFileThatFailsStillClosesTheFileThatWasOpen)
{
    OpenableOperator device;
    EXPECT_EQ(DEV_OPEN_OK, device.OpenDriveFile(path));
    failOpenNumber = 2;
    EXPECT_EQ(DEV_OPEN_FAILED, device.OpenDriveFile(path));
    EXPECT_EQ((Lines{"open " + path, "close", "open " + path}), Trace::Take());
    EXPECT_EQ(-1, device.Descriptor());
}

TEST_F(DataOperatorTest, OpenIsNotRetried)
{
    failOpenNumber = 1;
    OpenableOperator device;
    EXPECT_EQ(DEV_OPEN_FAILED, device.OpenDriveFile(path));
    EXPECT_EQ(1, opens);
}

TEST_F(DataOperatorTest, CloseDevClosesOnceAndThenDoesNothing)
{
    ExpectTraceAtEveryLevel({L4("Enter DataOperator::OpenDriveFile() driveName = " + path), "open " + path, "close"},
                            [this] {
                                OpenableOperator device;
                                device.OpenDriveFile(path);
                                device.CloseDev();
                                EXPECT_EQ(-1, device.Descriptor());
                                device.CloseDev();
                            });
}

TEST_F(DataOperatorTest, CloseThatIsInterruptedIsNotRetried)
{
    OpenableOperator device;
    device.OpenDriveFile(path);
    int closes = 0;
    const auto reallyClose = Calls().onClose;
    Calls().onClose = [&](int descriptor) {
        ++closes;
        reallyClose(descriptor);
        errno = EINTR;
        return -1;
    };
    device.CloseDev();
    EXPECT_EQ(1, closes);
    EXPECT_EQ(-1, device.Descriptor());
    Calls().onClose = reallyClose;
}

TEST_F(DataOperatorTest, CloseDevLeavesDescriptorZeroAsItIs)
{
    Calls().onClose = [](int descriptor) {
        EXPECT_NE(0, descriptor);
        return ZendraTest::RealClose(descriptor);
    };
    OpenableOperator device(0);
    device.CloseDev();
    EXPECT_EQ(0, device.Descriptor());
}

TEST_F(DataOperatorTest, CloseDevClosesDescriptorOneLikeAnyOther)
{
    std::vector<int> closed;
    Calls().onClose = [&closed](int descriptor) {
        closed.push_back(descriptor);
        return 0;
    };
    OpenableOperator device(1);
    device.CloseDev();
    EXPECT_EQ(-1, device.Descriptor());
    EXPECT_EQ((std::vector<int>{1}), closed);
}

TEST_F(DataOperatorTest, DescriptorZeroIsTreatedAsOpenAndNeverClosed)
{
    int argument = 0;
    bool issued = false;
    Calls().onIoctl = [&](int descriptor, unsigned code, void* given) {
        EXPECT_EQ(0, descriptor);
        EXPECT_EQ(sgGetVersionNum, code);
        EXPECT_EQ(&argument, given);
        issued = true;
        return 0;
    };
    Calls().onClose = [](int descriptor) {
        EXPECT_NE(0, descriptor);
        return ZendraTest::RealClose(descriptor);
    };
    ExpectTraceAtEveryLevel({L4("Enter DataOperator::ExecIoCtl()."), L4("Exit DataOperator::ExecIoCtl(), ret = 0")},
                            [&] {
                                issued = false;
                                OpenableOperator device(0);
                                ReqIoCtlParam request = IoCtl(sgGetVersionNum, &argument);
                                EXPECT_EQ(DEV_SUCCESS, device.ExecIoCtl(request));
                                EXPECT_TRUE(issued);
                                EXPECT_EQ(0, device.Descriptor());
                            });
    EXPECT_EQ(0, opens);
}

TEST_F(DataOperatorTest, DescriptorZeroFromOpenIsASuccessAndStaysOpenForTheNextRequest)
{
    int opened = 0;
    Calls().onOpen = [&opened](const std::string&, int) {
        ++opened;
        return 0;
    };
    Calls().onClose = [](int descriptor) {
        EXPECT_NE(0, descriptor);
        return ZendraTest::RealClose(descriptor);
    };
    Calls().onIoctl = [](int descriptor, unsigned, void*) {
        EXPECT_EQ(0, descriptor);
        return 0;
    };
    OpenableOperator device;
    ReqIoCtlParam request = IoCtl(sgEmulatedHost, nullptr);
    EXPECT_EQ(DEV_SUCCESS, device.ExecIoCtl(request));
    EXPECT_EQ(0, device.Descriptor());
    EXPECT_EQ(DEV_SUCCESS, device.ExecIoCtl(request));
    EXPECT_EQ(1, opened);
}

TEST_F(DataOperatorTest, OpenFileIsUsedWithoutReopeningAndThenClosed)
{
    OpenableOperator device;
    device.OpenDriveFile(path);
    Trace::Take();
    Zendra::Log::SetMinLogLevel(4);
    ExpectIoctl(sgEmulatedHost, [](void*) { return 0; });
    ReqIoCtlParam request = IoCtl(sgEmulatedHost, nullptr);
    request.driveName = "/nowhere";
    EXPECT_EQ(DEV_SUCCESS, device.ExecIoCtl(request));
    EXPECT_EQ((Lines{L4("Enter DataOperator::ExecIoCtl()."), "ioctl " + std::to_string(sgEmulatedHost), "close",
                     L4("Exit DataOperator::ExecIoCtl(), ret = 0")}),
              Trace::Take());
    EXPECT_EQ(-1, device.Descriptor());
}

// ExecIoCtl

TEST_F(DataOperatorTest, EveryAllowedRequestIsIssuedWithItsArgument)
{
    for (const unsigned code : {hdioDriveTask, hdioDriveCmd, sgEmulatedHost, sgGetScsiId, sgGetVersionNum, sgIo,
                                cdromGetCapability, scsiIoctlGetIdlun, scsiIoctlGetBusNumber, nvmeIoctlAdminCmd}) {
        SCOPED_TRACE(code);
        ExpectTraceAtEveryLevel(IoCtlTrace(code, 0), [&] {
            unsigned char argument[4096] = {};
            ExpectIoctl(code, [&argument](void* given) {
                EXPECT_EQ(static_cast<void*>(argument), given);
                return 0;
            });
            DataOperator device;
            ReqIoCtlParam request = IoCtl(code, argument);
            EXPECT_EQ(DEV_SUCCESS, device.ExecIoCtl(request));
        });
    }
}

TEST_F(DataOperatorTest, RequestOutsideTheListOpensAndClosesTheFileAndIssuesNothing)
{
    const std::set<unsigned> allowed = {
        hdioDriveTask, hdioDriveCmd,       sgEmulatedHost,    sgGetScsiId,           sgGetVersionNum,
        sgIo,          cdromGetCapability, scsiIoctlGetIdlun, scsiIoctlGetBusNumber, nvmeIoctlAdminCmd};
    std::set<unsigned> refused = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff};
    for (const unsigned code : allowed) {
        refused.insert(code - 1);
        refused.insert(code + 1);
        refused.insert(code & 0xffff);
        refused.insert(code | 0x10000);
        refused.insert(code ^ 0x80000000);
    }
    for (const unsigned code : allowed) {
        refused.erase(code);
    }
    for (const unsigned code : refused) {
        SCOPED_TRACE(code);
        ExpectTraceAtEveryLevel({L4("Enter DataOperator::ExecIoCtl()."),
                                 L4("Enter DataOperator::OpenDriveFile() driveName = " + path), "open " + path, "close",
                                 L4("Exit DataOperator::ExecIoCtl(), ret = -1")},
                                [&] {
                                    DataOperator device;
                                    ReqIoCtlParam request = IoCtl(code, nullptr);
                                    EXPECT_EQ(DEV_FAILURE, device.ExecIoCtl(request));
                                });
    }
}

TEST_F(DataOperatorTest, IoctlResultOfZeroOrMoreIsSuccessAndANegativeOneFailure)
{
    const struct {
        int result;
        int status;
    } cases[] = {{0, DEV_SUCCESS}, {1, DEV_SUCCESS}, {2147483647, DEV_SUCCESS}, {-1, DEV_FAILURE}, {-25, DEV_FAILURE}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.result);
        ExpectTraceAtEveryLevel(IoCtlTrace(sgGetScsiId, one.result), [&] {
            ExpectIoctl(sgGetScsiId, [&one](void*) { return one.result; });
            DataOperator device;
            ReqIoCtlParam request = IoCtl(sgGetScsiId, nullptr);
            EXPECT_EQ(one.status, device.ExecIoCtl(request));
        });
    }
}

TEST_F(DataOperatorTest, InterruptedIoctlIsNotRetried)
{
    ExpectIoctl(sgGetScsiId, [](void*) {
        errno = EINTR;
        return -1;
    });
    DataOperator device;
    ReqIoCtlParam request = IoCtl(sgGetScsiId, nullptr);
    EXPECT_EQ(DEV_FAILURE, device.ExecIoCtl(request));
}

TEST_F(DataOperatorTest, ExecIoCtlOnAMissingFileLogsThePathAsInvalid)
{
    const std::string missing = path + ".missing";
    ExpectTraceAtEveryLevel({L4("Enter DataOperator::ExecIoCtl()."),
                             L4("Enter DataOperator::OpenDriveFile() driveName = " + missing), "open " + missing,
                             L4("DataOperator::ExecIoCtl(" + missing + ")  invalid")},
                            [&] {
                                DataOperator device;
                                ReqIoCtlParam request = IoCtl(sgGetVersionNum, nullptr);
                                request.driveName = missing;
                                EXPECT_EQ(DEV_OPEN_FAILED, device.ExecIoCtl(request));
                            });
}

TEST_F(DataOperatorTest, RequestRecordIsLeftAsItWas)
{
    int argument = 0;
    ExpectIoctl(sgGetVersionNum, [](void*) { return 0; });
    DataOperator device;
    ReqIoCtlParam request = IoCtl(sgGetVersionNum, &argument);
    device.ExecIoCtl(request);
    EXPECT_EQ(path, request.driveName);
    EXPECT_EQ(static_cast<int>(sgGetVersionNum), request.ioctlCode);
    EXPECT_EQ(&argument, request.ioctlData);
}

// ExecPassThruCmd: version check

TEST_F(DataOperatorTest, VersionBelow30000AnswersSuccessWithoutSendingTheCommand)
{
    for (const int version : {29999, 20000, 0, -1, -2147483647}) {
        SCOPED_TRACE(version);
        block[7] = 0x77;
        block[8] = 0x88;
        data[0] = 0x42;
        ExpectTraceAtEveryLevel(Join({VersionTrace(), {L4("Device do not compat with SCSI")}}), [&] {
            ExpectVersion(version);
            EXPECT_EQ(DEV_SUCCESS, Send());
        });
        EXPECT_EQ(0x77, block[7]);
        EXPECT_EQ(0x88, block[8]);
        EXPECT_EQ(0x42, data[0]);
    }
}

TEST_F(DataOperatorTest, Version30000AndAboveSendsTheCommand)
{
    for (const int version : {30000, 30001, 40000, 2147483647}) {
        SCOPED_TRACE(version);
        ExpectTraceAtEveryLevel(Join({VersionTrace(), CommandTrace(), ExitTrace()}), [&] {
            ExpectVersion(version);
            ExpectCommand([this](sg_io_hdr&) {
                data[8] = 'V';
                return 0;
            });
            EXPECT_EQ(DEV_SUCCESS, Send());
            EXPECT_EQ('V', data[8]);
        });
    }
}

TEST_F(DataOperatorTest, FailedVersionCheckIsReturnedWhateverTheVersionSays)
{
    ExpectTraceAtEveryLevel(
        Join({EnterTrace(), IoCtlTrace(sgGetVersionNum, -1), {L4("Device do not compat with SCSI")}}), [this] {
            ExpectIoctl(sgGetVersionNum, [](void* argument) {
                *static_cast<int*>(argument) = 30536;
                return -1;
            });
            EXPECT_EQ(DEV_FAILURE, Send());
        });
}

TEST_F(DataOperatorTest, PassThroughToAMissingFileAnswersOpenFailed)
{
    const std::string missing = path + ".missing";
    ExpectTraceAtEveryLevel({L4("Enter DataOperator::ExecPassThruCmd()"), L4("Enter DataOperator::ExecIoCtl()."),
                             L4("Enter DataOperator::OpenDriveFile() driveName = " + missing), "open " + missing,
                             L4("DataOperator::ExecIoCtl(" + missing + ")  invalid"),
                             L4("Device do not compat with SCSI")},
                            [&] {
                                DataOperator device;
                                ReqPassThruParam request = Request();
                                request.driveName = missing;
                                EXPECT_EQ(DEV_OPEN_FAILED, device.ExecPassThruCmd(request));
                            });
}

// ExecPassThruCmd: the header

TEST_F(DataOperatorTest, OnlyTheLowByteOfTheCommandLengthIsSent)
{
    for (const int length : {6, 10, 0x106, 0x70a, -246}) {
        SCOPED_TRACE(length);
        commandLengthSent = length & 0xff;
        ExpectVersion(30000);
        ExpectCommand([](sg_io_hdr&) { return 0; });
        DataOperator device;
        ReqPassThruParam request = Request();
        request.cdbLength = length;
        EXPECT_EQ(DEV_SUCCESS, device.ExecPassThruCmd(request));
    }
}

TEST_F(DataOperatorTest, BytesSevenAndEightOfTheBlockAreSetAndNoOthers)
{
    const Bytes before(block, block + sizeof block);
    ExpectVersion(30000);
    ExpectCommand([](sg_io_hdr&) { return 0; });
    Send();
    Bytes expected = before;
    expected[7] = 0x00;
    expected[8] = 0xff;
    EXPECT_EQ(expected, Bytes(block, block + sizeof block));
}

TEST_F(DataOperatorTest, BytesSevenAndEightAreWrittenAgainForEachAttempt)
{
    ExpectVersion(30000);
    ExpectCommand([this](sg_io_hdr& header) {
        WriteSense(header, 6, 0x29, 0x00);
        block[7] = 0x77;
        block[8] = 0x88;
        return 0;
    });
    ExpectCommand([](sg_io_hdr&) { return 0; });  // ExpectPristine looks at both bytes
    EXPECT_EQ(DEV_SUCCESS, Send());
}

TEST_F(DataOperatorTest, HeaderIsZeroedForEachAttempt)
{
    ExpectVersion(30000);
    ExpectCommand([](sg_io_hdr& header) {
        unsigned char* const sense = header.sbp;
        std::memset(static_cast<void*>(&header), 0xa5, sizeof header);
        header.sbp = sense;
        WriteSense(header, 6, 0x29, 0x00);
        return 0;
    });
    ExpectCommand([](sg_io_hdr&) { return 0; });
    EXPECT_EQ(DEV_SUCCESS, Send());
}

TEST_F(DataOperatorTest, SenseBufferStartsZeroedAndIsNotClearedBetweenAttempts)
{
    unsigned char* firstSense = nullptr;
    ExpectVersion(30000);
    ExpectCommand([&firstSense](sg_io_hdr& header) {
        firstSense = header.sbp;
        EXPECT_EQ(Bytes(32, 0), Bytes(header.sbp, header.sbp + 32));
        WriteSense(header, 6, 0x29, 0x03);
        header.sbp[31] = 0x99;
        return 0;
    });
    ExpectCommand([&firstSense](sg_io_hdr& header) {
        EXPECT_EQ(firstSense, header.sbp);
        EXPECT_EQ(6, header.sbp[2]);
        EXPECT_EQ(0x29, header.sbp[12]);
        EXPECT_EQ(0x03, header.sbp[13]);
        EXPECT_EQ(0x99, header.sbp[31]);
        return 0;
    });
    EXPECT_EQ(DEV_SUCCESS, Send());
}

TEST_F(DataOperatorTest, StaleSenseOfThePreviousAttemptCountsWhenTheCheckBitIsSetAgain)
{
    ExpectTraceAtEveryLevel(Join({VersionTrace(),
                                  CommandTrace(),
                                  RetryTrace(),
                                  {L4("SCSI sense data: 7006")},
                                  CommandTrace(),
                                  RetryTrace(),
                                  CommandTrace(),
                                  ExitTrace()}),
                            [this] {
                                ExpectVersion(30000);
                                ExpectCommand([](sg_io_hdr& header) {
                                    header.info = 1;
                                    header.sb_len_wr = 3;
                                    header.sbp[0] = 0x70;
                                    header.sbp[2] = 6;
                                    return 0;
                                });
                                ExpectCommand([](sg_io_hdr& header) {
                                    header.info = 1;
                                    return 0;
                                });
                                ExpectCommand([](sg_io_hdr&) { return 0; });
                                EXPECT_EQ(DEV_SUCCESS, Send());
                            });
}

// ExecPassThruCmd: retries

TEST_F(DataOperatorTest, EachOfTheThreeSenseConditionsIsRetriedAfterFiveSeconds)
{
    const struct {
        unsigned char key;
        unsigned char code;
        unsigned char qualifier;
        const char* name;
    } cases[] = {
        {0x06, 0x29, 0x00, "UNIT ATTENTION"},
        {0xf6, 0x00, 0x00, "UNIT ATTENTION below the four high bits"},
        {0x02, 0x04, 0x01, "becoming ready"},
        {0x02, 0x28, 0x00, "not ready to ready change"},
        {0x00, 0x04, 0x01, "becoming ready under another sense key"},
        {0x00, 0x28, 0x00, "not ready to ready change under another sense key"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        Zendra::Log::SetMinLogLevel(4);
        Trace::Take();
        ExpectVersion(30000);
        ExpectCommand([&one](sg_io_hdr& header) {
            WriteSense(header, one.key, one.code, one.qualifier);
            header.sb_len_wr = 0;
            return 0;
        });
        ExpectCommand([](sg_io_hdr&) { return 0; });
        EXPECT_EQ(DEV_SUCCESS, Send());
        EXPECT_EQ(Join({VersionTrace(), CommandTrace(), RetryTrace(), CommandTrace(), ExitTrace()}), Trace::Take());
    }
}

TEST_F(DataOperatorTest, NearMissesOfTheSenseConditionsAreNotRetried)
{
    const struct {
        unsigned char key;
        unsigned char code;
        unsigned char qualifier;
    } cases[] = {{0x05, 0x00, 0x00}, {0x07, 0x00, 0x00}, {0x60, 0x00, 0x00}, {0x0e, 0x00, 0x00}, {0x02, 0x04, 0x00},
                 {0x02, 0x04, 0x02}, {0x02, 0x01, 0x04}, {0x02, 0x28, 0x01}, {0x02, 0x29, 0x00}, {0x02, 0x00, 0x28},
                 {0x02, 0x03, 0x01}, {0x02, 0x05, 0x01}, {0x02, 0x27, 0x00}, {0x02, 0x84, 0x01}, {0x00, 0x00, 0x00}};
    for (const auto& one : cases) {
        SCOPED_TRACE(::testing::Message() << int(one.key) << " " << int(one.code) << " " << int(one.qualifier));
        Zendra::Log::SetMinLogLevel(4);
        Trace::Take();
        ExpectVersion(30000);
        ExpectCommand([&one](sg_io_hdr& header) {
            WriteSense(header, one.key, one.code, one.qualifier);
            header.sb_len_wr = 0;
            return 0;
        });
        EXPECT_EQ(DEV_SUCCESS, Send());
        EXPECT_EQ(Join({VersionTrace(), CommandTrace(), ExitTrace()}), Trace::Take());
    }
}

TEST_F(DataOperatorTest, FiveUnitAttentionsSleepFiveTimesAndReturnTheFifthStatus)
{
    const Lines attempt = Join({CommandTrace(), RetryTrace(), {SenseReport(6, 0x29, 0)}});
    ExpectTraceAtEveryLevel(Join({VersionTrace(), attempt, attempt, attempt, attempt, attempt, ExitTrace()}), [this] {
        ExpectVersion(30000);
        for (int i = 0; i < 5; ++i) {
            ExpectCommand([](sg_io_hdr& header) {
                WriteSense(header, 6, 0x29, 0x00);
                return 0;
            });
        }
        EXPECT_EQ(DEV_SUCCESS, Send());
    });
}

TEST_F(DataOperatorTest, FifthAttemptThatSucceedsEndsTheLoop)
{
    const Lines attempt = Join({CommandTrace(), RetryTrace(), {SenseReport(2, 0x04, 0x01)}});
    ExpectTraceAtEveryLevel(Join({VersionTrace(), attempt, attempt, attempt, attempt, CommandTrace(), ExitTrace()}),
                            [this] {
                                ExpectVersion(30000);
                                for (int i = 0; i < 4; ++i) {
                                    ExpectCommand([](sg_io_hdr& header) {
                                        WriteSense(header, 2, 0x04, 0x01);
                                        return 0;
                                    });
                                }
                                ExpectCommand([](sg_io_hdr&) { return 0; });
                                EXPECT_EQ(DEV_SUCCESS, Send());
                            });
}

// ExecPassThruCmd: failures of SG_IO

TEST_F(DataOperatorTest, FailedCommandIsLoggedAndEndsTheLoopAfterTheExitLine)
{
    ExpectTraceAtEveryLevel(Join({VersionTrace(), CommandTrace(-1), {L4("SG IOCTL error.")}, ExitTrace()}), [this] {
        ExpectVersion(30000);
        ExpectCommand([](sg_io_hdr&) { return -1; });
        EXPECT_EQ(DEV_FAILURE, Send());
    });
}

TEST_F(DataOperatorTest, FailedFifthAttemptReturnsAtOnceWithoutTheExitLine)
{
    const Lines attempt = Join({CommandTrace(), RetryTrace()});
    ExpectTraceAtEveryLevel(
        Join({VersionTrace(), attempt, attempt, attempt, attempt, CommandTrace(-1), {L4("SG IOCTL error.")}}), [this] {
            ExpectVersion(30000);
            for (int i = 0; i < 5; ++i) {
                ExpectCommand([i](sg_io_hdr& header) {
                    WriteSense(header, 6, 0x29, 0x00);
                    header.sb_len_wr = 0;
                    return i < 4 ? 0 : -1;
                });
            }
            EXPECT_EQ(DEV_FAILURE, Send());
        });
}

TEST_F(DataOperatorTest, FailedFourthAttemptStillRunsItsRetryTestAndReport)
{
    const Lines attempt = Join({CommandTrace(), RetryTrace()});
    ExpectTraceAtEveryLevel(Join({VersionTrace(),
                                  attempt,
                                  attempt,
                                  attempt,
                                  CommandTrace(-1),
                                  {L4("SG IOCTL error."), L4("Retry condition..."), "sleep 5", L4("SG Host status=9")},
                                  CommandTrace(),
                                  ExitTrace()}),
                            [this] {
                                ExpectVersion(30000);
                                for (int i = 0; i < 4; ++i) {
                                    ExpectCommand([i](sg_io_hdr& header) {
                                        WriteSense(header, 6, 0x29, 0x00);
                                        header.sb_len_wr = 0;
                                        header.host_status = i < 3 ? 0 : 9;
                                        return i < 3 ? 0 : -1;
                                    });
                                }
                                ExpectCommand([](sg_io_hdr&) { return 0; });
                                EXPECT_EQ(DEV_SUCCESS, Send());
                            });
}

TEST_F(DataOperatorTest, FileThatCannotBeReopenedForTheCommandAnswersOpenFailed)
{
    ExpectTraceAtEveryLevel(
        Join({VersionTrace(),
              {L4("Enter DataOperator::ExecIoCtl()."), L4("Enter DataOperator::OpenDriveFile() driveName = " + path),
               "open " + path, L4("DataOperator::ExecIoCtl(" + path + ")  invalid"), L4("SG IOCTL error.")},
              ExitTrace()}),
        [this] {
            opens = 0;
            failOpenNumber = 2;
            ExpectVersion(30000);
            EXPECT_EQ(DEV_OPEN_FAILED, Send());
        });
}

// ExecPassThruCmd: reports

TEST_F(DataOperatorTest, ReportTellsWhatTheHeaderHolds)
{
    const Bytes none;
    const Bytes refused = {0x70, 0, 5, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x24, 0, 0, 0, 0, 0};
    std::string wholeBuffer;
    for (int i = 0; i < 32; ++i) {
        wholeBuffer += "a5";
    }
    const struct {
        const char* name;
        unsigned info;
        Bytes sense;
        unsigned char written;
        unsigned char maskedStatus;
        unsigned char status;
        unsigned short hostStatus;
        unsigned short driverStatus;
        Lines report;
    } cases[] = {
        {"the check bit alone", 1, none, 0, 0, 0, 0, 0, {}},
        {"no check bit", 0, refused, 18, 1, 2, 3, 4, {}},
        {"other bits than the check bit", 0xfffffffe, refused, 18, 1, 2, 3, 4, {}},
        {"the check bit among others", 7, none, 0, 0, 0, 1, 0, {L4("SG Host status=1")}},
        {"one line of sense", 1, refused, 18, 0, 0, 0, 0, {L4("SCSI sense data: 70050000a00002400000")}},
        {"no leading zeros", 1, {0xF0, 0x0A, 0xB3, 0xFF, 0x00}, 4, 0, 0, 0, 0, {L4("SCSI sense data: f0ab3ff")}},
        {"the buffer's length", 1, Bytes(32, 0xa5), 32, 0, 0, 0, 0, {L4("SCSI sense data: " + wholeBuffer)}},
        {"beyond the buffer", 1, Bytes(32, 0xa5), 33, 0, 0, 0, 0, {L4("SCSI sense data: " + wholeBuffer)}},
        {"far beyond the buffer", 1, Bytes(32, 0xa5), 255, 0, 0, 0, 0, {L4("SCSI sense data: " + wholeBuffer)}},
        {"numbers after sense are hexadecimal",
         1,
         {0x70},
         1,
         1,
         'A',
         31,
         0xABCD,
         {L4("SCSI sense data: 70"), L4("SG SCSI status=A"), L4("SG Host status=1f"), L4("SG Driver status=abcd")}},
        {"numbers without sense are decimal",
         1,
         none,
         0,
         0x7f,
         'z',
         31,
         65535,
         {L4("SG SCSI status=z"), L4("SG Host status=31"), L4("SG Driver status=65535")}},
        {"driver status alone", 1, none, 0, 0, 0, 0, 8, {L4("SG Driver status=8")}},
        {"the masked status is tested", 1, none, 0, 0, 2, 0, 0, {}},
        {"the raw status is written", 1, none, 0, 1, 0, 0, 0, {L4(std::string("SG SCSI status=") + '\0')}},
        {"as one byte", 1, none, 0, 1, 0xff, 0, 0, {L4("SG SCSI status=\xff")}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        ExpectReport(
            [&one](sg_io_hdr& header) {
                std::copy(one.sense.begin(), one.sense.end(), header.sbp);
                header.info = one.info;
                header.sb_len_wr = one.written;
                header.masked_status = one.maskedStatus;
                header.status = one.status;
                header.host_status = one.hostStatus;
                header.driver_status = one.driverStatus;
            },
            one.report);
    }
}

TEST_F(DataOperatorTest, UnitAttentionWithoutTheCheckBitIsNotRetried)
{
    for (const unsigned info : {0U, 0xfffffffeU}) {
        ExpectReport(
            [info](sg_io_hdr& header) {
                WriteSense(header, 6, 0x29, 0x00);
                header.info = info;
            },
            {});
    }
}

TEST_F(DataOperatorTest, BaseIsDecimalAgainInAnAttemptWithoutSenseBytes)
{
    ExpectTraceAtEveryLevel(Join({VersionTrace(),
                                  CommandTrace(),
                                  RetryTrace(),
                                  {L4("SCSI sense data: 6"), L4("SG Host status=10")},
                                  CommandTrace(),
                                  {L4("SG Host status=16")},
                                  ExitTrace()}),
                            [this] {
                                ExpectVersion(30000);
                                ExpectCommand([](sg_io_hdr& header) {
                                    header.info = 1;
                                    header.sb_len_wr = 1;
                                    header.sbp[0] = 0x06;
                                    header.sbp[2] = 0x06;
                                    header.host_status = 16;
                                    return 0;
                                });
                                ExpectCommand([](sg_io_hdr& header) {
                                    header.info = 1;
                                    header.sbp[2] = 0;
                                    header.host_status = 16;
                                    return 0;
                                });
                                EXPECT_EQ(DEV_SUCCESS, Send());
                            });
}

TEST_F(DataOperatorTest, RetryIsLoggedAndSleptBeforeTheReportOfTheSameAttempt)
{
    ExpectTraceAtEveryLevel(Join({VersionTrace(),
                                  CommandTrace(),
                                  {L4("Retry condition..."), "sleep 5", L4("SCSI sense data: 7006"),
                                   L4("SG SCSI status=\x02"), L4("SG Host status=a"), L4("SG Driver status=b")},
                                  CommandTrace(),
                                  ExitTrace()}),
                            [this] {
                                ExpectVersion(30000);
                                ExpectCommand([](sg_io_hdr& header) {
                                    header.info = 1;
                                    header.sb_len_wr = 3;
                                    header.sbp[0] = 0x70;
                                    header.sbp[2] = 0x06;
                                    header.masked_status = 1;
                                    header.status = 2;
                                    header.host_status = 10;
                                    header.driver_status = 11;
                                    return 0;
                                });
                                ExpectCommand([](sg_io_hdr&) { return 0; });
                                EXPECT_EQ(DEV_SUCCESS, Send());
                            });
}

// ExecPassThruCmd goes through the virtual ExecIoCtl

TEST_F(DataOperatorTest, PassThroughReachesTheDeviceThroughTheVirtualExecIoCtlOnly)
{
    class Recorder : public DataOperator {
    public:
        int ExecIoCtl(ReqIoCtlParam& request) override
        {
            EXPECT_EQ("/dev/anything", request.driveName);
            codes.push_back(request.ioctlCode);
            if (request.ioctlCode == static_cast<int>(sgGetVersionNum)) {
                *static_cast<int*>(request.ioctlData) = 30000;
                return DEV_SUCCESS;
            }
            return DEV_OPEN_FAILED;
        }
        std::vector<int> codes;
    };
    ExpectTraceAtEveryLevel(Join({EnterTrace(), {L4("SG IOCTL error.")}, ExitTrace()}), [this] {
        Recorder device;
        ReqPassThruParam request = Request();
        request.driveName = "/dev/anything";
        EXPECT_EQ(DEV_OPEN_FAILED, device.ExecPassThruCmd(request));
        EXPECT_EQ((std::vector<int>{0x2282, 0x2285}), device.codes);
    });
    EXPECT_EQ(0, opens);
}

TEST_F(DataOperatorTest, PassThroughRequestIsLeftAsItWas)
{
    ExpectVersion(30000);
    ExpectCommand([](sg_io_hdr&) { return 0; });
    DataOperator device;
    ReqPassThruParam request = Request();
    device.ExecPassThruCmd(request);
    EXPECT_EQ(path, request.driveName);
    EXPECT_EQ(block, request.cdb);
    EXPECT_EQ(6, request.cdbLength);
    EXPECT_EQ(data, request.dataBuffer);
}

// Logging

TEST_F(DataOperatorTest, SuppressedMessagesComposeNothing)
{
    Calls().onOpen = nullptr;
    Calls().onClose = nullptr;
    Calls().onIoctl = [](int, unsigned, void*) { return 0; };
    for (const unsigned level : {0U, 1U, 3U}) {
        SCOPED_TRACE(level);
        Zendra::Log::SetMinLogLevel(level);
        ReqIoCtlParam request = IoCtl(sgGetScsiId, nullptr);
        DataOperator device;
        const std::size_t before = ZendraTest::Allocations::SoFar().calls;
        device.ExecIoCtl(request);
        EXPECT_EQ(before, ZendraTest::Allocations::SoFar().calls);
    }
    Zendra::Log::SetMinLogLevel(4);
    ReqIoCtlParam request = IoCtl(sgGetScsiId, nullptr);
    DataOperator device;
    const std::size_t before = ZendraTest::Allocations::SoFar().calls;
    device.ExecIoCtl(request);
    EXPECT_LT(before, ZendraTest::Allocations::SoFar().calls) << "the measure above measures nothing";
}

TEST_F(DataOperatorTest, SuppressedReportsComposeNothing)
{
    Calls().onOpen = [](const std::string&, int) { return 1000; };
    Calls().onClose = [](int) { return 0; };
    Calls().onIoctl = [](int, unsigned code, void* argument) {
        if (code == sgGetVersionNum) {
            *static_cast<int*>(argument) = 30000;
        } else {
            auto& header = *static_cast<sg_io_hdr*>(argument);
            WriteSense(header, 5, 0x24, 0x00, 32);
            header.masked_status = 1;
            header.host_status = 65535;
            header.driver_status = 65535;
        }
        return 0;
    };
    for (const unsigned level : {0U, 1U, 3U}) {
        SCOPED_TRACE(level);
        Zendra::Log::SetMinLogLevel(level);
        ReqPassThruParam request = Request();
        request.driveName = "/dev/sg0";  // short: its copies need no memory of their own
        DataOperator device;
        const std::size_t before = ZendraTest::Allocations::SoFar().calls;
        EXPECT_EQ(DEV_SUCCESS, device.ExecPassThruCmd(request));
        EXPECT_EQ(before, ZendraTest::Allocations::SoFar().calls);
    }
}

TEST_F(DataOperatorTest, NumbersInMessagesIgnoreAThousandsGroupingLocale)
{
    const ZendraTest::GroupingLocale locale;
    ExpectTraceAtEveryLevel(IoCtlTrace(sgGetScsiId, 1234567), [this] {
        ExpectIoctl(sgGetScsiId, [](void*) { return 1234567; });
        DataOperator device;
        ReqIoCtlParam request = IoCtl(sgGetScsiId, nullptr);
        EXPECT_EQ(DEV_SUCCESS, device.ExecIoCtl(request));
    });
    ExpectReport(
        [](sg_io_hdr& header) {
            header.info = 1;
            header.host_status = 65535;
            header.driver_status = 12345;
        },
        {L4("SG Host status=65535"), L4("SG Driver status=12345")});
    ExpectReport(
        [](sg_io_hdr& header) {
            header.info = 1;
            header.sb_len_wr = 1;
            header.sbp[0] = 0x70;
            header.host_status = 65535;
        },
        {L4("SCSI sense data: 70"), L4("SG Host status=ffff")});
}

TEST_F(DataOperatorTest, MessagesNameTheSourceFileRelativeToTheRepository)
{
    Zendra::Log::SetMinLogLevel(4);
    ExpectIoctl(sgGetScsiId, [](void*) { return 0; });
    DataOperator device;
    ReqIoCtlParam request = IoCtl(sgGetScsiId, nullptr);
    device.ExecIoCtl(request);
    EXPECT_EQ((Lines{"src/module/osinfos/systemdevice/dataOperator_linux.cpp"}), Trace::SourceFiles());
}

}  // namespace
