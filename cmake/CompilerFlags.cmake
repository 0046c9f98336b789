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
