/**
 * @file
 * @brief Somebody else's logging class: the members that the library needs, and none for programs.
 */
#ifndef ZENDRA_TESTS_FOREIGNLOGGER_LOG_H
#define ZENDRA_TESTS_FOREIGNLOGGER_LOG_H

#include <ostream>
#include <sstream>

namespace Zendra {

class Log {
public:
    Log(unsigned /*level*/, const char* /*file*/, int /*line*/) {}
    std::ostream& Stream() { return stream; }
    static unsigned GetMinLogLevel() { return 0; }

private:
    std::ostringstream stream;
};

}  // namespace Zendra

#endif
