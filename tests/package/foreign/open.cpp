// Opens the library at run time, as a plug-in host would, and asks it for every name that it promises.
//
//   open LIBRARY SYMBOLS
//
// SYMBOLS is the library's list of exported symbols.
#include <dlfcn.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <map>
#include <string>

namespace {

// The classes that callers may use, as they are spelled inside a mangled name.
const char* const classes[] = {
    "15DeviceCollector", "9SysDevice",     "9DataProxy",
    "10CDDVDProxy",      "9TapeProxy",     "18PhysicalDriveProxy",
    "9SCSIProxy",        "12DataOperator", "21DataOperatorInterface",
};

}  // namespace

int main(int count, char** arguments)
{
    if (count != 3) {
        std::cerr << "usage: open LIBRARY SYMBOLS\n";
        return 2;
    }
    void* library = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::cout << dlerror() << '\n';
        return 1;
    }

    int missing = 0;
    std::map<std::string, int> methods;
    std::ifstream list(arguments[2]);
    std::string line;
    while (std::getline(list, line)) {
        if (line.empty() || line[0] != ' ') {
            continue;
        }
        const std::string name = line.substr(1, line.find('@') - 1);
        if (dlsym(library, name.c_str()) == nullptr) {
            std::cout << "not found: " << name << '\n';
            ++missing;
            continue;
        }
        for (const char* one : classes) {
            if (name.rfind("_ZN6Zendra14ZDSystemDevice" + std::string(one), 0) == 0) {
                ++methods[one];
            }
        }
    }
    for (const char* one : classes) {
        std::cout << one << ": " << methods[one] << " methods\n";
        if (methods[one] == 0) {
            std::cout << "no method of " << one << '\n';
            ++missing;
        }
    }

    using Question = bool (*)();
    const auto haveRootPermission =
        reinterpret_cast<Question>(dlsym(library, "_ZN6Zendra10OSSpecific18haveRootPermissionEv"));
    if (haveRootPermission == nullptr || haveRootPermission() != (getuid() == 0)) {
        std::cout << "a function that was found does not answer\n";
        ++missing;
    }
    return missing == 0 ? 0 : 1;
}
