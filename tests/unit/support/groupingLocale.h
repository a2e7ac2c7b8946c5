/**
 * @file
 * @brief A global locale that writes 65535 as 65,535.
 */
#ifndef ZENDRA_TESTS_SUPPORT_GROUPINGLOCALE_H
#define ZENDRA_TESTS_SUPPORT_GROUPINGLOCALE_H

#include <gtest/gtest.h>

#include <locale>
#include <sstream>
#include <string>

namespace ZendraTest {

/** Sets the locale while it lives and proves that it takes effect on ordinary streams. */
class GroupingLocale {
public:
    GroupingLocale() : previous(std::locale::global(std::locale(std::locale::classic(), new Grouping)))
    {
        std::ostringstream proof;
        proof << 65535;
        EXPECT_EQ("65,535", proof.str());
    }
    ~GroupingLocale() { std::locale::global(previous); }
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;

private:
    class Grouping : public std::numpunct<char> {
    protected:
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale previous;
};

}  // namespace ZendraTest

#endif
