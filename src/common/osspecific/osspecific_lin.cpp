#include "common/osspecific/osspecific_lin.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "common/descriptor.h"
#include "common/logger/logLine.h"

namespace Zendra {

namespace {

constexpr std::size_t consumerRootPathSize = 4096;
constexpr std::size_t currentDirSize = 1024;
constexpr std::size_t fileChunkSize = 4096;
constexpr std::size_t outputBufferSize = 4096;
constexpr int captureTimeout = 360;  // seconds

constexpr const char* openFailed = "Error";

constexpr std::uint16_t preferredPort = 5988;
constexpr std::uint16_t highestPort = 65535;
constexpr std::uint16_t lowestPort = 1024;
constexpr std::uint16_t noPort = 65535;

/** Descriptor 0 in single-key mode for the life of the object; nothing at all where it is no terminal. */
class SingleKeyMode {
public:
    SingleKeyMode() : isTerminal(tcgetattr(STDIN_FILENO, &saved) == 0)
    {
        if (isTerminal) {
            termios singleKey = saved;
            singleKey.c_lflag = 0;
            tcsetattr(STDIN_FILENO, TCSANOW, &singleKey);
        }
    }
    ~SingleKeyMode()
    {
        if (isTerminal) {
            tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        }
    }
    SingleKeyMode(const SingleKeyMode&) = delete;
    SingleKeyMode& operator=(const SingleKeyMode&) = delete;

private:
    termios saved{};
    bool isTerminal;
};

template <std::size_t Size>
std::string WorkingDirectory()
{
    std::array<char, Size> buffer;
    return getcwd(buffer.data(), buffer.size()) != nullptr ? std::string(buffer.data()) : std::string();
}

/** Writable copies of strings and the null-terminated array of them that exec takes. */
class ExecStrings {
public:
    void Append(const std::string& text)
    {
        auto copy = std::make_unique<char[]>(text.size() + 1);
        std::memcpy(copy.get(), text.c_str(), text.size() + 1);
        entries.back() = copy.get();
        entries.push_back(nullptr);
        copies.push_back(std::move(copy));
    }
    void Append(const std::vector<std::string>& texts)
    {
        for (const std::string& text : texts) {
            Append(text);
        }
    }

    char* const* Array() const { return entries.data(); }

    /** The entries with their terminating null pointer. */
    const std::vector<char*>& Entries() const { return entries; }

    /** Leaves the copies allocated for the rest of the process's life. */
    void Abandon()
    {
        for (auto& copy : copies) {
            static_cast<void>(copy.release());
        }
    }

private:
    std::vector<char*> entries{nullptr};
    std::vector<std::unique_ptr<char[]>> copies;
};

struct OutputPipe {
    Descriptor readEnd;
    Descriptor writeEnd;

    /** Close-on-exec: a child that another thread starts meanwhile must not hold the write end open. */
    bool Open()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return false;
        }
        readEnd = AboveStandardError(Descriptor(ends[0]));
        writeEnd = AboveStandardError(Descriptor(ends[1]));
        return readEnd.IsOpen() && writeEnd.IsOpen();
    }

    /** In the child: leads descriptor 1 into the pipe and closes its own two. */
    void BecomeStandardOutput()
    {
        dup2(writeEnd.Get(), STDOUT_FILENO);
        readEnd.Close();
        writeEnd.Close();
    }

private:
    /** Where the caller had closed descriptor 2, the pipe must not take its number: log messages would end up in it. */
    static Descriptor AboveStandardError(Descriptor end)
    {
        return end.Get() > STDERR_FILENO ? std::move(end)
                                         : Descriptor(fcntl(end.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
};

/**
 * Descriptor 2 of a child that logs. What the child's program writes there belongs into the pipe, which is
 * descriptor 1; what the child logs before it executes the program belongs where its caller's log messages go.
 */
class ChildsStandardError {
public:
    static void LeadIntoThePipe() { dup2(STDOUT_FILENO, STDERR_FILENO); }

    void LeadWhereTheCallersLeads() const
    {
        if (callers.IsOpen()) {
            dup2(callers.Get(), STDERR_FILENO);
        } else {
            close(STDERR_FILENO);
        }
    }

private:
    /** None where the number belongs to some other file, which the logger knows by its being close-on-exec. */
    Descriptor callers{fcntl(STDERR_FILENO, F_GETFD) == 0 ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                                                          : Descriptor::none};
};

enum class OutputEnd { Reached, TimedOut, SelectFailed };

/**
 * Appends to `output` what comes out of the pipe, up to its end.
 * @param endless no limit to each wait; otherwise `timeout` seconds.
 * @param traced  one message a chunk.
 */
OutputEnd CollectOutput(int readEnd, bool endless, int timeout, bool traced, std::string& output)
{
    // A descriptor set has no place for it: FD_SET would write behind the set.
    if (readEnd >= FD_SETSIZE) {
        return OutputEnd::SelectFailed;
    }
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(readEnd, &readable);
        timeval limit{timeout, 0};
        const int ready = select(FD_SETSIZE, &readable, nullptr, nullptr, endless ? nullptr : &limit);
        if (ready < 1) {
            return ready == 0 ? OutputEnd::TimedOut : OutputEnd::SelectFailed;
        }
        if (!FD_ISSET(readEnd, &readable)) {
            continue;
        }

        std::array<char, outputBufferSize> buffer{};
        const ssize_t length = read(readEnd, buffer.data(), buffer.size() - 1);
        if (traced) {
            ZENDRA_LOG(4, "*output_ptr == " << output << ", appended buffer == " << buffer.data());
        }
        // Up to the first NUL byte only (oddity: chunk-ends-at-nul); a read that failed has left nothing but zeros.
        output.append(buffer.data());
        if (length == 0) {
            return OutputEnd::Reached;
        }
    }
}

std::string OpeningText(int tryflag, const std::string& exePath, const ExecStrings& arguments)
{
    std::string text;
    if (tryflag == 1) {
        text = "tryflag == 1, ";
    } else if (tryflag == 2) {
        text = "tryflag == 2, ";
    }
    text += "OSSpecific::SpawnProcess calling " + exePath + "\nwith parameters: ";
    for (const char* argument : arguments.Entries()) {
        if (argument != nullptr) {
            text += argument;
            text += ' ';
        }
    }
    return text + "\nwith environment vars: ";
}

/** The child of the basic SpawnProcess, which must not log. */
[[noreturn]] void RunSilentChild(OutputPipe& pipe, const std::string& exePath, const ExecStrings& arguments)
{
    pipe.BecomeStandardOutput();
    ChildsStandardError::LeadIntoThePipe();
    _exit(execvp(exePath.c_str(), arguments.Array()));
}

int ExecTraced(const std::string& exePath, const ExecStrings& arguments, const ExecStrings& environment, int tryflag)
{
    const ChildsStandardError standardError;
    int returned = 0;
    int execError = 0;
    if (tryflag == 1) {
        ZENDRA_LOG(4, "execvp calling, exe_path == " << exePath);
        ChildsStandardError::LeadIntoThePipe();
        returned = execvp(exePath.c_str(), arguments.Array());
        execError = errno;
        standardError.LeadWhereTheCallersLeads();
        ZENDRA_LOG(4, "execvp called, exe_path == " << exePath << ", returned value == " << returned);
    } else if (tryflag == 2) {
        const std::vector<char*>& entries = environment.Entries();
        ZENDRA_LOG(4, "envc=" << entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (entries[i] != nullptr) {
                ZENDRA_LOG(4, "envp[" << i << "]=" << entries[i]);
            }
        }
        ZENDRA_LOG(4, "execve calling, exe_path == " << exePath);
        ChildsStandardError::LeadIntoThePipe();
        returned = execve(exePath.c_str(), arguments.Array(), environment.Array());
        execError = errno;
        standardError.LeadWhereTheCallersLeads();
        ZENDRA_LOG(4, "execve called, exe_path == " << exePath << ", returned value == " << returned);
    } else {
        ZENDRA_LOG(4, "tryflag == unexpected: " << tryflag);
        return 0;
    }
    if (returned < 0) {
        // After either of the two, in the same words. What logs may change errno.
        ChildsStandardError::LeadIntoThePipe();
        errno = execError;
        std::perror("execve error!");
        standardError.LeadWhereTheCallersLeads();
        ZENDRA_LOG(4, "exec invocation failed, err msg == " << std::strerror(execError));
    }
    return returned;
}

/** The child of SpawnProcessIn. What it throws must not reach the caller's frames, which are the parent's. */
[[noreturn]] void RunTracedChild(OutputPipe& pipe, const std::string& exePath, const ExecStrings& arguments,
                                 const ExecStrings& environment, int tryflag)
{
    int exitCode = -1;
    try {
        ZENDRA_LOG(4, "Enter pid == 0! ");
        pipe.BecomeStandardOutput();
        exitCode = ExecTraced(exePath, arguments, environment, tryflag);
    } catch (...) {
        exitCode = -1;
    }
    _exit(exitCode);
}

}  // namespace

namespace zd_utils {

std::string FormatTime()
{
    // Unlike localtime(), localtime_r() does not look at TZ again by itself.
    tzset();
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local) == nullptr) {
        return {};
    }
    std::array<char, 64> text;
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%d%H%M%S", &local)};
}

}  // namespace zd_utils

namespace OSSpecific {

bool haveRootPermission()
{
    const passwd* entry = getpwuid(getuid());
    return entry != nullptr && entry->pw_uid == 0;
}

std::string GetConsumerRootPath()
{
    return WorkingDirectory<consumerRootPathSize>();
}

std::string GetCurrentDir()
{
    return WorkingDirectory<currentDirSize>();
}

int GetKeyboardChar()
{
    const SingleKeyMode singleKeyMode;
    return std::getchar();
}

bool IsKeyWaiting()
{
    const SingleKeyMode singleKeyMode;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(STDIN_FILENO, &readable);
    timeval noWait{0, 0};
    // A failure counts as a waiting key (oddity: failure-is-a-key).
    return select(STDIN_FILENO + 1, &readable, nullptr, nullptr, &noWait) != 0;
}

bool DirExists(std::string path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool FileExists(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

std::int64_t GetFileSize(std::string path)
{
    struct stat status;
    if (!FileExists(path) || stat(path.c_str(), &status) != 0) {
        return 0;
    }
    return status.st_size;
}

void CreateDir(std::string path)
{
    if (mkdir(path.c_str(), S_IRWXU | S_IRWXG | S_IRWXO) == 0) {
        return;
    }
    switch (errno) {
    case EEXIST:
        ZENDRA_LOG(1, "Dir already exists");
        break;
    case EACCES:
    case EROFS:
        ZENDRA_LOG(1, "Dir status access denied");
        break;
    default:
        ZENDRA_LOG(1, "Dir file system error");
        break;
    }
}

std::vector<std::string> FindSubDirs(const std::string& path)
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    if (directory == nullptr) {
        return names;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        std::string joined = path;
        joined.append("/").append(name);
        if (name != "." && name != ".." && DirExists(joined)) {
            names.push_back(name);
        }
    }
    return names;
}

std::string GetFileContents(int fd, const std::string& path, bool logResult)
{
    std::string contents;
    std::array<char, fileChunkSize> chunk;
    ssize_t length;
    while ((length = read(fd, chunk.data(), chunk.size())) > 0) {
        contents.append(chunk.data(), static_cast<std::size_t>(length));
    }
    if (length == -1) {
        ZENDRA_LOG(1, "GetFileContents failed to read file" << path);
    } else if (logResult) {
        ZENDRA_LOG(4, "GetFileContents() Returned: \n" << contents);
    }
    return contents;
}

std::string CaptureFile(std::string path)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        ZENDRA_LOG(1, "CaptureFile failed to open:");
        return openFailed;
    }
    return GetFileContents(file.Get(), path, true);
}

int SpawnProcess(const std::string& commandLine, std::string* outputPtr, int timeout)
{
    std::size_t blank = commandLine.find(' ');
    const std::string exePath = commandLine.substr(0, blank);
    std::vector<std::string> params;
    while (blank != std::string::npos) {
        const std::size_t start = blank + 1;
        blank = commandLine.find(' ', start);
        params.push_back(commandLine.substr(start, blank == std::string::npos ? blank : blank - start));
    }
    return SpawnProcess(exePath, params, outputPtr, timeout);
}

int SpawnProcess(const std::string& exePath, const std::vector<std::string>& params, std::string* outputPtr,
                 int timeout)
{
    ZENDRA_LOG(3, "SpawnProcess: process " << exePath << "\n");
    ExecStrings arguments;
    arguments.Append(exePath);
    arguments.Append(params);

    OutputPipe pipe;
    if (!pipe.Open()) {
        return -1;
    }
    const pid_t child = fork();
    if (child == -1) {
        ZENDRA_LOG(1, "Fork failed \n");
        // The pipe and the argument copies stay behind (oddity: failed-fork-leaves-pipe).
        pipe.readEnd.Release();
        pipe.writeEnd.Release();
        arguments.Abandon();
        return -1;
    }
    if (child == 0) {
        RunSilentChild(pipe, exePath, arguments);
    }

    pipe.writeEnd.Close();
    const OutputEnd end = CollectOutput(pipe.readEnd.Get(), timeout == -1, timeout, false, *outputPtr);
    if (end == OutputEnd::TimedOut) {
        ZENDRA_LOG(1, "SpawnProcess - " << exePath << " TimeOut! \n");
        return -1;
    }
    if (end == OutputEnd::SelectFailed) {
        ZENDRA_LOG(1, "SpawnProcess - select call failed! \n");
        return -1;
    }
    int status = 0;
    const bool reaped = waitpid(child, &status, 0) == child;
    if (!reaped) {
        ZENDRA_LOG(1, "SpawnProcess - waitpid call failed! \n");
        return -1;
    }
    if (!WIFEXITED(status)) {
        ZENDRA_LOG(1, "SpawnProcess - Child process exited abnormally!\n");
        return -1;
    }
    return WEXITSTATUS(status) == 0 ? 0 : -1;
}

int SpawnProcess(const std::string& exePath, const std::string& arg0, const std::vector<std::string>& params,
                 const std::vector<std::string>& envVars, int timeout, std::string* outputPtr)
{
    const int result = SpawnProcessIn(exePath, arg0, params, envVars, timeout, 1, outputPtr);
    if (result == 0 || envVars.empty()) {
        return result;
    }
    ZENDRA_LOG(4, "running first time failed using execvp(), try second time using execve()");
    outputPtr->clear();
    return SpawnProcessIn(exePath, arg0, params, envVars, timeout, 2, outputPtr);
}

int SpawnProcessIn(const std::string& exePath, const std::string& arg0, const std::vector<std::string>& params,
                   const std::vector<std::string>& envVars, int timeout, int tryflag, std::string* outputPtr)
{
    ExecStrings arguments;
    arguments.Append(arg0);
    arguments.Append(params);
    ExecStrings environment;
    environment.Append(envVars);
    ZENDRA_LOG(4, OpeningText(tryflag, exePath, arguments));

    int result = -1;
    // No normal exit, for the case that no wait fills it in.
    int status = -1;
    OutputPipe pipe;
    if (pipe.Open()) {
        const pid_t child = fork();
        if (child == 0) {
            RunTracedChild(pipe, exePath, arguments, environment, tryflag);
        }
        // A failed fork goes the same way (oddity: failed-fork-waits): the output is at its end at once, and the wait
        // is for whatever child the caller has.
        ZENDRA_LOG(4, "Enter else for pid == 0! ");
        pipe.writeEnd.Close();
        switch (CollectOutput(pipe.readEnd.Get(), timeout < 0, timeout, true, *outputPtr)) {
        case OutputEnd::Reached:
            if (waitpid(child, &status, 0) == child) {
                result = 0;
            } else {
                ZENDRA_LOG(1, "SpawnProcess - waitpid call failed!");
            }
            break;
        case OutputEnd::TimedOut:
            ZENDRA_LOG(1, "SpawnProcess -" << arg0 << " TimeOut!");
            break;
        case OutputEnd::SelectFailed:
            ZENDRA_LOG(1, "SpawnProcess - select call failed!");
            break;
        }
        pipe.readEnd.Close();
    }

    if (result == 0) {
        if (WIFEXITED(status)) {
            result = WEXITSTATUS(status);
            ZENDRA_LOG(3, "SpawnProcess - Child process exited code = " << result);
        } else {
            ZENDRA_LOG(1, "SpawnProcess - Child process exited abnormally!");
            result = -1;
        }
    }
    ZENDRA_LOG(3, "SpawnProcess() " << arg0 << " Returned:" << *outputPtr);
    return result;
}

void CapFileViaProc(std::string exePath, std::vector<std::string> params, std::string filePath, std::string& output,
                    bool force)
{
    const bool fileExists = FileExists(filePath);
    if (fileExists && force) {
        // A file that stays is read again below, as if the command had written it.
        static_cast<void>(std::remove(filePath.c_str()));
    }
    if (!fileExists || force) {
        SpawnProcess(exePath, params, &output, captureTimeout);
    }
    const std::string commandOutput = output;
    output = CaptureFile(filePath);
    if (output == openFailed) {
        output = commandOutput;
    }
}

void TerminateProcess(int pid)
{
    ZENDRA_LOG(3, "killing process.. ID = " << pid);
    kill(pid, SIGKILL);
    const std::string command = "kill -9 " + std::to_string(pid) + " >/dev/null 2>&1";
    [[maybe_unused]] const int ignored = std::system(command.c_str());
}

int DetectHostnameAvailable(std::string hostname, std::string)
{
    if (gethostbyname(hostname.c_str()) == nullptr) {
        ZENDRA_LOG(4, "Network is unavailable.");
        return -1;
    }
    ZENDRA_LOG(4, "Network is ok.");
    return 0;
}

std::uint16_t GetAvailablePort(const std::string& address)
{
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_addr.s_addr = inet_addr(address.c_str());

    const auto canBind = [probe, &target](std::uint16_t port) {
        target.sin_port = htons(port);
        return bind(probe, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0;
    };

    if (canBind(preferredPort)) {
        close(probe);
        ZENDRA_LOG(3, "Assign port to " << preferredPort);
        return preferredPort;
    }
    ZENDRA_LOG(3, "Can not bind to port 5988, try others");
    for (std::uint16_t port = highestPort; port >= lowestPort; --port) {
        if (canBind(port)) {
            close(probe);
            ZENDRA_LOG(3, "Assign port to " << port);
            return port;
        }
    }
    // The socket stays open (oddity: no-port-leaves-socket).
    return noPort;
}

}  // namespace OSSpecific

}  // namespace Zendra
