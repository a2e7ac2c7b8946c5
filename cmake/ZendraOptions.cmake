# What all our own targets share, and no target of anybody else: warnings, sizes of offsets and times, sanitizers,
# reproducible paths.

add_library(zendra_warnings INTERFACE)
target_compile_features(zendra_warnings INTERFACE cxx_std_17)
# Files beyond 2 GiB and times beyond 2038 on processors of 32 bits too. Elsewhere they change nothing but the names of
# the functions that are called (open64 in place of open).
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(zendra_warnings INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
target_compile_options(
  zendra_warnings
  INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wall>
    $<$<COMPILE_LANGUAGE:CXX>:-Wextra>
    $<$<COMPILE_LANGUAGE:CXX>:-Wpedantic>
    $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
    $<$<COMPILE_LANGUAGE:CXX>:-Wshadow>
    # Source paths in log messages and in debug information are relative to the repository.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

# Nor does anything tell where it was built; only counting needs to find its files again.
if(NOT ZENDRA_COVERAGE)
  target_compile_options(zendra_warnings INTERFACE -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)
endif()

if(ZENDRA_LTO)
  include(CheckIPOSupported)
  check_ipo_supported(LANGUAGES CXX)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
endif()

if(ZENDRA_WARNINGS_AS_ERRORS)
  target_compile_options(zendra_warnings INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Werror>)
endif()

if(ZENDRA_SANITIZERS)
  target_compile_options(zendra_warnings INTERFACE -fsanitize=${ZENDRA_SANITIZERS} -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer)
  target_link_options(zendra_warnings INTERFACE -fsanitize=${ZENDRA_SANITIZERS})
endif()

if(ZENDRA_COVERAGE)
  # Several threads count the same lines.
  target_compile_options(zendra_warnings INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(zendra_warnings INTERFACE --coverage)
endif()

# For what runs code of src/ in child processes; childCounts.c says why.
function(zendra_count_in_children target)
  if(ZENDRA_COVERAGE)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL STATIC_LIBRARY)
      set(linking INTERFACE)
    else()
      set(linking PRIVATE)
    endif()
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/childCounts.c)
    target_link_options(${target} ${linking} LINKER:--wrap=_exit,--wrap=execve,--wrap=execvp)
  endif()
endfunction()
