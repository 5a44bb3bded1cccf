# Finds the broker library in the versions that we can stand on: 2.0.x. The next minor version
# keeps the SONAME and changes the layout of the class that we derive from.
#
# Installed beside our package configuration, which uses it as well. Works without pkg-config, so
# with nothing but a sysroot. Defines the targets Mosquitto::mosquittopp and Mosquitto::mosquitto.

find_path(MOSQUITTOPP_INCLUDE_DIR mosquittopp.h DOC "Where mosquittopp.h is")
find_path(MOSQUITTO_INCLUDE_DIR mosquitto.h DOC "Where mosquitto.h is")
find_library(MOSQUITTOPP_LIBRARY mosquittopp DOC "libmosquittopp")
find_library(MOSQUITTO_LIBRARY mosquitto DOC "libmosquitto")
mark_as_advanced(MOSQUITTOPP_INCLUDE_DIR MOSQUITTO_INCLUDE_DIR MOSQUITTOPP_LIBRARY MOSQUITTO_LIBRARY)

set(Mosquittopp_VERSION)
if(MOSQUITTO_INCLUDE_DIR)
  file(STRINGS "${MOSQUITTO_INCLUDE_DIR}/mosquitto.h" Mosquittopp_numbers
    REGEX "^#define LIBMOSQUITTO_(MAJOR|MINOR|REVISION) +[0-9]+")
  string(REGEX REPLACE "[^0-9;]" "" Mosquittopp_numbers "${Mosquittopp_numbers}")
  list(JOIN Mosquittopp_numbers "." Mosquittopp_VERSION)
  unset(Mosquittopp_numbers)
  if(NOT Mosquittopp_VERSION)
    set(Mosquittopp_VERSION "unknown") # later versions keep it elsewhere
  endif()
endif()

set(Mosquittopp_supported OFF)
if(Mosquittopp_VERSION MATCHES "^2\\.0\\.")
  set(Mosquittopp_supported ON)
  set(Mosquittopp_complaint "a library is missing")
elseif(Mosquittopp_VERSION)
  set(Mosquittopp_complaint "libzym-mqtt needs libmosquittopp 2.0.x, but the version in ${MOSQUITTO_INCLUDE_DIR} is ${Mosquittopp_VERSION}, whose class layout is another")
else()
  set(Mosquittopp_complaint "please install libmosquittopp 2.0.x (Debian package libmosquittopp-dev)")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Mosquittopp
  REQUIRED_VARS MOSQUITTOPP_LIBRARY MOSQUITTO_LIBRARY MOSQUITTOPP_INCLUDE_DIR MOSQUITTO_INCLUDE_DIR
    Mosquittopp_supported
  REASON_FAILURE_MESSAGE "${Mosquittopp_complaint}")

if(Mosquittopp_FOUND AND NOT TARGET Mosquitto::mosquitto)
  add_library(Mosquitto::mosquitto UNKNOWN IMPORTED)
  set_target_properties(Mosquitto::mosquitto PROPERTIES
    IMPORTED_LOCATION "${MOSQUITTO_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${MOSQUITTO_INCLUDE_DIR}")
endif()
if(Mosquittopp_FOUND AND NOT TARGET Mosquitto::mosquittopp)
  # Its header includes that of the other.
  add_library(Mosquitto::mosquittopp UNKNOWN IMPORTED)
  set_target_properties(Mosquitto::mosquittopp PROPERTIES
    IMPORTED_LOCATION "${MOSQUITTOPP_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${MOSQUITTOPP_INCLUDE_DIR};${MOSQUITTO_INCLUDE_DIR}")
endif()
unset(Mosquittopp_supported)
unset(Mosquittopp_complaint)
