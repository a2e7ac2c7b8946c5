/**
 * @file
 * @brief Marks what the shared libraries of this tree export.
 *
 * Both libraries are built with hidden visibility; a class, function or record that crosses a library
 * boundary carries ZENDRA_EXPORT. Nothing else belongs here.
 */
#ifndef ZENDRA_COMMON_EXPORT_H
#define ZENDRA_COMMON_EXPORT_H

// The records hold std::string. The one from before C++11 has another size, so that a program with it would crash
// on the first record.
#if defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI == 0
#error "libdeviceCollector and liblogger use the std::string of C++11: compile without -D_GLIBCXX_USE_CXX11_ABI=0"
#endif

/** Marks a class, function or record that callers of a shared library of this tree may use. */
#define ZENDRA_EXPORT __attribute__((visibility("default")))

/**
 * Marks exported data, and keeps executables from addressing it directly. An executable that addresses a variable of a
 * shared library directly gets a copy relocation: the variable is copied into the executable, away from the objects
 * that lay beside it. A weak reference is never resolved that way in position-independent code, the default of g++ and
 * clang: it goes through the global offset table to the library's own bytes. Code compiled with -fno-pie is refused by
 * the linker, because the symbols are also protected; that is better than a torn table. The linkers for s390x,
 * 32-bit Arm and RISC-V copy protected variables too, with a warning; for these the compiler refuses the use of such a
 * variable. A weak reference alone does not make the linker keep a library, so a header that declares such data also
 * names something of the library for certain. (The attribute nodirect_extern_access is no alternative: it bars copy
 * relocations from the whole executable, type information included.)
 */
#if (defined(__s390x__) || defined(__arm__) || defined(__riscv)) && !defined(__PIC__)
#define ZENDRA_EXPORTED_DATA                                                                                           \
    ZENDRA_EXPORT __attribute__((weak, unavailable("compile with -fpie: else the program gets a copy of it")))
#else
#define ZENDRA_EXPORTED_DATA ZENDRA_EXPORT __attribute__((weak))
#endif

#endif
