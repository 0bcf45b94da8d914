# SPDX-License-Identifier: MIT
# How every target of the project is compiled and linked.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Position-independent executables need the linker's flag as well as the compiler's.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

get_property(isMultiConfig GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
if(NOT CMAKE_BUILD_TYPE AND NOT isMultiConfig)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug or Release" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2")

add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2
  # No path of the build machine may get into the binary or its log.
  "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/="
  "-ffile-prefix-map=${CMAKE_BINARY_DIR}/=build/")

# Hardening for release builds. The sanitizers have their own checks, which _FORTIFY_SOURCE would bypass.
add_compile_options(
  $<$<CONFIG:Release>:-fstack-protector-strong>
  $<$<CONFIG:Release>:-U_FORTIFY_SOURCE>
  $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
add_link_options(
  $<$<CONFIG:Release>:LINKER:-z,relro>
  $<$<CONFIG:Release>:LINKER:-z,now>)

set(VEXA_SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize=; empty for none")
if(VEXA_SANITIZE)
  add_compile_options("-fsanitize=${VEXA_SANITIZE}" -fno-omit-frame-pointer)
  add_link_options("-fsanitize=${VEXA_SANITIZE}")
  if(VEXA_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
