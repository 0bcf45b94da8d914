# SPDX-License-Identifier: MIT
# Decides whether the simulator, the tools and the tests are built.

find_package(GTest QUIET)
find_package(CLI11 QUIET)
find_package(OpenSSL QUIET)

if(GTest_FOUND AND CLI11_FOUND AND OpenSSL_FOUND AND NOT CMAKE_CROSSCOMPILING)
  set(developmentPossible ON)
else()
  set(developmentPossible OFF)
endif()

option(VEXA_DEVELOPMENT "Build the simulator, the tools and the tests" ${developmentPossible})

if(VEXA_DEVELOPMENT)
  # Explicitly enabled: fail with the name of the missing package.
  find_package(GTest REQUIRED)
  find_package(CLI11 REQUIRED)
  find_package(OpenSSL REQUIRED)
else()
  message(STATUS "Building only the daemon: the simulator and the tests need GoogleTest, CLI11 and "
    "OpenSSL (Debian: libgtest-dev libgmock-dev libcli11-dev libssl-dev)")
endif()
