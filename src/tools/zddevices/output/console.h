/**
 * @file
 * @brief Standard input, output and error, used so that no error goes unnoticed.
 */
#ifndef ZENDRA_ZDDEVICES_CONSOLE_H
#define ZENDRA_ZDDEVICES_CONSOLE_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Zendra::ZDDevices {

/**
 * @brief Makes descriptors 0 to 2 safe and broken pipes an error like any other. First thing in main().
 *
 * A standard descriptor that the caller closed is filled with one that takes no output: otherwise the first
 * device file that the library opens would get its number.
 */
void PrepareConsole();

/** The columns of a terminal; 0 when the descriptor is none. */
std::size_t TerminalWidth(int descriptor);

/** Writes the whole text; false, with errno, when it cannot be written. */
bool WriteAll(int descriptor, const std::string& text);

/**
 * @brief Writes what the descriptor takes, and waits for it no longer than until `end`.
 *
 * @return the number of bytes that are done with: written, or lost because nothing can be written at all.
 */
std::size_t WriteUntil(int descriptor, std::string_view text, std::chrono::steady_clock::time_point end);

/** Thrown when standard output is a pipe that nobody reads any more. */
class NobodyReads {};

/**
 * @brief Writes the whole text to standard output and closes it: some file systems report errors only then.
 * @throws NobodyReads, or std::system_error with a message fit for the user.
 */
void WriteOutput(const std::string& text);

/** Writes "zddevices: message" and a line end to standard error. Errors are ignored. */
void Complain(const char* message) noexcept;

/** As Complain(), but the message is lost if nobody takes it until `end`; none waits for ever. */
void ComplainUntil(const std::string& message, std::optional<std::chrono::steady_clock::time_point> end);

}  // namespace Zendra::ZDDevices

#endif
