# Our own targets are built with every warning as an error; third-party code is not.
function(vantrell_strict target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# One static library per subsystem: vantrell_library(engine SOURCES ... DEPENDS core)
function(vantrell_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
  vantrell_strict(${name})
endfunction()
