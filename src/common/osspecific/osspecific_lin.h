/**
 * @file
 * @brief Operating-system services for the whole code base: files, directories, the console, child processes,
 *        name and port probes.
 *
 * Free functions without state between calls and without locks. Nothing here knows a device. Failures are answered by
 * result (false, 0, an empty text, "Error", -1) and most of them by a log message; what is thrown is std::bad_alloc
 * alone, when memory runs out. Paths are bytes, taken as they stand; what follows a NUL in a name or in an argument is
 * not seen by the system. Several parameters are taken by value: that is part of the exported symbols.
 */
#ifndef ZENDRA_COMMON_OSSPECIFIC_OSSPECIFIC_LIN_H
#define ZENDRA_COMMON_OSSPECIFIC_OSSPECIFIC_LIN_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/export.h"

namespace Zendra {

/** Texts of the code base's own making. */
namespace zd_utils {

/**
 * The current local time as fourteen digits, year to second ("20250203090705"). Follows a change of the environment
 * variable TZ; must not run while another thread changes the environment.
 * @return the digits; empty when the clock shows a year that local time cannot express.
 */
ZENDRA_EXPORT std::string FormatTime();

}  // namespace zd_utils

/** What the code base asks of the operating system: files, console, child processes, names and ports. */
namespace OSSpecific {

/**
 * Tells whether the real (not the effective) user is root. Asks the user database, which may be on the network; not to
 * be called from two threads at once.
 * @return true when the password entry of the real user id carries the user id 0; false for any other user and
 *         when there is no such entry.
 */
ZENDRA_EXPORT bool haveRootPermission();

/** The working directory, up to 4095 bytes. Returns the empty text when it is longer, gone or unreadable. */
ZENDRA_EXPORT std::string GetConsumerRootPath();

/** The working directory, up to 1023 bytes. Returns the empty text when it is longer, gone or unreadable. */
ZENDRA_EXPORT std::string GetCurrentDir();

/**
 * Waits for one key on standard input, without echo, line editing or signal keys. Blocks until a character arrives or
 * standard input ends. The terminal attributes of descriptor 0 are changed for the length of the call and restored
 * before it returns; when descriptor 0 is no terminal nothing is changed, and one character is read from it. The
 * character comes through the C library's `stdin`, which may take in more than the one it hands out. Not to be called
 * while another thread uses the terminal.
 * @return the character as an unsigned value, or EOF.
 */
ZENDRA_EXPORT int GetKeyboardChar();

/**
 * Tells whether a key waits on descriptor 0. Never blocks. Changes and restores the terminal attributes as
 * GetKeyboardChar() does. Does not see what the C library's `stdin` has already taken in.
 * @return true when a read would not block (a key, or the end of input), and also when the state could not be
 *         asked, so a read after a true answer may still block; false otherwise.
 */
ZENDRA_EXPORT bool IsKeyWaiting();

/** Whether `path`, links followed, is a directory. False too when it cannot be looked at. */
ZENDRA_EXPORT bool DirExists(std::string path);

/**
 * Whether `path`, links followed, is there and no directory: a regular file, device, pipe or socket. False too
 * when it cannot be looked at.
 */
ZENDRA_EXPORT bool FileExists(const std::string& path);

/** The size in bytes of what FileExists() finds; 0 for a directory, a missing or an unreachable path. */
ZENDRA_EXPORT std::int64_t GetFileSize(std::string path);

/**
 * Creates one directory, mode 0777 less the process's umask; not its missing parents. Returns nothing: DirExists()
 * tells the outcome. A failure is logged at level 1, an existing `path` too. Needs write permission in the parent
 * directory.
 */
ZENDRA_EXPORT void CreateDir(std::string path);

/**
 * Names the directories in a directory, links followed.
 * @return the bare names without "." and "..", in the order in which the file system yields them; an entry that
 *         cannot be looked at is left out. Empty when `path` cannot be opened.
 */
ZENDRA_EXPORT std::vector<std::string> FindSubDirs(const std::string& path);

/**
 * Reads from a descriptor up to its end. Blocks as long as the descriptor does. The descriptor stays the caller's and
 * stays open, positioned behind what was read.
 * @param fd        open for reading.
 * @param path      names the file in the log, nothing else.
 * @param logResult logs the whole contents at level 4 once the end was reached.
 * @return all bytes read, NUL bytes included. When a read fails (an interrupted one too), what came before it;
 *         a level-1 message is the only sign of that.
 */
ZENDRA_EXPORT std::string GetFileContents(int fd, const std::string& path, bool logResult);

/**
 * The contents of a file. Blocks where opening or reading does: on a named pipe, until somebody has written and closed
 * it.
 * @return what GetFileContents() returns; the text "Error" when `path` cannot be opened, which a file with
 *         just these five bytes cannot be told from.
 */
ZENDRA_EXPORT std::string CaptureFile(std::string path);

// Spawning. Each function below starts a program, appends what it writes to standard output and to standard
// error to the caller's string, in the order written, and waits for its end.
//
// - The string behind `outputPtr` is the caller's, must not be null, and is appended to. Each chunk that is read
//   (at most 4095 bytes) is cut at its first NUL byte.
// - `timeout`, in whole seconds, bounds every single wait for output and starts afresh with each chunk: it does
//   not bound the run. Nor does anything bound the wait for a program that has closed its output and runs on.
// - The program inherits the caller's standard input, working directory, signal dispositions and every
//   descriptor that is not close-on-exec. A program that it starts in its turn and that holds on to the output
//   keeps the call waiting.
// - The output ends up in memory whole. When memory runs out, std::bad_alloc is thrown and the child is left as
//   after a time-out.
// - A child whose output could not be awaited to the end (time-out; failed select, which a signal handler of the
//   caller may cause) is neither killed nor waited for: it runs on, its next write to the closed pipe raises
//   SIGPIPE, and it stays a zombie until the caller waits for it. Its process id is not told.
// - A read end numbered 1024 or above, in a caller with that many open descriptors, counts as a failed select.
// - Calls from several threads at once do not disturb each other. A caller that ignores SIGCHLD, or waits for
//   any child in another thread or in a signal handler, takes the exit code away: the result is then -1.

/**
 * Runs a command line, split at single blanks, without quoting and without a shell. The text before the first blank is
 * the program, found along PATH; between each two blanks, and behind the last one, stands one argument, which may be
 * empty. No blank: no arguments. Otherwise as the overload below.
 */
ZENDRA_EXPORT int SpawnProcess(const std::string& commandLine, std::string* outputPtr, int timeout);

/**
 * Runs a program, found along PATH, with the caller's environment.
 * @param exePath the program, and its own argv[0].
 * @param params  argv[1] and on.
 * @param outputPtr what the program writes is appended here; not null.
 * @param timeout seconds; -1 waits without limit, another negative value makes the call fail after the program
 *                was started.
 * @return 0 when the program ended with exit code 0. -1 otherwise: another exit code, death by a signal, a
 *         program that cannot be executed, time-out, no pipe, no process. When fork fails both descriptors of
 *         the pipe stay open and the copies of the arguments stay allocated.
 */
ZENDRA_EXPORT int SpawnProcess(const std::string& exePath, const std::vector<std::string>& params,
                               std::string* outputPtr, int timeout);

/**
 * Runs a program with the caller's environment and, should that not end with 0, once more with another. First
 * SpawnProcessIn() with `tryflag` 1. When its result is not 0 (a program that ran and failed included) and `envVars` is
 * not empty, empties `*outputPtr`, with what it held before the call, and runs SpawnProcessIn() with `tryflag` 2.
 * @return the result of the last run.
 */
ZENDRA_EXPORT int SpawnProcess(const std::string& exePath, const std::string& arg0,
                               const std::vector<std::string>& params, const std::vector<std::string>& envVars,
                               int timeout, std::string* outputPtr);

/**
 * Runs a program with a given argv[0] and, if asked for, a given environment, and traces the run. At log level 4 every
 * chunk logs all output so far, which is quadratic in the size of the output, and the child logs before its exec.
 * @param exePath the program.
 * @param arg0    its argv[0].
 * @param params  argv[1] and on.
 * @param envVars "name=value" texts, for `tryflag` 2.
 * @param timeout seconds; any negative value waits without limit.
 * @param tryflag 1 finds the program along PATH and passes the caller's environment; 2 takes `exePath` as a path and
 *                passes exactly `envVars`; with another value no program is run and the child's exit code is 0.
 * @param outputPtr what the program writes is appended here; not null.
 * @return the exit code, 0 to 255, after a normal end; 255 is also that of a program that could not be executed,
 *         and the output then ends with the reason. -1 on death by a signal, time-out, failed wait, no pipe, no
 *         process. When fork fails, one child of the caller, if there is any, is waited for and reaped.
 */
ZENDRA_EXPORT int SpawnProcessIn(const std::string& exePath, const std::string& arg0,
                                 const std::vector<std::string>& params, const std::vector<std::string>& envVars,
                                 int timeout, int tryflag, std::string* outputPtr);

/**
 * Obtains a file's contents, running the program that writes the file where needed. The program runs when there is no
 * `filePath` (FileExists()), or when `force` is set, which first removes the file; it runs as by the basic
 * SpawnProcess(), with at most 360 seconds between two chunks of its output. How it ended does not matter.
 * @param exePath  the program, found along PATH, and its own argv[0].
 * @param params   its argv[1] and on.
 * @param filePath the file that it writes.
 * @param output gets the contents of `filePath` in place of what it held; when the file cannot be opened, or
 *               holds just the text "Error", what it held followed by the program's output.
 * @param force  removes the file and runs the program even where the file is there.
 */
ZENDRA_EXPORT void CapFileViaProc(std::string exePath, std::vector<std::string> params, std::string filePath,
                                  std::string& output, bool force);

/**
 * Kills a process with SIGKILL, first through kill(2), then through the shell's kill as well. Returns nothing, whether
 * or not there was such a process. A negative `pid` and 0 have their meaning of kill(2): a process group, and -1 every
 * process that the caller may signal. Needs the target's user id, or CAP_KILL. Blocks while the shell runs; a child of
 * the caller that was killed remains to be waited for.
 */
ZENDRA_EXPORT void TerminateProcess(int pid);

/**
 * Tells whether a host name resolves to an IPv4 address. Blocks as long as the system's resolver does: with name
 * servers that do not answer, commonly ten seconds and more. Not to be called from two threads at once.
 * @param hostname the name.
 * @param second   ignored.
 * @return 0 when it resolves, -1 when it does not.
 */
ZENDRA_EXPORT int DetectHostnameAvailable(std::string hostname, std::string second);

/**
 * Finds a TCP port that can be bound: 5988 or else the highest free one from 65535 down to 1024. Does not block, but a
 * search over a host with every port taken makes 64513 attempts. The port is free at the moment of the probe only:
 * nothing reserves it.
 * @param address IPv4 address in dotted notation, of this host. A text that is no address stands for
 *        255.255.255.255, which Linux lets a socket bind to.
 * @return the port. 65535 too when none can be bound, be it that `address` is not this host's; in that case, and
 *         in that case only, the probe's socket (close-on-exec, not bound) stays open.
 */
ZENDRA_EXPORT std::uint16_t GetAvailablePort(const std::string& address);

}  // namespace OSSpecific

}  // namespace Zendra

#endif
