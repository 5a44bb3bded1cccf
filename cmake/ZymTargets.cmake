# What every target of this project has in common. Flags stay private: nothing
# here reaches the projects that link our libraries.

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
    # Threads that count past each other leave counts that mean nothing, even negative ones.
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()
