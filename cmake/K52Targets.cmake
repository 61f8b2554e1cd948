# Helpers for the project's own targets: their warnings, and the include layering CMake checks.

option(K52_WERROR "Treat warnings of the project's own targets as errors (CI)" OFF)

# Our code is held to -Wshadow and -Wconversion on top of -Wall -Wextra; CI makes them errors.
function(k52_warnings target)
  target_compile_options(${target} PRIVATE -Wshadow -Wconversion)
  if(K52_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Fails the configuration when a file of `target` includes a module it does not declare.
# A module is the first two path components of an include under src/ ("utils/io", "core/route"
# counts as "core"): k52_layering(TARGET t DIRS src/utils/io ALLOWED utils/base utils/platform).
function(k52_layering)
  cmake_parse_arguments(L "" "TARGET" "DIRS;ALLOWED" ${ARGN})
  foreach(dir ${L_DIRS})
    file(GLOB files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${dir}/*.h ${CMAKE_SOURCE_DIR}/${dir}/*.cpp)
    string(REGEX REPLACE "^src/" "" self "${dir}")
    foreach(file ${files})
      file(STRINGS ${file} includes REGEX "^#include \"[a-z0-9_]+/")
      foreach(line ${includes})
        string(REGEX MATCH "\"([a-z0-9_]+)/([a-z0-9_]+)/" _ "${line}")
        if(CMAKE_MATCH_1 STREQUAL "utils" AND CMAKE_MATCH_2)
          set(module "utils/${CMAKE_MATCH_2}")
        else()
          string(REGEX MATCH "\"([a-z0-9_]+)/" _ "${line}")
          set(module "${CMAKE_MATCH_1}")
        endif()
        string(FIND "${self}" "${module}" at)
        if(NOT at EQUAL 0 AND NOT module IN_LIST L_ALLOWED AND NOT module STREQUAL "support")
          file(RELATIVE_PATH shown ${CMAKE_SOURCE_DIR} ${file})
          message(FATAL_ERROR "${shown} includes ${module}, which ${L_TARGET} does not depend on")
        endif()
      endforeach()
    endforeach()
  endforeach()
endfunction()
