/**
 * @file
 * @brief What a worker process holds open besides its own pipes.
 */
#ifndef ZENDRA_ZDDEVICES_INHERITEDFILES_H
#define ZENDRA_ZDDEVICES_INHERITEDFILES_H

namespace Zendra {
namespace ZDDevices {

/**
 * @brief Puts something harmless behind every descriptor that this process has inherited, so that nobody waits for it.
 *
 * The numbers stay taken: loggers keep copies of standard error, and a number that became free would be given to the
 * next device file. Standard error and its copies lead into `messages`, all others to a directory that takes no output.
 * Without /proc only the standard descriptors are changed.
 *
 * @param answer stays as it is, and so does `messages`.
 * @return false when the standard descriptors could not be changed.
 */
bool LetGoOfInheritedFiles(int answer, int messages);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
