# What other builds find us by: a CMake package, a pkg-config file, manual pages.

include(CMakePackageConfigHelpers)

# "sudo cmake --install" writes its list of files into the build tree; a file that is there stays its owner's.
file(TOUCH ${PROJECT_BINARY_DIR}/install_manifest.txt)

set(packageDirectory ${CMAKE_INSTALL_LIBDIR}/cmake/ZendraDeviceCollector)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZendraDeviceCollectorConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/ZendraDeviceCollectorConfig.cmake
                              INSTALL_DESTINATION ${packageDirectory})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZendraDeviceCollectorConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/ZendraDeviceCollectorConfig.cmake
        ${PROJECT_BINARY_DIR}/ZendraDeviceCollectorConfigVersion.cmake
  DESTINATION ${packageDirectory}
  COMPONENT development)
install(
  EXPORT ZendraDeviceCollectorTargets
  NAMESPACE Zendra::
  DESTINATION ${packageDirectory}
  COMPONENT development)

# Relative to the file itself, so that the tree may be installed, moved or unpacked anywhere.
file(RELATIVE_PATH toPrefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
set(modules zendra-devicecollector)
if(NOT ZENDRA_EXTERNAL_LOGGER)
  list(APPEND modules zendra-logger)
  set(requiresLogger "Requires.private: zendra-logger")
endif()
foreach(module ${modules})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(
    FILES ${PROJECT_BINARY_DIR}/${module}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endforeach()

# Manual pages of the program to the program, those of the library to the compiler's package. Compressed, as
# distributions want them; without the time of the build, which would make each build another.
find_program(ZENDRA_GZIP gzip REQUIRED)
function(zendra_compress from to)
  add_custom_command(
    OUTPUT ${to}
    COMMAND ${ZENDRA_GZIP} -9nc ${from} > ${to}
    DEPENDS ${from}
    VERBATIM)
endfunction()

file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/share/man/*.[1-9])
foreach(page ${pages})
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\." "" section ${name})
  set(component development)
  if(section STREQUAL 8)
    if(NOT ZENDRA_BUILD_TOOLS)
      continue()
    endif()
    set(component tools)
  endif()
  set(compressed ${PROJECT_BINARY_DIR}/man/${name}.gz)
  zendra_compress(${page} ${compressed})
  list(APPEND compressedPages ${compressed})
  install(
    FILES ${compressed}
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    COMPONENT ${component})
endforeach()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
add_custom_target(zendra_manual ALL DEPENDS ${compressedPages})
