# Toolchain file: builds for the Debian architecture ZENDRA_ARCHITECTURE with Debian's cross compiler (scripts/cross).
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZENDRA_ARCHITECTURE)

function(zendra_architecture variable result)
  execute_process(
    COMMAND dpkg-architecture -f -a${ZENDRA_ARCHITECTURE} -q${variable}
    OUTPUT_VARIABLE value
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(${result} ${value} PARENT_SCOPE)
endfunction()

zendra_architecture(DEB_HOST_GNU_TYPE type)
zendra_architecture(DEB_HOST_MULTIARCH directory)
zendra_architecture(DEB_HOST_GNU_CPU CMAKE_SYSTEM_PROCESSOR)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${type}-gcc)
set(CMAKE_CXX_COMPILER ${type}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${directory})
# Its own default directories hold the libraries of the machine that builds.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${directory}/pkgconfig:/usr/share/pkgconfig)
