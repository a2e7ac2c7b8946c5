/**
 * @file
 * @brief Writes the numbers of its open descriptors to standard output; links no logger.
 */
#include <fcntl.h>

#include <cstdio>

int main()
{
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1) {
            std::printf("%d\n", descriptor);
        }
    }
    return 0;
}
