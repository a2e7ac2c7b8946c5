/**
 * @file
 * @brief Runs commands in turn, several rounds, and tells what each run took.
 *
 *     benchTurns ROUNDS SECONDS COMMAND...
 *
 * A COMMAND is one argument; its words are separated by single blanks. What it prints is thrown away. A round runs
 * every command once, each round beginning with another one; a run is ended after SECONDS. One line per run goes to
 * standard output: number of the command, exit status (-1: ended), wall-clock nanoseconds, microseconds of processor
 * time (its children included) and peak memory in KiB.
 */
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace {

[[noreturn]] void Fail(const char* what)
{
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

std::int64_t Nanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::int64_t Microseconds(const timeval& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1000000 + time.tv_usec;
}

std::vector<std::string> Words(const std::string& command)
{
    std::vector<std::string> words(1);
    for (const char c : command) {
        if (c == ' ') {
            words.emplace_back();
        } else {
            words.back() += c;
        }
    }
    return words;
}

volatile std::sig_atomic_t running = 0;

void EndRun(int)
{
    // The whole group: a program that hangs may hang in its child.
    kill(-static_cast<pid_t>(running), SIGKILL);
}

void RunOnce(std::size_t number, std::vector<std::string> words, unsigned int limit,
             const posix_spawn_file_actions_t& silence, const posix_spawnattr_t& ownGroup)
{
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    const std::int64_t begin = Nanoseconds();
    pid_t child = 0;
    if (posix_spawnp(&child, arguments[0], &silence, &ownGroup, arguments.data(), environ) != 0) {
        Fail(arguments[0]);
    }
    running = child;
    alarm(limit);
    int status = 0;
    rusage usage{};
    while (wait4(child, &status, 0, &usage) != child) {
    }
    const std::int64_t end = Nanoseconds();
    alarm(0);

    std::printf("%zu %d %lld %lld %ld\n", number, WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                static_cast<long long>(end - begin),
                static_cast<long long>(Microseconds(usage.ru_utime) + Microseconds(usage.ru_stime)), usage.ru_maxrss);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fputs("usage: benchTurns ROUNDS SECONDS COMMAND...\n", stderr);
        return 2;
    }
    const std::size_t rounds = std::strtoul(argv[1], nullptr, 10);
    const auto limit = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    const std::vector<std::string> commands(argv + 3, argv + argc);

    posix_spawn_file_actions_t silence;
    posix_spawnattr_t ownGroup;
    if (posix_spawn_file_actions_init(&silence) != 0 || posix_spawnattr_init(&ownGroup) != 0 ||
        posix_spawn_file_actions_addopen(&silence, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) != 0 ||
        posix_spawnattr_setflags(&ownGroup, POSIX_SPAWN_SETPGROUP) != 0) {
        Fail("posix_spawn");
    }
    struct sigaction action {};
    action.sa_handler = EndRun;
    sigaction(SIGALRM, &action, nullptr);

    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t place = 0; place < commands.size(); ++place) {
            const std::size_t number = (round + place) % commands.size();
            RunOnce(number, Words(commands[number]), limit, silence, ownGroup);
        }
    }
    return EXIT_SUCCESS;
}
