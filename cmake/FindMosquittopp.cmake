# Finds the supported versions of the broker library: 2.0.x and 2.1.x. All have the same SONAME, but each
# minor version has another layout of the class that mqtt::MqttClient derives from.
#
# It sets Mosquittopp_VERSION, as 2.0.11, and Mosquittopp_MINOR_VERSION, as 2.0. Version 2.1.2 reports
# itself as 2.1.0.
#
# This file is installed beside zym-mqtt-config.cmake, which uses it. It needs no pkg-config, so it
# works with a bare sysroot. It defines the targets Mosquitto::mosquittopp and Mosquitto::mosquitto.

find_path(MOSQUITTOPP_INCLUDE_DIR mosquittopp.h DOC "Where mosquittopp.h is")
find_path(MOSQUITTO_INCLUDE_DIR mosquitto.h DOC "Where mosquitto.h is")
find_library(MOSQUITTOPP_LIBRARY mosquittopp DOC "libmosquittopp")
find_library(MOSQUITTO_LIBRARY mosquitto DOC "libmosquitto")
mark_as_advanced(MOSQUITTOPP_INCLUDE_DIR MOSQUITTO_INCLUDE_DIR MOSQUITTOPP_LIBRARY MOSQUITTO_LIBRARY)

set(Mosquittopp_VERSION)
set(Mosquittopp_MINOR_VERSION)
if(MOSQUITTO_INCLUDE_DIR)
  foreach(header IN ITEMS mosquitto.h mosquitto/libmosquitto.h) # of 2.0; of 2.1
    if(NOT Mosquittopp_VERSION AND EXISTS "${MOSQUITTO_INCLUDE_DIR}/${header}")
      file(STRINGS "${MOSQUITTO_INCLUDE_DIR}/${header}" Mosquittopp_numbers
        REGEX "^#define LIBMOSQUITTO_(MAJOR|MINOR|REVISION) +[0-9]+")
      string(REGEX REPLACE "[^0-9;]" "" Mosquittopp_numbers "${Mosquittopp_numbers}")
      list(JOIN Mosquittopp_numbers "." Mosquittopp_VERSION)
      unset(Mosquittopp_numbers)
    endif()
  endforeach()
  if(NOT Mosquittopp_VERSION)
    set(Mosquittopp_VERSION "unknown") # a later version may define these numbers elsewhere
  endif()
  string(REGEX MATCH "^[0-9]+\\.[0-9]+" Mosquittopp_MINOR_VERSION "${Mosquittopp_VERSION}")
endif()

set(Mosquittopp_supported OFF)
if(Mosquittopp_MINOR_VERSION MATCHES "^2\\.[01]$")
  set(Mosquittopp_supported ON)
  set(Mosquittopp_failure "a library is missing")
elseif(Mosquittopp_VERSION)
  set(Mosquittopp_failure "libzym-mqtt needs libmosquittopp 2.0.x or 2.1.x, but the version in ${MOSQUITTO_INCLUDE_DIR} is ${Mosquittopp_VERSION}, whose class layout is another")
else()
  set(Mosquittopp_failure "please install libmosquittopp 2.0.x or 2.1.x (Debian package libmosquittopp-dev)")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Mosquittopp
  REQUIRED_VARS MOSQUITTOPP_LIBRARY MOSQUITTO_LIBRARY MOSQUITTOPP_INCLUDE_DIR MOSQUITTO_INCLUDE_DIR
    Mosquittopp_supported
  REASON_FAILURE_MESSAGE "${Mosquittopp_failure}")

if(Mosquittopp_FOUND AND NOT TARGET Mosquitto::mosquitto)
  add_library(Mosquitto::mosquitto UNKNOWN IMPORTED)
  set_target_properties(Mosquitto::mosquitto PROPERTIES
    IMPORTED_LOCATION "${MOSQUITTO_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${MOSQUITTO_INCLUDE_DIR}")
endif()
if(Mosquittopp_FOUND AND NOT TARGET Mosquitto::mosquittopp)
  # mosquittopp.h includes mosquitto.h.
  add_library(Mosquitto::mosquittopp UNKNOWN IMPORTED)
  set_target_properties(Mosquitto::mosquittopp PROPERTIES
    IMPORTED_LOCATION "${MOSQUITTOPP_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${MOSQUITTOPP_INCLUDE_DIR};${MOSQUITTO_INCLUDE_DIR}")
endif()
unset(Mosquittopp_supported)
unset(Mosquittopp_failure)
