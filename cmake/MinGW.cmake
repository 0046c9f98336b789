# CMake toolchain file: programs and libraries for 64-bit Windows, built on Linux with MinGW-w64 and run under Wine.
# Dependencies are searched only in TOL_WINDOWS_LIBRARIES, which scripts/fetch-windows-libraries fills.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

# The variants with POSIX threads have std::thread and std::mutex.
set(prefix x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${prefix}-gcc-posix)
set(CMAKE_CXX_COMPILER ${prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${prefix}-windres)

# Windows 10. ONNX Runtime's header uses names that only Microsoft's compiler defines: of the header sal.h, and _stdcall.
set(CMAKE_C_FLAGS_INIT "-D_WIN32_WINNT=0x0A00")
set(CMAKE_CXX_FLAGS_INIT "-D_WIN32_WINNT=0x0A00 -include sal.h -D_stdcall=__stdcall")

set(TOL_WINDOWS_LIBRARIES "${CMAKE_CURRENT_LIST_DIR}/../.deps/windows" CACHE PATH "Dependencies for Windows")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TOL_WINDOWS_LIBRARIES)
set(CMAKE_FIND_ROOT_PATH "${TOL_WINDOWS_LIBRARIES}" /usr/${prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(WINE NAMES wine64 wine PATHS /usr/lib/wine REQUIRED)  # the wrapper "wine" prints hints about 32 bits
mark_as_advanced(WINE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${WINE}")
