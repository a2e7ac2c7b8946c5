#include "tools/zddevices/records/arrange.h"

#include <fnmatch.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>

namespace Zendra::ZDDevices {

namespace {

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool IsLetter(char c)
{
    return c >= 'a' && c <= 'z';
}

/** The first characters of the text that are all digits, all small letters, or all neither. */
std::string_view FirstRun(std::string_view text)
{
    std::size_t length = 1;
    while (length < text.size() && IsDigit(text[length]) == IsDigit(text[0]) &&
           IsLetter(text[length]) == IsLetter(text[0])) {
        ++length;
    }
    return text.substr(0, length);
}

/** The characters behind their number, so that the longer of two texts sorts behind the shorter. */
std::string Counted(std::string_view text)
{
    constexpr std::size_t width = 20;
    const std::string length = std::to_string(text.size());
    return std::string(width - length.size(), '0').append(length).append(text);
}

std::string KeyOfRun(std::string_view run)
{
    if (IsDigit(run[0])) {
        run.remove_prefix(std::min(run.find_first_not_of('0'), run.size()));
        return '0' + Counted(run);
    }
    for (const char* prefix : {"sd", "hd", "vd"}) {
        if (boost::algorithm::starts_with(run, prefix)) {
            return prefix + Counted(run);
        }
    }
    return std::string(run);
}

}  // namespace

bool Matches(const std::string& text, const std::string& pattern)
{
    return fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

std::string OrderKey(std::string_view text)
{
    std::string key;
    for (std::string_view rest = text; !rest.empty(); rest.remove_prefix(FirstRun(rest).size())) {
        key += KeyOfRun(FirstRun(rest));
    }
    // For texts that differ in nothing but the zeros before a number.
    return text.empty() ? key : key.append(1, '\0').append(text);
}

}  // namespace Zendra::ZDDevices
