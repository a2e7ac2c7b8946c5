#include "tools/zddevices/output/console.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>

#include "toolTests.h"

namespace {

/** What closing standard output fails with; 0 when nothing stands in for close. */
int closeError = 0;

}  // namespace

/** Takes the program's calls: file systems of other machines report a full disk only here. */
extern "C" int close(int descriptor)
{
    if (descriptor == STDOUT_FILENO && closeError != 0) {
        errno = closeError;
        return -1;
    }
    return reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"))(descriptor);
}

namespace Zendra::ZDDevices {
namespace {

std::error_code FailureOfWriting()
{
    try {
        WriteOutput("");
    } catch (const std::system_error& error) {
        return error.code();
    }
    return {};
}

TEST(WriteOutput, ReportsAnErrorThatOnlyClosingShows)
{
    closeError = EDQUOT;
    const std::error_code failure = FailureOfWriting();
    closeError = 0;
    EXPECT_EQ(failure, std::error_code(EDQUOT, std::generic_category()));
}

TEST(WriteOutput, TakesAnInterruptedCloseForDone)
{
    closeError = EINTR;
    const std::error_code failure = FailureOfWriting();
    closeError = 0;
    EXPECT_EQ(failure, std::error_code());
}

TEST(WriteUntil, ToWhereNothingCanBeWrittenIsOver)
{
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(WriteUntil(ends[1], "text", std::chrono::steady_clock::now()), 4U);
    close(ends[0]);
    auto* const before = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(WriteUntil(ends[1], "text", std::chrono::steady_clock::now() + std::chrono::seconds(600)), 4U);
    std::signal(SIGPIPE, before);
    close(ends[1]);
}

}  // namespace
}  // namespace Zendra::ZDDevices
