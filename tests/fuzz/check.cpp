#include "check.h"

#include <cstdio>
#include <cstdlib>

#include "fakeSystem.h"

namespace Zendra {
namespace Fuzz {

namespace {

std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c >= 0x20 && c <= 0x7e && c != '"' && c != '\\') {
            quoted += c;
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            quoted += escape;
        }
    }
    return quoted + '"';
}

[[noreturn]] void Stop(const std::string& message)
{
    // What writes the report and keeps the input needs the real system.
    StopFaking();
    std::fprintf(stderr, "PROMISE BROKEN: %s\n", message.c_str());
    std::abort();
}

}  // namespace

void Require(bool kept, std::string_view promise)
{
    if (!kept) {
        Stop(std::string(promise));
    }
}

void RequireEqual(const std::string& actual, const std::string& expected, std::string_view promise)
{
    if (actual != expected) {
        Stop(std::string(promise) + "\n  is      " + Quoted(actual) + "\n  must be " + Quoted(expected));
    }
}

void RequireEqual(std::int64_t actual, std::int64_t expected, std::string_view promise)
{
    if (actual != expected) {
        Stop(std::string(promise) + "\n  is      " + std::to_string(actual) + "\n  must be " +
             std::to_string(expected));
    }
}

}  // namespace Fuzz
}  // namespace Zendra
