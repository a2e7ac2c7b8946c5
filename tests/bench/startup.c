// How long a library takes from dlopen to the return of its first call.
//
//     benchStartup ROUNDS [--beside LIBRARY] LIBRARY SYMBOL [LIBRARY SYMBOL]...
//
// Each measurement is a fresh process, each round measures every library once. A symbol is called with the address of
// some room, as a constructor is. One line per measurement goes to standard output: the number of the library and
// nanoseconds. --beside names a library that the process has loaded before, as every program in C++ has libstdc++;
// this one is in C and has not.

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

typedef void (*Call)(void*);

static long long Nanoseconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000000000 + now.tv_nsec;
}

static void Measure(int number, const char* library, const char* symbol)
{
    static _Alignas(16) char room[4096];
    const long long begin = Nanoseconds();
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    void* const found = handle != NULL ? dlsym(handle, symbol) : NULL;
    if (found == NULL) {
        fprintf(stderr, "benchStartup: %s\n", dlerror());
        _exit(EXIT_FAILURE);
    }
    Call call = NULL;
    memcpy(&call, &found, sizeof(call));
    call(room);
    const long long end = Nanoseconds();
    printf("%d %lld\n", number, end - begin);
    fflush(stdout);
    _exit(EXIT_SUCCESS);
}

int main(int argc, char** argv)
{
    int first = 2;
    if (argc > 3 && strcmp(argv[2], "--beside") == 0) {
        first = 4;
        if (dlopen(argv[3], RTLD_NOW | RTLD_GLOBAL) == NULL) {
            fprintf(stderr, "benchStartup: %s\n", dlerror());
            return EXIT_FAILURE;
        }
    }
    if (argc <= first || (argc - first) % 2 != 0) {
        fputs("usage: benchStartup ROUNDS [--beside LIBRARY] LIBRARY SYMBOL...\n", stderr);
        return 2;
    }
    const int rounds = atoi(argv[1]);
    for (int round = 0; round < rounds; ++round) {
        for (int argument = first; argument < argc; argument += 2) {
            const pid_t child = fork();
            if (child == 0) {
                Measure((argument - first) / 2, argv[argument], argv[argument + 1]);
            }
            int status = 0;
            if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
                fputs("benchStartup: a measurement failed\n", stderr);
                return EXIT_FAILURE;
            }
        }
    }
    return EXIT_SUCCESS;
}
