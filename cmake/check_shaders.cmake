# Compiles every composed GLSL text in TEXT_DIR with VALIDATOR (glslangValidator); fails on the
# first text it rejects. Texts that use GL_EXT_YUV_target (the target path's) are skipped: Debian
# 12's glslang does not know that extension, so only a driver that offers it can check them.
# Usage: cmake -DVALIDATOR=... -DTEXT_DIR=... -P check_shaders.cmake
cmake_minimum_required(VERSION 3.25)
file(GLOB texts "${TEXT_DIR}/*.vert" "${TEXT_DIR}/*.frag")
set(checked 0)
set(skipped 0)
foreach(path IN LISTS texts)
  file(READ "${path}" text)
  if(text MATCHES "GL_EXT_YUV_target")
    math(EXPR skipped "${skipped} + 1")
    continue()
  endif()
  execute_process(COMMAND "${VALIDATOR}" "${path}" RESULT_VARIABLE result OUTPUT_VARIABLE log ERROR_VARIABLE log)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${path} does not compile:\n${log}")
  endif()
  math(EXPR checked "${checked} + 1")
endforeach()
if(checked EQUAL 0)
  message(FATAL_ERROR "no GLSL texts in ${TEXT_DIR}")
endif()
message(STATUS "${checked} GLSL texts compile; ${skipped} need GL_EXT_YUV_target and were skipped")
