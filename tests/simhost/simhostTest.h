/**
 * @file
 * @brief What the tests of simulated hosts share: skipping where there can be none.
 */
#ifndef ZENDRA_TESTS_SIMHOSTTEST_H
#define ZENDRA_TESTS_SIMHOSTTEST_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "simhost.h"

/** Skips the test where no simulated host can be made; where CI=true is set, fails it. */
#define SIMHOST_NEEDS_NAMESPACE()                                                                                      \
    do {                                                                                                               \
        const std::string reason = SimHost::EnterPrivateNamespace();                                                   \
        const char* ci = std::getenv("CI");                                                                            \
        if (!reason.empty() && ci != nullptr && std::string(ci) == "true") {                                           \
            FAIL() << reason << " (a failure because CI=true)";                                                        \
        }                                                                                                              \
        if (!reason.empty()) {                                                                                         \
            GTEST_SKIP() << reason;                                                                                    \
        }                                                                                                              \
    } while (false)

#endif
