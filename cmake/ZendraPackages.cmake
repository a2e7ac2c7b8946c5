# What cpack makes: Debian packages when everything goes to /usr (preset packages, scripts/build-packages), else an
# archive that can be unpacked anywhere.

set(CPACK_PACKAGE_NAME zendra-devicecollector)
set(CPACK_PACKAGE_VENDOR Zendra)
set(CPACK_PACKAGE_CONTACT "Zendra maintainers <maintainers@zendra.example>")
# Each package has a first line of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ
    OWNER_WRITE
    OWNER_EXECUTE
    GROUP_READ
    GROUP_EXECUTE
    WORLD_READ
    WORLD_EXECUTE)

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(CPACK_GENERATOR TGZ)
  include(CPack)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL collector development)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Of what is in them, which need not be the architecture of the machine that packs them.
execute_process(
  COMMAND dpkg-architecture -f -t ${CMAKE_CXX_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(ofThisBuild "(= ${PROJECT_VERSION})")

string(CONCAT aboutTheLibrary "Takes an inventory of a host's disks (SCSI, SATA, IDE, NVMe), tape drives,\n"
              "optical drives and other generic SCSI devices by asking the devices themselves.")

# The soname's number is in the package's name, so that the next one can be installed beside it.
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_NAME libdevicecollector1)
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_MULTIARCH same)
set(CPACK_COMPONENT_COLLECTOR_DESCRIPTION "inventory of storage-class devices - shared library\n${aboutTheLibrary}")
# It runs modprobe; the other programs that it runs (sh, cat) are in packages that no Debian is without.
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_DEPENDS kmod)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libdevicecollector-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_MULTIARCH same)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "inventory of storage-class devices - development files\n${aboutTheLibrary}\n.\nHeaders, pkg-config files, a CMake package and the manual page.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libdevicecollector1 ${ofThisBuild}")

if(NOT ZENDRA_EXTERNAL_LOGGER)
  # By itself, so that a host whose code base brings a liblogger of its own replaces one package.
  list(APPEND CPACK_COMPONENTS_ALL logger)
  set(CPACK_DEBIAN_LOGGER_PACKAGE_NAME liblogger2)
  set(CPACK_DEBIAN_LOGGER_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_LOGGER_PACKAGE_MULTIARCH same)
  set(CPACK_COMPONENT_LOGGER_DESCRIPTION
      "log messages of the device inventory - shared library\nZendra::Log: messages with a level and a source position. Silent until a\nprogram sets a level; written to standard error or to a sink of its own.")
  # dpkg-shlibdeps finds the library in the build tree, where no package is known for it.
  string(APPEND CPACK_DEBIAN_COLLECTOR_PACKAGE_DEPENDS ", liblogger2 (>= ${PROJECT_VERSION})")
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", liblogger2 ${ofThisBuild}")
  set(loggerOfTools ", liblogger2 (>= ${PROJECT_VERSION})")
endif()

if(ZENDRA_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zddevices)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION
      "inventory of storage-class devices - program\n${aboutTheLibrary}\n.\nThis program shows it, to people as a table and to programs as JSON.")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libdevicecollector1 (>= ${PROJECT_VERSION})${loggerOfTools}")
endif()

# The exported symbols, with the version that each came with: dependent packages ask for no newer one than they use.
foreach(pair collector:deviceCollector logger:logger)
  string(REGEX MATCH "^(.*):(.*)$" pair ${pair})
  string(TOUPPER ${CMAKE_MATCH_1} component)
  set(directory ${PROJECT_BINARY_DIR}/packaging/${CMAKE_MATCH_1})
  configure_file(${PROJECT_SOURCE_DIR}/abi/lib${CMAKE_MATCH_2}.symbols ${directory}/symbols COPYONLY)
  set(CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA ${directory}/symbols ${PROJECT_SOURCE_DIR}/packaging/triggers)
endforeach()

# Debian calls the changelog changelog.gz where those who write the software also make the package.
set(changelog ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
zendra_compress(${PROJECT_SOURCE_DIR}/packaging/changelog ${changelog})
add_custom_target(zendra_changelog ALL DEPENDS ${changelog})
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(
    FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${changelog}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component})
endforeach()

include(CPack)
