#include "common/logger/log.h"

#include <iostream>

namespace Zendra {

Log::Log(unsigned level, const char* file, int line)
{
    text << "external " << level << ' ' << file << ':' << line << ' ';
}

Log::~Log()
{
    std::cout << text.str() << std::endl;
}

std::ostream& Log::Stream()
{
    return text;
}

unsigned Log::GetMinLogLevel()
{
    return 4;
}

}  // namespace Zendra
