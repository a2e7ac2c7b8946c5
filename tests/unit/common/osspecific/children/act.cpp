// A child that does what its arguments say, one after the other, with nothing but system calls in between:
//
//   out TEXT, err TEXT    writes the text to standard output, to standard error
//   outz TEXT             writes the text to standard output in one piece, with a NUL byte for every '@'
//   fill BYTES            writes that many bytes, the lower-case letters over and over
//   pause MILLISECONDS    sleeps
//   await FIFO            waits until somebody has opened the named pipe for writing and closed it
//   closeout              closes standard output and standard error
//   save FILE TEXT        writes a file
//   mark FILE             appends one byte to a file
//   signal NUMBER         sends itself a signal
//   exit CODE             ends
//
// Ends with 0 after the last one, with 99 at anything it does not understand or cannot do.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <thread>

namespace {

constexpr int notDone = 99;

void WriteAll(int descriptor, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written <= 0) {
            _exit(notDone);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void WriteFile(const char* path, int flags, std::string_view text)
{
    const int file = open(path, O_WRONLY | O_CREAT | flags, 0600);
    if (file < 0) {
        _exit(notDone);
    }
    WriteAll(file, text);
    close(file);
}

void Fill(std::size_t bytes)
{
    std::string letters;
    while (letters.size() < std::size_t{26} * 1024) {
        letters += "abcdefghijklmnopqrstuvwxyz";
    }
    while (bytes > 0) {
        const std::size_t piece = std::min(bytes, letters.size());
        WriteAll(STDOUT_FILENO, std::string_view(letters).substr(0, piece));
        bytes -= piece;
    }
}

void Await(const char* fifo)
{
    const int end = open(fifo, O_RDONLY);
    char byte;
    if (end < 0 || read(end, &byte, 1) != 0) {
        _exit(notDone);
    }
    close(end);
}

}  // namespace

int main(int count, char** arguments)
{
    int next = 1;
    const auto take = [&]() -> const char* {
        if (next >= count) {
            _exit(notDone);
        }
        return arguments[next++];
    };
    while (next < count) {
        const std::string_view act = take();
        if (act == "out") {
            WriteAll(STDOUT_FILENO, take());
        } else if (act == "err") {
            WriteAll(STDERR_FILENO, take());
        } else if (act == "outz") {
            std::string text = take();
            std::replace(text.begin(), text.end(), '@', '\0');
            WriteAll(STDOUT_FILENO, text);
        } else if (act == "fill") {
            Fill(std::stoul(take()));
        } else if (act == "pause") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(take())));
        } else if (act == "await") {
            Await(take());
        } else if (act == "closeout") {
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
        } else if (act == "save") {
            const char* file = take();
            WriteFile(file, O_TRUNC, take());
        } else if (act == "mark") {
            WriteFile(take(), O_APPEND, "x");
        } else if (act == "signal") {
            static_cast<void>(raise(std::stoi(take())));
        } else if (act == "exit") {
            _exit(std::stoi(take()));
        } else {
            _exit(notDone);
        }
    }
    _exit(0);
}
