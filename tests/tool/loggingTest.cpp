#include "tools/zddevices/scan/logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "toolTests.h"

namespace Zendra::ZDDevices {
namespace {

TEST(WriteLogLine, KeepsErrnoWhenTheLineCannotBeWritten)
{
    const int standardError = dup(STDERR_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    dup2(full, STDERR_FILENO);
    errno = ENXIO;
    WriteLogLine(1, "file.cpp", 1, "text");
    const int error = errno;
    dup2(standardError, STDERR_FILENO);
    close(full);
    close(standardError);
    EXPECT_EQ(error, ENXIO);
}

TEST(WriteLogLine, ADeviceCannotWriteALineOfTheLog)
{
    testing::internal::CaptureStderr();
    WriteLogLine(4, "file.cpp", 7, "vendor == A\n[1] file.cpp:1 forged\n");
    WriteLogLine(4, "file.cpp", 8, "\n\n");
    WriteLogLine(4, nullptr, 9, "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[4] file.cpp:7 vendor == A\\n[1] file.cpp:1 forged\n[4] file.cpp:8 \\n\n[4] ?:9 \n");
}

}  // namespace
}  // namespace Zendra::ZDDevices
