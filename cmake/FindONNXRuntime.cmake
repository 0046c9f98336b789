# Finds ONNX Runtime as the imported target ONNXRuntime::ONNXRuntime: the folder ONNXRUNTIME_ROOT (an unpacked official
# archive, or include/ and lib/), else what scripts/setup made, else an installed CMake package, else the system.
set(ONNXRUNTIME_ROOT "$ENV{ONNXRUNTIME_ROOT}" CACHE PATH "Folder of ONNX Runtime with include/ and lib/")
if(NOT ONNXRUNTIME_ROOT AND NOT EXISTS "${PROJECT_SOURCE_DIR}/.deps/onnxruntime")
  find_package(onnxruntime CONFIG QUIET)
endif()
if(NOT TARGET onnxruntime::onnxruntime)
  set(places "${ONNXRUNTIME_ROOT}" "${PROJECT_SOURCE_DIR}/.deps/onnxruntime")
  find_path(ONNXRUNTIME_INCLUDE_DIR onnxruntime_cxx_api.h HINTS ${places}
    PATH_SUFFIXES include include/onnxruntime include/onnxruntime/core/session)
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
    add_library(ONNXRuntime::ONNXRuntime UNKNOWN IMPORTED)
    set_target_properties(ONNXRuntime::ONNXRuntime PROPERTIES
      IMPORTED_LOCATION "${ONNXRUNTIME_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${ONNXRUNTIME_INCLUDE_DIR}")
  endif()
endif()
mark_as_advanced(ONNXRUNTIME_INCLUDE_DIR ONNXRUNTIME_LIBRARY)
