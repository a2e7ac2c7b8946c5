#include "support.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>

#include "common/logger/log.h"

namespace ZendraTest {

const std::string actProgram = ZENDRA_TEST_ACT;
const std::string daemonProgram = ZENDRA_TEST_DAEMON;
const std::string describeProgram = ZENDRA_TEST_DESCRIBE;
const std::string childDirectory = std::filesystem::path(actProgram).parent_path();

namespace {

constexpr uid_t unknownUser = 3141592;

/** A memory file, so that forked children record into it too; each record goes in with one appending write. */
int recordFile = -1;

struct RecordHead {
    pid_t process;
    unsigned level;
    std::size_t fileLength;
    std::size_t textLength;
};

[[noreturn]] void Die(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void Enter(int namespaces)
{
    const std::string reason = Kernel::EnterNamespaces(namespaces);
    if (!reason.empty()) {
        Die(reason.c_str());
    }
}

void RecordMessage(unsigned level, const char* file, int, const std::string& message)
{
    const RecordHead head{getpid(), level, std::strlen(file), message.size()};
    std::string record(reinterpret_cast<const char*>(&head), sizeof head);
    record += file;
    record += message;
    if (write(recordFile, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
        std::abort();
    }
    errno = EDOM;
}

std::map<int, std::string> Descriptors(bool inheritableOnly)
{
    std::map<int, std::string> descriptors;
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        Die("/proc/self/fd");
    }
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int number = std::stoi(entry->d_name);
        if (number == dirfd(directory)) {
            continue;
        }
        if (inheritableOnly && (fcntl(number, F_GETFD) & FD_CLOEXEC) != 0) {
            continue;
        }
        std::array<char, 4096> target{};
        const ssize_t length = readlinkat(dirfd(directory), entry->d_name, target.data(), target.size());
        descriptors[number] = length < 0 ? "?" : std::string(target.data(), static_cast<std::size_t>(length));
    }
    closedir(directory);
    return descriptors;
}

}  // namespace

bool InCi()
{
    const char* ci = std::getenv("CI");
    return ci != nullptr && std::string(ci) == "true";
}

bool IsRoot()
{
    return geteuid() == 0;
}

LogRecorder::LogRecorder(unsigned level) : owner(getpid())
{
    recordFile = memfd_create("log", MFD_CLOEXEC);
    if (recordFile < 0 || fcntl(recordFile, F_SETFL, O_APPEND) != 0) {
        Die("memfd_create");
    }
    Zendra::Log::SetSink(RecordMessage);
    Zendra::Log::SetMinLogLevel(level);
}

LogRecorder::~LogRecorder()
{
    Zendra::Log::SetMinLogLevel(0);
    Zendra::Log::SetSink(nullptr);
    close(recordFile);
    recordFile = -1;
}

std::vector<LogRecorder::Line> LogRecorder::Lines() const
{
    std::string all;
    std::array<char, 65536> chunk;
    ssize_t length;
    while ((length = pread(recordFile, chunk.data(), chunk.size(), static_cast<off_t>(all.size()))) > 0) {
        all.append(chunk.data(), static_cast<std::size_t>(length));
    }
    std::vector<Line> lines;
    for (std::size_t at = 0; at < all.size();) {
        RecordHead head;
        std::memcpy(&head, &all[at], sizeof head);
        at += sizeof head;
        lines.push_back({head.process, all.substr(at, head.fileLength),
                         std::to_string(head.level) + "|" + all.substr(at + head.fileLength, head.textLength)});
        at += head.fileLength + head.textLength;
    }
    return lines;
}

LogLines LogRecorder::Own() const
{
    LogLines texts;
    for (const Line& line : Lines()) {
        if (line.process == owner) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

LogLines LogRecorder::OfChildren() const
{
    LogLines texts;
    for (const Line& line : Lines()) {
        if (line.process != owner) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

std::vector<std::string> LogRecorder::Files() const
{
    std::vector<std::string> files;
    for (const Line& line : Lines()) {
        files.push_back(line.file);
    }
    return files;
}

LogLines UpTo(unsigned level, const LogLines& lines)
{
    LogLines kept;
    for (const std::string& line : lines) {
        if (std::stoul(line) <= level) {
            kept.push_back(line);
        }
    }
    return kept;
}

void ExpectLog(const std::function<void()>& body, const LogLines& own, const LogLines& ofChildren)
{
    for (const unsigned level : {4U, 3U, 1U, 0U}) {
        SCOPED_TRACE("log level " + std::to_string(level));
        LogRecorder log(level);
        body();
        EXPECT_EQ(log.Own(), UpTo(level, own));
        EXPECT_EQ(log.OfChildren(), UpTo(level, ofChildren));
    }
}

TemporaryDirectory::TemporaryDirectory()
{
    path = (std::filesystem::canonical(std::filesystem::temp_directory_path()) / "osspecific-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) {
        Die("mkdtemp");
    }
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void WriteFile(const std::string& path, const std::string& contents)
{
    std::ofstream file(path, std::ios::binary);
    file << contents;
    file.close();
    if (!file) {
        Die(path.c_str());
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        Die(path.c_str());
    }
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

std::map<int, std::string> OpenDescriptors()
{
    return Descriptors(false);
}

std::map<int, std::string> InheritableDescriptors()
{
    return Descriptors(true);
}

void RunIsolated(const std::function<void()>& body)
{
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        try {
            body();
        } catch (const std::exception& failure) {
            ADD_FAILURE() << failure.what();
        }
        std::cout.flush();
        static_cast<void>(std::fflush(stdout));
        EndForkedBody(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "the isolated body died of signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the isolated body failed, see above";
}

void EndForkedBody(int exitCode)
{
#ifdef ZENDRA_COUNTS_LINES
    std::exit(exitCode);
#else
    _exit(exitCode);
#endif
}

void BecomeUnknownUser()
{
    if (setgroups(0, nullptr) != 0 || setresgid(unknownUser, unknownUser, unknownUser) != 0 ||
        setresuid(unknownUser, unknownUser, unknownUser) != 0) {
        Die("setresuid");
    }
}

void EnterLoopbackNetwork()
{
    Enter(CLONE_NEWNET);
    const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(any, SIOCSIFFLAGS, &request) != 0) {
        Die("SIOCSIFFLAGS");
    }
    close(any);
}

void EnterPrivateMounts()
{
    Enter(CLONE_NEWNS);
}

}  // namespace ZendraTest
