# Finds ONNX Runtime and defines the imported target ONNXRuntime::ONNXRuntime. Search order:
#   1. ONNXRUNTIME_ROOT (variable or environment): an unpacked official archive (include/ and lib/), or the folder
#      site-packages/onnxruntime of the Python wheel, which has capi/libonnxruntime.so.* but no headers; then
#      ONNXRUNTIME_INCLUDE_DIR must name a folder with headers of the same or an older version.
#   2. .deps/onnxruntime, written by scripts/setup.
#   3. A CMake package: the official one, a distribution's or vcpkg's (target onnxruntime::onnxruntime). It comes first
#      if onnxruntime_DIR is set.
#   4. Headers and library in the system's folders.
set(ONNXRUNTIME_ROOT "$ENV{ONNXRUNTIME_ROOT}" CACHE PATH "Folder of ONNX Runtime: an unpacked archive or a wheel")
set(setup_folder "${PROJECT_SOURCE_DIR}/.deps/onnxruntime")
if(onnxruntime_DIR OR (NOT ONNXRUNTIME_ROOT AND NOT EXISTS "${setup_folder}"))
  find_package(onnxruntime CONFIG QUIET)
endif()
if(NOT TARGET onnxruntime::onnxruntime)
  set(hints ${ONNXRUNTIME_ROOT} "${setup_folder}")
  find_path(ONNXRUNTIME_INCLUDE_DIR onnxruntime_cxx_api.h HINTS ${hints}
    PATH_SUFFIXES include include/onnxruntime include/onnxruntime/core/session)
  # The file name in the wheel has the whole version; programs load the library by a name with the major version alone.
  file(GLOB wheel_library "${ONNXRUNTIME_ROOT}/capi/libonnxruntime.so.*")
  if(ONNXRUNTIME_ROOT AND wheel_library AND NOT ONNXRUNTIME_LIBRARY)
    list(GET wheel_library 0 wheel_library)
    string(REGEX REPLACE ".*/(libonnxruntime\\.so\\.[0-9]+).*" "\\1" name "${wheel_library}")
    file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/onnxruntime")
    file(CREATE_LINK "${wheel_library}" "${PROJECT_BINARY_DIR}/onnxruntime/${name}" SYMBOLIC)
    set(ONNXRUNTIME_LIBRARY "${PROJECT_BINARY_DIR}/onnxruntime/${name}" CACHE FILEPATH "Library of ONNX Runtime")
  endif()
  find_library(ONNXRUNTIME_LIBRARY onnxruntime HINTS ${hints} PATH_SUFFIXES lib)
endif()

include(FindPackageHandleStandardArgs)
if(TARGET onnxruntime::onnxruntime)
  find_package_handle_standard_args(ONNXRuntime REQUIRED_VARS onnxruntime_DIR)
else()
  find_package_handle_standard_args(ONNXRuntime REQUIRED_VARS ONNXRUNTIME_LIBRARY ONNXRUNTIME_INCLUDE_DIR)
endif()

if(ONNXRuntime_FOUND AND NOT TARGET ONNXRuntime::ONNXRuntime)
  if(TARGET onnxruntime::onnxruntime)
    add_library(ONNXRuntime::ONNXRuntime INTERFACE IMPORTED)
    target_link_libraries(ONNXRuntime::ONNXRuntime INTERFACE onnxruntime::onnxruntime)
  else()
    add_library(ONNXRuntime::ONNXRuntime SHARED IMPORTED)
    set_target_properties(ONNXRuntime::ONNXRuntime PROPERTIES
      IMPORTED_LOCATION "${ONNXRUNTIME_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${ONNXRUNTIME_INCLUDE_DIR}")
    if(WIN32)  # the archive has the import library and the DLL in one folder
      get_filename_component(folder "${ONNXRUNTIME_LIBRARY}" DIRECTORY)
      find_file(ONNXRUNTIME_DLL onnxruntime.dll HINTS "${folder}" "${folder}/../bin" REQUIRED NO_DEFAULT_PATH
        NO_CMAKE_FIND_ROOT_PATH)
      set_target_properties(ONNXRuntime::ONNXRuntime PROPERTIES
        IMPORTED_IMPLIB "${ONNXRUNTIME_LIBRARY}" IMPORTED_LOCATION "${ONNXRUNTIME_DLL}")
    endif()
  endif()
endif()
mark_as_advanced(ONNXRUNTIME_DLL ONNXRUNTIME_INCLUDE_DIR ONNXRUNTIME_LIBRARY)
