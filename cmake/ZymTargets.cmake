# zym_configure(TARGET): the compiler options of every target of this project. All are private: none
# reaches a project that links our libraries.

function(zym_configure target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wcast-qual)
  if(ZYM_MQTT_STRICT)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(ZYM_MQTT_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${ZYM_MQTT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${ZYM_MQTT_SANITIZE})
  endif()
  if(ZYM_MQTT_COVERAGE)
    # Without atomic updates, counts of several threads overwrite each other and may become negative.
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

# ThreadSanitizer fails to start where the kernel spreads a program's addresses over too large a range.
# So each test runs with address randomisation off. Containers that forbid this run it as it is.
if(ZYM_MQTT_SANITIZE MATCHES "thread" AND NOT CMAKE_CROSSCOMPILING)
  find_program(ZYM_SETARCH setarch)
  execute_process(COMMAND ${ZYM_SETARCH} -R true RESULT_VARIABLE zym_setarch_result OUTPUT_QUIET ERROR_QUIET)
  if(zym_setarch_result EQUAL 0)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ZYM_SETARCH} -R) # ctest puts it before each test's command
  endif()
endif()
