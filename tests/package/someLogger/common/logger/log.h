/**
 * @file
 * @brief A logger of somebody else's: the four members that the library uses, and no more.
 */
#ifndef EXTERNAL_LOG_H
#define EXTERNAL_LOG_H

#include <sstream>

namespace Zendra {

class Log {
public:
    Log(unsigned level, const char* file, int line);
    ~Log();
    std::ostream& Stream();
    static unsigned GetMinLogLevel();

private:
    std::ostringstream text;
};

}  // namespace Zendra

#endif
