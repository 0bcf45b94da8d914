# SPDX-License-Identifier: MIT
# The key that the daemon shares with the remote's firmware (RcuOtaUpdater::AES_KEY),
# a secret of the product. It comes from a file outside the source tree and goes
# into one generated source that only its owner can read. No message, cache entry
# or command line ever holds it: keep it out of every message() and -D below.

# Bytes 00 to 1f. Published, so it protects nothing: for development and tests.
set(VEXA_OTA_DEVELOPMENT_KEY 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f)

# Reads FILE, 64 hexadecimal digits in either case with blanks and newlines around
# them, and stores the digits, in lower case, in the variable named OUT. Anything
# else stops with an error that names the file and never what it holds.
function(vexa_read_ota_key file out)
  if(NOT EXISTS "${file}") # which is false too for a file that can't be read
    message(FATAL_ERROR "Over-the-air key: ${file} doesn't exist or can't be read. VEXA_OTA_KEY_FILE must "
      "name a file that holds 64 hexadecimal digits.")
  endif()
  if(IS_DIRECTORY "${file}")
    message(FATAL_ERROR "Over-the-air key: ${file} is a folder. VEXA_OTA_KEY_FILE must name a file "
      "that holds 64 hexadecimal digits.")
  endif()
  # Room for blanks, and an end to reading a wrong file of any size.
  file(READ "${file}" content LIMIT 1024)
  string(STRIP "${content}" digits)
  string(LENGTH "${digits}" length)
  if(NOT length EQUAL 64)
    message(FATAL_ERROR "Over-the-air key: ${file} has the wrong length, ${length} characters between its "
      "blanks. A key is 64 hexadecimal digits.")
  endif()
  if(NOT digits MATCHES "^[0-9A-Fa-f]+$")
    message(FATAL_ERROR "Over-the-air key: ${file} holds a character that isn't a hexadecimal digit. "
      "A key is 64 of 0 to 9 and a to f.")
  endif()
  string(TOLOWER "${digits}" digits)
  set(${out} "${digits}" PARENT_SCOPE)
endfunction()

# Writes TEXT into FILE, readable by its owner alone from the first byte on, and
# leaves a file that already says so untouched, so that nothing is built again.
function(vexa_write_secret file text)
  if(EXISTS "${file}")
    file(READ "${file}" present)
    if(present STREQUAL text)
      file(CHMOD "${file}" PERMISSIONS OWNER_READ OWNER_WRITE)
      return()
    endif()
  endif()
  file(TOUCH "${file}")
  file(CHMOD "${file}" PERMISSIONS OWNER_READ OWNER_WRITE)
  file(WRITE "${file}" "${text}")
endfunction()

# Chooses the key and writes the source that defines it. KEY_FILE may be empty:
# that is the development key, which REQUIRE_OWN refuses, by a file of its own too.
function(vexa_generate_ota_key keyFile requireOwn source)
  if(NOT keyFile STREQUAL "")
    vexa_read_ota_key("${keyFile}" digits)
  elseif(requireOwn)
    message(FATAL_ERROR "Over-the-air key: this build needs the product's own (VEXA_REQUIRE_OTA_KEY). "
      "Set VEXA_OTA_KEY_FILE to a file that holds it as 64 hexadecimal digits.")
  else()
    set(digits "${VEXA_OTA_DEVELOPMENT_KEY}")
  endif()

  if(NOT digits STREQUAL VEXA_OTA_DEVELOPMENT_KEY)
    message(STATUS "Over-the-air key: from ${keyFile}")
  elseif(requireOwn)
    message(FATAL_ERROR "Over-the-air key: ${keyFile} holds the published development key, which this "
      "build refuses (VEXA_REQUIRE_OTA_KEY).")
  else()
    message(NOTICE "Over-the-air key: the PUBLISHED DEVELOPMENT KEY. Fit for tests and the simulator; a "
      "product sets VEXA_OTA_KEY_FILE to a file that holds its own as 64 hexadecimal digits.")
  endif()

  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1, " bytes "${digits}")
  vexa_write_secret("${source}"
"// Made from the over-the-air key at configure time. A secret: don't share it.
// NOLINTBEGIN
#include \"RcuOtaUpdater.h\"

const std::array<unsigned char, 32> RcuOtaUpdater::AES_KEY = {${bytes}};
// NOLINTEND
")
endfunction()

# Nobody but its owner may read what is compiled or linked into these targets,
# from the first byte on: each holds the key.
function(vexa_keep_private)
  set(launcher "\"${CMAKE_CURRENT_FUNCTION_LIST_DIR}/privately\"")
  set_target_properties(${ARGN} PROPERTIES
    RULE_LAUNCH_COMPILE "${launcher}"
    RULE_LAUNCH_LINK "${launcher}")
endfunction()

# Adds the object library TARGET that defines the key, as the options say.
function(vexa_add_ota_key_library target)
  set(VEXA_OTA_KEY_FILE "" CACHE FILEPATH
    "File with the over-the-air key, 64 hexadecimal digits; empty for the published development key")
  option(VEXA_REQUIRE_OTA_KEY "Refuse to configure without an over-the-air key of the product's own" OFF)

  set(folder "${CMAKE_CURRENT_BINARY_DIR}/otakey")
  file(MAKE_DIRECTORY "${folder}")
  file(CHMOD "${folder}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  set(source "${folder}/OtaKey.cpp")
  vexa_generate_ota_key("${VEXA_OTA_KEY_FILE}" "${VEXA_REQUIRE_OTA_KEY}" "${source}")
  if(NOT VEXA_OTA_KEY_FILE STREQUAL "")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${VEXA_OTA_KEY_FILE}")
  endif()

  add_library(${target} OBJECT "${source}")
  # A compiler cache would keep a copy of the key in somebody's home.
  set_target_properties(${target} PROPERTIES CXX_COMPILER_LAUNCHER "")
  vexa_keep_private(${target})
endfunction()
