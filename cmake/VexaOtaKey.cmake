# SPDX-License-Identifier: MIT
# The key that the daemon shares with the remote's firmware (RcuOtaUpdater::AES_KEY), a secret of the product.
# It is read from a file outside the source tree and written to one generated source that only its owner can
# read. No message, cache entry or command line may ever contain it: keep it out of every message() and -D
# below.

# Bytes 00 to 1f. Published, so it protects nothing; only for development and tests.
set(VEXA_OTA_DEVELOPMENT_KEY 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f)

# Reads FILE, 64 hexadecimal digits in either case, optionally with blanks and newlines around them, and
# stores the digits, in lower case, in the variable named OUT. Anything else is an error, which names the file
# but never its content.
function(vexa_read_ota_key file out)
  if(NOT EXISTS "${file}") # also false for a file that can't be read
    message(FATAL_ERROR "Over-the-air key: ${file} doesn't exist or can't be read. VEXA_OTA_KEY_FILE must "
      "name a file that holds 64 hexadecimal digits.")
  endif()
  if(IS_DIRECTORY "${file}")
    message(FATAL_ERROR "Over-the-air key: ${file} is a folder. VEXA_OTA_KEY_FILE must name a file "
      "that holds 64 hexadecimal digits.")
  endif()
  # Leaves room for blanks and limits what is read from a wrong file.
  file(READ "${file}" content LIMIT 1024)
  string(STRIP "${content}" digits)
  string(LENGTH "${digits}" length)
  if(NOT length EQUAL 64)
    message(FATAL_ERROR "Over-the-air key: ${file} has the wrong length, ${length} characters without the "
      "surrounding blanks. A key is 64 hexadecimal digits.")
  endif()
  if(NOT digits MATCHES "^[0-9A-Fa-f]+$")
    message(FATAL_ERROR "Over-the-air key: ${file} holds a character that isn't a hexadecimal digit. "
      "A key is 64 digits from 0 to 9 and a to f.")
  endif()
  string(TOLOWER "${digits}" digits)
  set(${out} "${digits}" PARENT_SCOPE)
endfunction()

# Writes TEXT to FILE, which only its owner can read from the first byte on. A file that already has this
# content is left untouched, so that nothing is rebuilt.
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

# Chooses the key and writes the source that defines it. KEY_FILE may be empty, which selects the development
# key. REQUIRE_OWN refuses that key, even if a key file contains it.
function(vexa_generate_ota_key keyFile requireOwn source)
  if(NOT keyFile STREQUAL "")
    vexa_read_ota_key("${keyFile}" digits)
  elseif(requireOwn)
    message(FATAL_ERROR "Over-the-air key: this build needs the product's own key (VEXA_REQUIRE_OTA_KEY). "
      "Set VEXA_OTA_KEY_FILE to a file that holds the key as 64 hexadecimal digits.")
  else()
    set(digits "${VEXA_OTA_DEVELOPMENT_KEY}")
  endif()

  if(NOT digits STREQUAL VEXA_OTA_DEVELOPMENT_KEY)
    message(STATUS "Over-the-air key: from ${keyFile}")
  elseif(requireOwn)
    message(FATAL_ERROR "Over-the-air key: ${keyFile} holds the published development key, which this "
      "build refuses (VEXA_REQUIRE_OTA_KEY).")
  else()
    message(NOTICE "Over-the-air key: the PUBLISHED DEVELOPMENT KEY. Use it only for tests and "
      "the simulator. For a product, set VEXA_OTA_KEY_FILE to a file that holds its own key as 64 "
      "hexadecimal digits.")
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

# Makes the compiled and linked files of these targets readable only by their owner, from the first byte on:
# each contains the key.
function(vexa_keep_private)
  set(launcher "\"${CMAKE_CURRENT_FUNCTION_LIST_DIR}/privately\"")
  set_target_properties(${ARGN} PROPERTIES
    RULE_LAUNCH_COMPILE "${launcher}"
    RULE_LAUNCH_LINK "${launcher}")
endfunction()

# Adds the object library TARGET that defines the key, as selected by the options.
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
  # A compiler cache would keep a copy of the key in the user's home folder.
  set_target_properties(${target} PROPERTIES CXX_COMPILER_LAUNCHER "")
  vexa_keep_private(${target})
endfunction()
