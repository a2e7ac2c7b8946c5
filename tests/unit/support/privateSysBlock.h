/**
 * @file
 * @brief An empty /sys/block of this process's own, to put revision files into.
 *
 * Needs a mount namespace. Without it the tests that ask for it skip, and under CI=true fail.
 */
#ifndef ZENDRA_TESTS_SUPPORT_PRIVATESYSBLOCK_H
#define ZENDRA_TESTS_SUPPORT_PRIVATESYSBLOCK_H

#include <string>

namespace ZendraTest {
namespace PrivateSysBlock {

/** Mounts it, once a process. Returns why it cannot be had, empty when it is there. */
std::string Enter();

/** Writes /sys/block/<relative path>, making its directories. */
void Write(const std::string& path, const std::string& content);

/** Makes /sys/block/<relative path> a directory. */
void MakeDirectory(const std::string& path);

/** Empties it. */
void Clear();

}  // namespace PrivateSysBlock
}  // namespace ZendraTest

/** Ends the test when there is no private /sys/block to be had. */
#define REQUIRE_PRIVATE_SYS_BLOCK()                                                                                    \
    do {                                                                                                               \
        const std::string reason = ::ZendraTest::PrivateSysBlock::Enter();                                             \
        if (!reason.empty()) {                                                                                         \
            const char* const ci = std::getenv("CI");                                                                  \
            if (ci != nullptr && std::string(ci) == "true") {                                                          \
                FAIL() << reason;                                                                                      \
            }                                                                                                          \
            GTEST_SKIP() << reason;                                                                                    \
        }                                                                                                              \
        ::ZendraTest::PrivateSysBlock::Clear();                                                                        \
    } while (false)

#endif
