# Debian packages, made by CPack. scripts/package calls it with what belongs to it.
#
# CPack cuts packages along components, and our components go across the two libraries. So each
# package is a component of its own here, which installs one of ours out of one folder. Those are
# left out of a plain `cmake --install`.

find_program(ZYM_DPKG_ARCHITECTURE dpkg-architecture)
find_program(ZYM_GZIP gzip)
mark_as_advanced(ZYM_DPKG_ARCHITECTURE ZYM_GZIP)
if(NOT ZYM_DPKG_ARCHITECTURE OR NOT ZYM_GZIP)
  return() # not a system that makes Debian packages
endif()

# Of the machine that we compile for, which need not be this one.
execute_process(COMMAND ${ZYM_DPKG_ARCHITECTURE} -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)

# Version and maintainer stand in one place.
set(changelog ${PROJECT_SOURCE_DIR}/packaging/changelog)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${changelog} ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
file(STRINGS ${changelog} entry LIMIT_COUNT 1)
file(STRINGS ${changelog} signature REGEX "^ -- .*>  " LIMIT_COUNT 1)
if(NOT entry MATCHES "^zym-mqtt \\((.*)-(.*)\\) ")
  message(FATAL_ERROR "not an entry of a Debian changelog: ${entry}")
endif()
set(CPACK_PACKAGE_VERSION ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
if(NOT CPACK_PACKAGE_VERSION STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/changelog is about ${CPACK_PACKAGE_VERSION}, not ${PROJECT_VERSION}")
endif()
string(REGEX REPLACE "^ -- (.*>)  .*" "\\1" CPACK_DEBIAN_PACKAGE_MAINTAINER "${signature}")

set(documents ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${documents})
execute_process(COMMAND ${ZYM_GZIP} -9nc ${changelog} OUTPUT_FILE ${documents}/changelog.Debian.gz)
execute_process(COMMAND ${ZYM_GZIP} -9nc ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  OUTPUT_FILE ${documents}/changelog.gz)

set(CPACK_COMPONENTS_ALL)
set(add_depends_calls)

# zym_package(NAME folder component SECTION s [DEPENDS d...] [SHLIBS line] DESCRIPTION text): the
# package made of what a component installs out of a folder of the build tree. What binaries need
# is added when the packages are made.
macro(zym_package package folder component)
  cmake_parse_arguments(arg "" "SECTION;SHLIBS;DESCRIPTION" "DEPENDS" ${ARGN})
  list(APPEND CPACK_COMPONENTS_ALL ${package})
  install(CODE
    "set(CMAKE_INSTALL_COMPONENT ${component})
     include(\"${PROJECT_BINARY_DIR}/${folder}/cmake_install.cmake\")
     set(CMAKE_INSTALL_COMPONENT ${package})"
    COMPONENT ${package} EXCLUDE_FROM_ALL)
  install(FILES ${documents}/changelog.Debian.gz ${documents}/changelog.gz
      ${PROJECT_SOURCE_DIR}/packaging/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${package} EXCLUDE_FROM_ALL)

  string(TOUPPER ${package} PACKAGE)
  list(JOIN arg_DEPENDS ", " depends)
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_SECTION ${arg_SECTION})
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${PACKAGE}_DESCRIPTION "${arg_DESCRIPTION}")
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_MULTIARCH same)
  if("${component}" STREQUAL "runtime")
    file(WRITE ${documents}/${package}/shlibs "${arg_SHLIBS}\n")
    set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_CONTROL_EXTRA
      ${documents}/${package}/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers)
  elseif("${component}" STREQUAL "tools")
    set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_MULTIARCH foreign)
  endif()
endmacro()

set(here "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(ZYM_MQTT_VO_COMMON_PACKAGE "libzym-vo-common0 (>= ${PROJECT_VERSION})" CACHE STRING
  "The Debian package that brings libzym-vo-common.so.0, with a version")
set(ZYM_MQTT_VO_COMMON_DEV_PACKAGE libzym-vo-common-dev CACHE STRING
  "The Debian package that brings the headers of zym-vo-common")
set(ZYM_MQTT_TARGET_DPKG "" CACHE PATH
  "When compiling for another machine: the dpkg database of the packages in CMAKE_SYSROOT")
# The SONAME promises what a program was linked against: scripts/check abi watches over it.
set(vo_common_shlibs "libzym-vo-common 0 ${ZYM_MQTT_VO_COMMON_PACKAGE}")
set(mqtt_shlibs "libzym-mqtt 0 libzym-mqtt0 (>= ${PROJECT_VERSION})")
# The layout of the class that we derive from is that of 2.0, whatever the SONAME says.
set(broker_library "libmosquittopp1 (>= 2.0)" "libmosquittopp1 (<< 2.1)")
set(broker_headers "libmosquittopp-dev (>= 2.0)" "libmosquittopp-dev (<< 2.1)" libmosquitto-dev)

if(TARGET zym-vo-common)
  string(APPEND add_depends_calls "add_depends(libzym-vo-common0 \"$<TARGET_FILE:zym-vo-common>\")\n")
  zym_package(libzym-vo-common0 platform runtime SECTION libs SHLIBS "${vo_common_shlibs}"
    DESCRIPTION "common library of a device platform, stand-in
Identifiers, timers, a JSON writer and reader, the interfaces of binders and
time bases, and value types, for the processes of an embedded device.

A device platform brings a library of its own in the place of this one, which
serves every machine that is no device.")
  zym_package(libzym-vo-common-dev platform development SECTION libdevel
    DEPENDS "libzym-vo-common0 (= ${here})"
    DESCRIPTION "common library of a device platform, stand-in (development files)
Identifiers, timers, a JSON writer and reader, the interfaces of binders and
time bases, and value types, for the processes of an embedded device.

This package holds the headers and what CMake and pkg-config need.")
endif()
string(APPEND add_depends_calls "add_depends(libzym-mqtt0 \"$<TARGET_FILE:zym-mqtt>\")\n")
zym_package(libzym-mqtt0 src runtime SECTION libs SHLIBS "${mqtt_shlibs}"
  DEPENDS ${broker_library}
  DESCRIPTION "typed messaging over an MQTT broker
Gives the processes of an embedded Linux device typed, topic-based messaging:
a connection that comes back by itself and loses nothing meanwhile, values as
JSON documents, and remote calls.")
zym_package(libzym-mqtt-dev src development SECTION libdevel
  DEPENDS "libzym-mqtt0 (= ${here})" "${ZYM_MQTT_VO_COMMON_DEV_PACKAGE}" ${broker_headers}
  DESCRIPTION "typed messaging over an MQTT broker (development files)
Gives the processes of an embedded Linux device typed, topic-based messaging:
a connection that comes back by itself and loses nothing meanwhile, values as
JSON documents, and remote calls.

This package holds the headers, what CMake and pkg-config need, and examples.")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libzym-mqtt-dev/examples
  COMPONENT libzym-mqtt-dev EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.[ch]pp")
if(ZYM_MQTT_BUILD_EXAMPLES)
  string(APPEND add_depends_calls "add_depends(zym-mqtt-tools \"$<TARGET_FILE:device>\"
  \"$<TARGET_FILE:panel>\" \"$<TARGET_FILE:publisher>\" \"$<TARGET_FILE:subscriber>\")\n")
  zym_package(zym-mqtt-tools examples tools SECTION net
    DESCRIPTION "typed messaging over an MQTT broker (trial programs)
Four small programs that show, on a device, whether libzym-mqtt and the broker
work together: a publisher with a subscriber, and a device with a panel that
reads its values and calls its service. They are in /usr/libexec/zym-mqtt.")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zym-mqtt)
set(CPACK_PACKAGE_CONTACT "${CPACK_DEBIAN_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SOURCE zym-mqtt)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # or it would become the first line of each

set(CPACK_PROJECT_CONFIG_FILE ${documents}/depends.cmake)
configure_file(${PROJECT_SOURCE_DIR}/cmake/ZymPackageDepends.cmake.in
  ${documents}/depends.cmake.in @ONLY)
file(GENERATE OUTPUT ${documents}/depends.cmake INPUT ${documents}/depends.cmake.in)
include(CPack)
