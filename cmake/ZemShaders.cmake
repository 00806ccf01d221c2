# SPDX-License-Identifier: Apache-2.0
# Compute shaders, compiled when the project is built and embedded as words.

find_program(GLSLC glslc REQUIRED)
mark_as_advanced(GLSLC)

# zem_compile_shader(OUTPUT SOURCE [DEFINES NAME=VALUE ...]): OUTPUT becomes a
# brace-enclosed list of the SPIR-V words of SOURCE, to be included as the
# initialiser of an array. What SOURCE includes lies in the shaders' folder include.
function(zem_compile_shader output source)
  cmake_parse_arguments(arg "" "" "DEFINES" ${ARGN})
  list(TRANSFORM arg_DEFINES PREPEND "-D")
  cmake_path(GET output FILENAME name)
  cmake_path(ABSOLUTE_PATH source)
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${GLSLC} --target-env=vulkan1.2 -O -Werror -fshader-stage=compute
      -I ${PROJECT_SOURCE_DIR}/src/kiv/vulkan/shaders/include ${arg_DEFINES}
      -MD -MF ${output}.d -mfmt=c -o ${output} ${source}
    DEPENDS ${source}
    DEPFILE ${output}.d
    COMMENT "Compiling shader ${name}"
    VERBATIM)
endfunction()
