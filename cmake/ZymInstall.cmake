# What is installed. Four components: `runtime`, what a program needs to run; `development`, what
# building a program needs; `test`, what building its tests needs; `tools`, zymctl and programs to
# try an installation with.

include(CMakePackageConfigHelpers)

# zym_install_library(TARGET [COMPONENT name] HEADERS folder... [EXTRA file...]): installs the library,
# its headers and its files for find_package and pkg-config, in the component `development` unless
# another one is named.
function(zym_install_library target)
  if(NOT ZYM_MQTT_INSTALL)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "COMPONENT" "HEADERS;EXTRA")
  if(NOT arg_COMPONENT)
    set(arg_COMPONENT development)
  endif()
  set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
  zym_describe_library(${target} ${cmake_dir})

  install(TARGETS ${target} EXPORT ${target}-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT ${arg_COMPONENT}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${arg_COMPONENT})
  install(DIRECTORY ${arg_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${arg_COMPONENT}
    FILES_MATCHING PATTERN "*.hpp")
  install(EXPORT ${target}-targets NAMESPACE zym:: DESTINATION ${cmake_dir} COMPONENT ${arg_COMPONENT})
  install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/${target}-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/${target}-config-version.cmake
    ${arg_EXTRA}
    DESTINATION ${cmake_dir} COMPONENT ${arg_COMPONENT})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${arg_COMPONENT})
endfunction()

# zym_relative_path(VARIABLE from to): the path from one folder of the installed tree to another.
function(zym_relative_path variable from to)
  file(RELATIVE_PATH path /prefix/${from} /prefix/${to}) # needs absolute paths; any prefix does
  string(REGEX REPLACE "/$" "" path "${path}")
  set(${variable} "${path}" PARENT_SCOPE)
endfunction()

# Makes the files for find_package and pkg-config. None contains the folder of the installation: the
# installed tree may be staged, moved, or put into a sysroot.
function(zym_describe_library target cmake_dir)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/${target}-config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/${target}-config.cmake
    INSTALL_DESTINATION ${cmake_dir}
    NO_SET_AND_CHECK_MACRO)
  # Before 1.0.0 a minor version may change the interface.
  set(compatible SameMajorVersion)
  if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatible SameMinorVersion)
  endif()
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${target}-config-version.cmake
    COMPATIBILITY ${compatible})

  zym_relative_path(ZYM_PC_PREFIX ${CMAKE_INSTALL_LIBDIR}/pkgconfig "")
  string(REGEX MATCH "^([0-9]+)\\.([0-9]+)$" minor_version "${Mosquittopp_MINOR_VERSION}")
  math(EXPR next "${CMAKE_MATCH_2} + 1")
  set(ZYM_NEXT_MOSQUITTOPP ${CMAKE_MATCH_1}.${next})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${target}.pc.in
    ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc @ONLY)
endfunction()

# zym_install_tools(target...): programs in a folder outside PATH, because their names are too general
# for a folder in PATH.
function(zym_install_tools)
  if(NOT ZYM_MQTT_INSTALL)
    return()
  endif()
  set(folder ${CMAKE_INSTALL_LIBEXECDIR}/zym-mqtt)
  zym_relative_path(to_libraries ${folder} ${CMAKE_INSTALL_LIBDIR})
  set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
  install(TARGETS ${ARGN} RUNTIME DESTINATION ${folder} COMPONENT tools)
endfunction()

# zym_install_command(TARGET MANUAL page COMPLETION file): a program in PATH, its manual page and what
# bash completes.
function(zym_install_command target)
  if(NOT ZYM_MQTT_INSTALL)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "MANUAL;COMPLETION" "")
  zym_relative_path(to_libraries ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES ${arg_MANUAL} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${arg_COMPLETION} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME ${target} COMPONENT tools)
endfunction()
