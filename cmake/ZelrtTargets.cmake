# How targets of this project are compiled.

# Applies what everything here has in common.
function(zelrt_configure target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS ON)
  # Frame pointers, in leaf functions too: stack walks follow them.
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -fno-omit-frame-pointer -mno-omit-leaf-frame-pointer
    $<$<BOOL:${ZELRT_WARNINGS_AS_ERRORS}>:-Werror>)
  if(ZELRT_DEBUG_CHECKS)
    target_compile_definitions(${target} PRIVATE ZELRT_DEBUG_CHECKS)
  endif()
  if(ZELRT_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${ZELRT_SANITIZE})
    target_link_options(${target} PUBLIC -fsanitize=${ZELRT_SANITIZE})
    if(ZELRT_SANITIZE MATCHES "undefined")
      target_compile_options(${target} PRIVATE -fno-sanitize-recover=undefined)
    endif()
  endif()
endfunction()

# Writes a version script that exports exactly the symbols which a text file lists, one a line.
function(zelrt_write_version_script)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "EXPORTS;NODE;OUTPUT" "")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${arg_EXPORTS})
  file(STRINGS ${arg_EXPORTS} symbols REGEX "^[^#]")
  list(JOIN symbols ";\n    " lines)
  file(CONFIGURE OUTPUT ${arg_OUTPUT} @ONLY NEWLINE_STYLE UNIX
    CONTENT "@arg_NODE@ {\n  global:\n    @lines@;\n  local:\n    *;\n};\n")
endfunction()
