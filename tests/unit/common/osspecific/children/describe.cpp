// A child that prints what it was given, one line each: its arguments as "arg <...>", its environment as
// "env <...>" and its open descriptors as "fd N TARGET".

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <iostream>
#include <map>
#include <string>

namespace {

std::map<int, std::string> Descriptors()
{
    std::map<int, std::string> descriptors;
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        std::cout << "no descriptor table\n";
        return descriptors;
    }
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int number = std::stoi(entry->d_name);
        if (number == dirfd(directory)) {
            continue;
        }
        std::array<char, 256> target{};
        const ssize_t length = readlinkat(dirfd(directory), entry->d_name, target.data(), target.size());
        descriptors[number] = length < 0 ? "?" : std::string(target.data(), static_cast<std::size_t>(length));
    }
    closedir(directory);
    return descriptors;
}

}  // namespace

int main(int count, char** arguments)
{
    // First of all: what follows may open something.
    const auto descriptors = Descriptors();
    for (int i = 0; i < count; ++i) {
        std::cout << "arg <" << arguments[i] << ">\n";
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        std::cout << "env <" << *variable << ">\n";
    }
    for (const auto& [number, target] : descriptors) {
        std::cout << "fd " << number << ' ' << target << '\n';
    }
    return 0;
}
