#include "common/osspecific/osspecific_lin.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

std::string Stamp(std::time_t moment)
{
    std::tm local{};
    localtime_r(&moment, &local);
    char text[32];
    return {text, std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &local)};
}

/** Changes into a fresh directory whose path has exactly that many bytes, below `root`. */
void EnterPathOfLength(const std::string& root, std::size_t length)
{
    ASSERT_EQ(chdir(root.c_str()), 0);
    std::size_t reached = root.size();
    while (reached < length) {
        // Never a remainder of one byte, which would have room for the slash alone.
        std::size_t step = std::min<std::size_t>(length - reached, 201);
        if (length - reached - step == 1) {
            --step;
        }
        const std::string name(step - 1, 'd');
        ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
        reached += step;
    }
}

}  // namespace

TEST(FormatTime, IsTheLocalTimeAsFourteenDigits)
{
    const std::string before = Stamp(std::time(nullptr));
    const std::string stamp = zd_utils::FormatTime();
    const std::string after = Stamp(std::time(nullptr));
    EXPECT_EQ(stamp.size(), 14U);
    EXPECT_TRUE(std::all_of(stamp.begin(), stamp.end(), [](char c) { return c >= '0' && c <= '9'; })) << stamp;
    EXPECT_LE(before, stamp);
    EXPECT_LE(stamp, after);
}

TEST(RootPermission, FollowsTheRealUserAndNotTheEffectiveOne)
{
    ZENDRA_NEEDS(IsRoot(), "changes user ids, which takes root");
    RunIsolated([] { EXPECT_TRUE(OSSpecific::haveRootPermission()); });
    RunIsolated([] {
        ASSERT_EQ(setresuid(65534, 0, 0), 0);
        EXPECT_FALSE(OSSpecific::haveRootPermission());
    });
    RunIsolated([] {
        ASSERT_EQ(setresuid(0, 65534, 0), 0);
        EXPECT_TRUE(OSSpecific::haveRootPermission());
    });
}

TEST(RootPermission, IsFalseForAUserWithoutAPasswordEntry)
{
    ZENDRA_NEEDS(IsRoot(), "changes user ids, which takes root");
    RunIsolated([] {
        BecomeUnknownUser();
        EXPECT_FALSE(OSSpecific::haveRootPermission());
    });
}

TEST(WorkingDirectory, IsToldByBothFunctions)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        ASSERT_EQ(chdir(directory.Path().c_str()), 0);
        EXPECT_EQ(OSSpecific::GetConsumerRootPath(), directory.Path());
        EXPECT_EQ(OSSpecific::GetCurrentDir(), directory.Path());
    });
}

TEST(WorkingDirectory, Of1023BytesIsToldByBothFunctions)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        EnterPathOfLength(directory.Path(), 1023);
        EXPECT_EQ(OSSpecific::GetCurrentDir().size(), 1023U);
        EXPECT_EQ(OSSpecific::GetConsumerRootPath().size(), 1023U);
    });
}

TEST(WorkingDirectory, Of1024BytesIsEmptyFromGetCurrentDirOnly)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        EnterPathOfLength(directory.Path(), 1024);
        EXPECT_EQ(OSSpecific::GetCurrentDir(), "");
        EXPECT_EQ(OSSpecific::GetConsumerRootPath().size(), 1024U);
    });
}

TEST(WorkingDirectory, Of4095BytesIsToldByGetConsumerRootPath)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        EnterPathOfLength(directory.Path(), 4095);
        EXPECT_EQ(OSSpecific::GetConsumerRootPath().size(), 4095U);
    });
}

TEST(WorkingDirectory, Of4096BytesIsEmptyFromBoth)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        EnterPathOfLength(directory.Path(), 4096);
        EXPECT_EQ(OSSpecific::GetConsumerRootPath(), "");
        EXPECT_EQ(OSSpecific::GetCurrentDir(), "");
    });
}

TEST(WorkingDirectory, ThatWasRemovedIsEmptyFromBoth)
{
    const TemporaryDirectory directory;
    RunIsolated([&] {
        const std::string gone = directory / "gone";
        ASSERT_EQ(mkdir(gone.c_str(), 0700), 0);
        ASSERT_EQ(chdir(gone.c_str()), 0);
        ASSERT_EQ(rmdir(gone.c_str()), 0);
        EXPECT_EQ(OSSpecific::GetConsumerRootPath(), "");
        EXPECT_EQ(OSSpecific::GetCurrentDir(), "");
    });
}

TEST(Existence, OfADirectoryIsADirectoryAndNoFile)
{
    const TemporaryDirectory directory;
    EXPECT_TRUE(OSSpecific::DirExists(directory.Path()));
    EXPECT_FALSE(OSSpecific::FileExists(directory.Path()));
}

TEST(Existence, OfASoftLinkIsThatOfItsTarget)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "x");
    std::filesystem::create_symlink(directory.Path(), directory / "toDirectory");
    std::filesystem::create_symlink(directory / "file", directory / "toFile");
    std::filesystem::create_symlink(directory / "nothing", directory / "toNothing");
    EXPECT_TRUE(OSSpecific::DirExists(directory / "toDirectory"));
    EXPECT_FALSE(OSSpecific::FileExists(directory / "toDirectory"));
    EXPECT_FALSE(OSSpecific::DirExists(directory / "toFile"));
    EXPECT_TRUE(OSSpecific::FileExists(directory / "toFile"));
    EXPECT_FALSE(OSSpecific::DirExists(directory / "toNothing"));
    EXPECT_FALSE(OSSpecific::FileExists(directory / "toNothing"));
}

TEST(Existence, OfAMissingOrEmptyPathIsNeither)
{
    const TemporaryDirectory directory;
    for (const std::string& path : {directory / "missing", std::string()}) {
        EXPECT_FALSE(OSSpecific::DirExists(path));
        EXPECT_FALSE(OSSpecific::FileExists(path));
    }
}

TEST(Existence, OfDevicesPipesAndSocketsIsThatOfAFile)
{
    const TemporaryDirectory directory;
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (directory / "socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(listener);
    for (const std::string& path : {std::string("/dev/null"), directory / "fifo", directory / "socket"}) {
        EXPECT_TRUE(OSSpecific::FileExists(path)) << path;
        EXPECT_FALSE(OSSpecific::DirExists(path)) << path;
    }
}

TEST(FileSize, IsTheSizeInBytes)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "five", "12345");
    EXPECT_EQ(OSSpecific::GetFileSize(directory / "five"), 5);
    std::filesystem::create_symlink(directory / "five", directory / "link");
    EXPECT_EQ(OSSpecific::GetFileSize(directory / "link"), 5);
}

TEST(FileSize, IsZeroForDirectoriesEmptyAndMissingFiles)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "empty", "");
    EXPECT_EQ(OSSpecific::GetFileSize(directory.Path()), 0);
    EXPECT_EQ(OSSpecific::GetFileSize(directory / "empty"), 0);
    EXPECT_EQ(OSSpecific::GetFileSize(directory / "missing"), 0);
}

TEST(FileSize, OfMoreThanFourGigabytesIsWhole)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "sparse", "");
    const off_t size = off_t{5} << 30;
    ZENDRA_NEEDS(truncate((directory / "sparse").c_str(), size) == 0,
                 "the temporary file system takes no sparse file of 5 GiB");
    EXPECT_EQ(OSSpecific::GetFileSize(directory / "sparse"), size);
}

TEST(CreateDir, CreatesOneDirectoryUnderTheUmaskAndLogsNothing)
{
    const TemporaryDirectory directory;
    const mode_t callersUmask = umask(022);
    int count = 0;
    ExpectLog([&] { OSSpecific::CreateDir(directory / std::to_string(count++)); }, {});
    umask(0);
    OSSpecific::CreateDir(directory / "open");
    umask(callersUmask);
    struct stat status;
    ASSERT_EQ(stat((directory / "0").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFDIR | 0755});
    ASSERT_EQ(stat((directory / "open").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFDIR | 0777});
}

TEST(CreateDir, OfAnExistingPathSaysSo)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "");
    ExpectLog([&] { OSSpecific::CreateDir(directory.Path()); }, {"1|Dir already exists"});
    ExpectLog([&] { OSSpecific::CreateDir(directory / "file"); }, {"1|Dir already exists"});
}

TEST(CreateDir, UnderAMissingParentIsAFileSystemErrorAndCreatesNothing)
{
    const TemporaryDirectory directory;
    ExpectLog([&] { OSSpecific::CreateDir(directory / "missing/new"); }, {"1|Dir file system error"});
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST(CreateDir, WithoutWritePermissionIsDenied)
{
    const TemporaryDirectory directory;
    ASSERT_EQ(chmod(directory.Path().c_str(), 0555), 0);
    RunIsolated([&] {
        if (IsRoot()) {
            BecomeUnknownUser();
        }
        ExpectLog([&] { OSSpecific::CreateDir(directory / "new"); }, {"1|Dir status access denied"});
    });
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST(FindSubDirs, YieldsBareNamesOfDirectoriesAndOfLinksToThem)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory / "one");
    std::filesystem::create_directory(directory / "one/inner");
    std::filesystem::create_directory(directory / ".hidden");
    std::filesystem::create_directory(directory / "...");
    WriteFile(directory / "file", "");
    std::filesystem::create_directory_symlink(directory / "one", directory / "link");
    std::filesystem::create_symlink(directory / "nothing", directory / "dangling");
    std::filesystem::create_symlink(directory / "file", directory / "fileLink");
    auto names = OSSpecific::FindSubDirs(directory.Path());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"...", ".hidden", "link", "one"}));
}

TEST(FindSubDirs, KeepsTheOrderOfTheDirectory)
{
    const TemporaryDirectory directory;
    for (const char* name : {"m", "z", "a", "q", "b", "y", "c"}) {
        std::filesystem::create_directory(directory / name);
    }
    std::vector<std::string> yielded;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
        yielded.push_back(entry.path().filename());
    }
    EXPECT_EQ(OSSpecific::FindSubDirs(directory.Path()), yielded);
}

TEST(FindSubDirs, OfFilesOnlyOfNothingAndOfAMissingDirectoryIsEmpty)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory / "empty");
    std::filesystem::create_directory(directory / "files");
    WriteFile(directory / "files/file", "");
    EXPECT_TRUE(OSSpecific::FindSubDirs(directory / "empty").empty());
    EXPECT_TRUE(OSSpecific::FindSubDirs(directory / "files").empty());
    EXPECT_TRUE(OSSpecific::FindSubDirs(directory / "missing").empty());
    EXPECT_TRUE(OSSpecific::FindSubDirs(directory / "files/file").empty());
}

TEST(FindSubDirs, LosesNoDescriptorAndLogsNothing)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory / "one");
    const auto before = OpenDescriptors();
    ExpectLog(
        [&] {
            OSSpecific::FindSubDirs(directory.Path());
            OSSpecific::FindSubDirs(directory / "missing");
        },
        {});
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(FileContents, OfEveryLengthAroundTheChunkSizeAreWhole)
{
    const TemporaryDirectory directory;
    for (const std::size_t length : {0U, 1U, 4095U, 4096U, 4097U, 8191U, 8192U, 8193U, 100000U}) {
        std::string contents(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            contents[i] = static_cast<char>(i * 31 % 251);
        }
        WriteFile(directory / "file", contents);
        const int file = open((directory / "file").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(OSSpecific::GetFileContents(file, "any", false), contents) << length;
        EXPECT_EQ(close(file), 0) << "the descriptor is the caller's";
    }
}

TEST(FileContents, AreLoggedWholeAtLevel4WhenAskedFor)
{
    const TemporaryDirectory directory;
    const std::string contents("one\ntwo\0three", 13);
    WriteFile(directory / "file", contents);
    const int file = open((directory / "file").c_str(), O_RDONLY | O_CLOEXEC);
    const auto read = [&](bool logResult) {
        lseek(file, 0, SEEK_SET);
        EXPECT_EQ(OSSpecific::GetFileContents(file, "any", logResult), contents);
    };
    ExpectLog([&] { read(true); }, {"4|GetFileContents() Returned: \n" + contents});
    ExpectLog([&] { read(false); }, {});
    close(file);
}

TEST(FileContents, AtEndOfFileAreEmptyAndStillLogged)
{
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ExpectLog([&] { EXPECT_EQ(OSSpecific::GetFileContents(nothing, "any", true), ""); },
              {"4|GetFileContents() Returned: \n"});
    close(nothing);
}

TEST(FileContents, ThatCannotBeReadAreEmptyWithALevel1MessageOnly)
{
    const int directory = open("/", O_RDONLY | O_CLOEXEC);
    for (const bool logResult : {true, false}) {
        ExpectLog([&] { EXPECT_EQ(OSSpecific::GetFileContents(directory, "/some path", logResult), ""); },
                  {"1|GetFileContents failed to read file/some path"});
        ExpectLog([&] { EXPECT_EQ(OSSpecific::GetFileContents(-1, "", logResult), ""); },
                  {"1|GetFileContents failed to read file"});
    }
    close(directory);
}

TEST(CaptureFile, ReturnsTheContentsAndLogsThem)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "contents");
    WriteFile(directory / "empty", "");
    const auto before = OpenDescriptors();
    ExpectLog([&] { EXPECT_EQ(OSSpecific::CaptureFile(directory / "file"), "contents"); },
              {"4|GetFileContents() Returned: \ncontents"});
    ExpectLog([&] { EXPECT_EQ(OSSpecific::CaptureFile(directory / "empty"), ""); },
              {"4|GetFileContents() Returned: \n"});
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(CaptureFile, ThatCannotBeOpenedIsTheTextError)
{
    const TemporaryDirectory directory;
    ExpectLog([&] { EXPECT_EQ(OSSpecific::CaptureFile(directory / "missing"), "Error"); },
              {"1|CaptureFile failed to open:"});
}

TEST(CaptureFile, OfADirectoryOpensAndFailsToRead)
{
    const TemporaryDirectory directory;
    const auto before = OpenDescriptors();
    ExpectLog([&] { EXPECT_EQ(OSSpecific::CaptureFile(directory.Path()), ""); },
              {"1|GetFileContents failed to read file" + directory.Path()});
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(Log, NamesTheSourceRelativeToTheRepository)
{
    LogRecorder log(1);
    OSSpecific::CreateDir("/");
    EXPECT_EQ(log.Files(), std::vector<std::string>{"src/common/osspecific/osspecific_lin.cpp"});
}
