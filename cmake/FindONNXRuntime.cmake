# Finds ONNX Runtime as the imported target ONNXRuntime::ONNXRuntime. Tried in this order:
#   1. ONNXRUNTIME_ROOT (variable or environment): an unpacked official archive (include/ and lib/), or the folder
#      site-packages/onnxruntime of the Python wheel, which has capi/libonnxruntime.so.* and no headers:
#      ONNXRUNTIME_INCLUDE_DIR names those then (of the same version or an older one).
#   2. .deps/onnxruntime, which scripts/setup makes.
#   3. A CMake package, the official one, a distribution's or vcpkg's (target onnxruntime::onnxruntime); it comes first
#      where onnxruntime_DIR names it.
#   4. Headers and library in the system's own folders.
set(ONNXRUNTIME_ROOT "$ENV{ONNXRUNTIME_ROOT}" CACHE PATH "Folder of ONNX Runtime: an unpacked archive or a wheel")
set(made_by_setup "${PROJECT_SOURCE_DIR}/.deps/onnxruntime")
if(onnxruntime_DIR OR (NOT ONNXRUNTIME_ROOT AND NOT EXISTS "${made_by_setup}"))
  find_package(onnxruntime CONFIG QUIET)
endif()
if(NOT TARGET onnxruntime::onnxruntime)
  set(places ${ONNXRUNTIME_ROOT} "${made_by_setup}")
  find_path(ONNXRUNTIME_INCLUDE_DIR onnxruntime_cxx_api.h HINTS ${places}
    PATH_SUFFIXES include include/onnxruntime include/onnxruntime/core/session)
  # The wheel's library bears its whole version in its name, but programs look for it by the first number of that.
  file(GLOB in_wheel "${ONNXRUNTIME_ROOT}/capi/libonnxruntime.so.*")
  if(ONNXRUNTIME_ROOT AND in_wheel AND NOT ONNXRUNTIME_LIBRARY)
    list(GET in_wheel 0 in_wheel)
    string(REGEX REPLACE ".*/(libonnxruntime\\.so\\.[0-9]+).*" "\\1" name "${in_wheel}")
    file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/onnxruntime")
    file(CREATE_LINK "${in_wheel}" "${PROJECT_BINARY_DIR}/onnxruntime/${name}" SYMBOLIC)
    set(ONNXRUNTIME_LIBRARY "${PROJECT_BINARY_DIR}/onnxruntime/${name}" CACHE FILEPATH "Library of ONNX Runtime")
  endif()
  find_library(ONNXRUNTIME_LIBRARY onnxruntime HINTS ${places} PATH_SUFFIXES lib)
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
    if(WIN32)  # the archive keeps the import library and the DLL in one folder
      string(REGEX REPLACE "\\.lib$" ".dll" dll "${ONNXRUNTIME_LIBRARY}")
      set_target_properties(ONNXRuntime::ONNXRuntime PROPERTIES
        IMPORTED_IMPLIB "${ONNXRUNTIME_LIBRARY}" IMPORTED_LOCATION "${dll}")
    endif()
  endif()
endif()
mark_as_advanced(ONNXRUNTIME_INCLUDE_DIR ONNXRUNTIME_LIBRARY)
