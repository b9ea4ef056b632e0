# Compile settings shared by every target of the project.

# Warnings are errors in project code (never applied to third-party code).
add_library(pavo_warnings INTERFACE)
target_compile_options(pavo_warnings INTERFACE -Wall -Wextra -Werror)

# Include paths of the library's own sources: the public headers, the
# platform headers and the source root (internal headers are included as
# "ipc/frame.h", "log/module_table.h", ...).
add_library(pavo_internal INTERFACE)
target_include_directories(pavo_internal INTERFACE
  ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/include)

# Sanitizers apply to the whole build, tests and stand-ins included, so that
# every object shares one runtime.
if(PAVO_SANITIZE)
  string(REPLACE "," ";" _pavo_sanitizers "${PAVO_SANITIZE}")
  foreach(_s IN LISTS _pavo_sanitizers)
    if(NOT _s MATCHES "^(address|undefined|thread|leak)$")
      message(FATAL_ERROR "PAVO_SANITIZE: unknown sanitizer '${_s}'")
    endif()
  endforeach()
  add_compile_options(-fsanitize=${PAVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${PAVO_SANITIZE})
endif()

# pavo_add_subsystem(<name> <sources>...)
# One subsystem folder as an object library; its objects end up in the
# shared product and in the static archive used by the white-box tests.
function(pavo_add_subsystem name)
  add_library(${name} OBJECT ${ARGN})
  set_target_properties(${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    C_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(${name} PRIVATE
    pavo_internal pavo_warnings pavo::platform JsonCpp::JsonCpp Threads::Threads)
  set_property(GLOBAL APPEND PROPERTY PAVO_SUBSYSTEM_TARGETS ${name})
endfunction()
