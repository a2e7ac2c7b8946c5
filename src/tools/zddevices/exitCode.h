/**
 * @file
 * @brief What the program tells its caller by its exit code.
 */
#ifndef ZENDRA_ZDDEVICES_EXITCODE_H
#define ZENDRA_ZDDEVICES_EXITCODE_H

namespace Zendra {
namespace ZDDevices {

/** Part of the program's interface: scripts rely on these numbers. The help text lists them. */
enum ExitCode : int {
    /** The scan ran, also when nothing is attached. */
    EXIT_CODE_OK = 0,
    /** The scan failed or its result could not be written. */
    EXIT_CODE_FAILURE = 1,
    /** The command line makes no sense. */
    EXIT_CODE_USAGE = 2,
    /** The scan ran, but there are device files that this user may not open, or classes that did not answer in time. */
    EXIT_CODE_INCOMPLETE = 3
};

}  // namespace ZDDevices
}  // namespace Zendra

#endif
