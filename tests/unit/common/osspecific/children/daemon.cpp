// A daemon that is linked with the library. Logs, prints its process id, leaves its starter, lets go of 0, 1 and 2 by
// the way that its argument names (close, redirect), and then waits to be killed: for ten seconds, and no longer.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "common/logger/log.h"
#include "common/osspecific/osspecific_lin.h"

namespace {

constexpr int standardDescriptors[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

void Redirect()
{
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int number : standardDescriptors) {
        dup2(nowhere, number);
    }
}

void Close()
{
    for (const int number : standardDescriptors) {
        close(number);
    }
}

}  // namespace

int main(int count, char** arguments)
{
    const std::string_view way = count == 2 ? arguments[1] : "";
    if (way != "close" && way != "redirect") {
        return 99;
    }
    Zendra::Log::SetMinLogLevel(4);
    std::string output;
    Zendra::OSSpecific::SpawnProcessIn("true", "true", {}, {}, 5, 1, &output);
    const pid_t daemon = fork();
    if (daemon != 0) {
        std::printf("%d\n", static_cast<int>(daemon));
        return daemon < 0 ? 1 : 0;
    }
    setsid();
    if (way == "close") {
        Close();
    } else {
        Redirect();
    }
    sleep(10);
    _exit(0);
}
