# Compiler and linker flags of every target. Sets TOL_WARNINGS, which each target of this project adds privately.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(WIN32)
  # Programs of the build tree and the libraries that they load share one folder.
  set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
  add_compile_definitions(NOMINMAX WIN32_LEAN_AND_MEAN GLOG_NO_ABBREVIATED_SEVERITIES)
endif()

if(MSVC)
  set(TOL_WARNINGS /W4)
  add_compile_options(/utf-8)
else()
  set(TOL_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(TOL_WARNINGS_AS_ERRORS)
    list(APPEND TOL_WARNINGS -Werror)
  endif()
endif()

# Exceptions leave the C-linkage entry points. With CMake's default, /EHsc, Microsoft's compiler assumes that they do not
# and may remove the handlers around the calls, so library and hosts are built with /EHs.
string(REPLACE "/EHsc" "" CMAKE_CXX_FLAGS "${CMAKE_CXX_FLAGS}")
set(TOL_EXCEPTION_FLAGS "$<$<CXX_COMPILER_ID:MSVC>:/EHs;/EHc->")

if(NOT MSVC)
  # Log lines and debug information contain paths relative to the root of the source tree, so that builds in different
  # folders are the same.
  add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
endif()

# Optimised builds for Linux are hardened: stack protector, checked buffer functions, markers of branch targets,
# position-independent programs, relocations that are read-only before the program starts, no executable stack.
# scripts/check-hardening checks this.
if(TOL_HARDENING AND CMAKE_SYSTEM_NAME STREQUAL "Linux" AND CMAKE_BUILD_TYPE STREQUAL "Release")
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    add_compile_options(-fcf-protection)
  endif()
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()

if(TOL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fsanitize=float-cast-overflow -fno-sanitize=vptr
                      -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(TOL_SANITIZE_THREADS)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()
if(TOL_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
if(TOL_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
