/**
 * @file
 * @brief One call of the facade under a Watch, and everything that can be said about it afterwards.
 */
#ifndef ZENDRA_TESTS_FAULTS_RUN_H
#define ZENDRA_TESTS_FAULTS_RUN_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simhost.h"
#include "watch.h"

namespace Faults {

/** A record's fields in the order of their declaration. */
using Fields = std::vector<std::string>;

/** What a call of the facade gives back. */
struct Result {
    unsigned status = 0;
    std::vector<Fields> records;

    bool operator==(const Result& other) const { return status == other.status && records == other.records; }
};

/** What one call did. */
struct Ran {
    /** The status and the records that were appended; the status is 0 where the call threw. */
    Result result;
    /** std::bad_alloc came out. */
    bool threw = false;
    /** What must not have happened. */
    std::vector<std::string> complaints;
    /** The calls of the library. */
    std::unique_ptr<Watch> watch;
    /** The log lines. */
    std::vector<std::string> lines;
    /** Blocks that nobody has given back although the caller's vector is gone. They have been freed. */
    std::vector<Block> leftBlocks;
    /** Descriptors that were not open before. They have been closed. */
    std::map<int, std::string> leftDescriptors;
    /** Children that nobody has waited for. They have been. */
    unsigned leftChildren = 0;
};

/**
 * Makes the call on the mounted host, with a vector that holds something and has no room left. At a log level above 0
 * the lines are collected.
 */
Ran RunCall(SimHost::MountedHost& mounted, const SimHost::Call& call, unsigned logLevel,
            const std::optional<Fault>& fault);

}  // namespace Faults

#endif
