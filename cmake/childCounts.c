/*
 * Part of builds that count executed lines, of no other. gcov writes the counts when a program ends normally; a child
 * that leaves by exec or _exit would take its counts along. The linker leads these calls here (see ZendraOptions.cmake).
 */
#include <errno.h>
#include <unistd.h>

void __gcov_dump(void);
void __gcov_reset(void);

void __real__exit(int status) __attribute__((noreturn));
int __real_execve(const char *path, char *const arguments[], char *const environment[]);
int __real_execvp(const char *file, char *const arguments[]);

void __wrap__exit(int status) __attribute__((noreturn));
int __wrap_execve(const char *path, char *const arguments[], char *const environment[]);
int __wrap_execvp(const char *file, char *const arguments[]);

/* Counting begins anew: an exec that fails is followed by more lines. */
static void WriteCounts(void)
{
    int saved = errno;
    __gcov_dump();
    __gcov_reset();
    errno = saved;
}

void __wrap__exit(int status)
{
    WriteCounts();
    __real__exit(status);
}

int __wrap_execve(const char *path, char *const arguments[], char *const environment[])
{
    WriteCounts();
    return __real_execve(path, arguments, environment);
}

int __wrap_execvp(const char *file, char *const arguments[])
{
    WriteCounts();
    return __real_execvp(file, arguments);
}
