/**
 * @file
 * @brief Prints what the library says about a host file. Writes nothing but its standard output.
 */
#include <exception>
#include <iostream>
#include <string>

#include "simhost.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: simhostShow FILE.host\n";
        return 2;
    }
    try {
        const SimHost::Host host = SimHost::ReadHost(argv[1]);
        const std::string reason = SimHost::EnterPrivateNamespace();
        if (!reason.empty()) {
            std::cerr << reason << "\n";
            return 1;
        }
        const SimHost::Outcome outcome = SimHost::RunHost(host, 4);
        std::cout << outcome.text;
        for (const std::string& complaint : outcome.complaints) {
            std::cerr << complaint << "\n";
        }
        return outcome.complaints.empty() ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
