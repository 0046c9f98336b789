# Installs and packs the library, its header, its CMake package and pkg-config file and, with TOL_BUNDLE_ENGINES, the files
# of the engines, so that the result runs on machines without them. Reads openvino_folder of the main CMakeLists.txt; sets
# TOL_ENGINE_RPATH and TOL_DEPENDENCY_SET, which the host's installation uses too.

# Windows searches the folder of the program. Elsewhere the engines get a folder of their own below the library's, so that
# in /usr/lib they neither hide nor replace the system's libraries (libtbb.so.12 is also Debian's).
if(WIN32)
  set(engine_folder ${CMAKE_INSTALL_BINDIR})
else()
  set(engine_folder ${CMAKE_INSTALL_LIBDIR}/TolCompatible)
endif()

set(onnxruntime_target ONNXRuntime::ONNXRuntime)
if(TARGET onnxruntime::onnxruntime)  # from a CMake package of its own
  set(onnxruntime_target onnxruntime::onnxruntime)
endif()
foreach(property IMPORTED_LOCATION_RELEASE IMPORTED_LOCATION_NONE IMPORTED_LOCATION)
  get_target_property(onnxruntime_file ${onnxruntime_target} ${property})
  if(onnxruntime_file)
    break()
  endif()
endforeach()

# Plug-ins and readers of model files are loaded by name, so no list of dependencies contains them. The only reader that
# the library needs is the one for IR files.
set(engine_files "")
if(openvino_folder)
  file(GLOB engine_files "${openvino_folder}/*")
endif()
list(FILTER engine_files INCLUDE REGEX "/(lib)?(openvino|tbb|hwloc)[^/]*\\.(dll|so[.0-9]*)$")
list(FILTER engine_files EXCLUDE REGEX "openvino_c\\.|/[^/]*(gguf|jax|onnx|paddle|pytorch|tensorflow|lite)_frontend")
if(TOL_BUNDLE_EXCLUDE)
  list(FILTER engine_files EXCLUDE REGEX "${TOL_BUNDLE_EXCLUDE}")
endif()

if(TOL_BUNDLE_ENGINES)
  if(NOT engine_files MATCHES "intel_cpu_plugin" OR NOT onnxruntime_file)
    message(FATAL_ERROR "TOL_BUNDLE_ENGINES needs OpenVINO from its wheel or archive and ONNX Runtime's library file")
  endif()
  install(FILES ${engine_files} DESTINATION ${engine_folder} COMPONENT library)
  # Programs load the wheel's libonnxruntime.so.1.31.1 as libonnxruntime.so.1.
  get_filename_component(onnxruntime_real "${onnxruntime_file}" REALPATH)
  get_filename_component(onnxruntime_name "${onnxruntime_real}" NAME)
  string(REGEX REPLACE "(\\.so\\.[0-9]+).*" "\\1" onnxruntime_name "${onnxruntime_name}")
  install(FILES "${onnxruntime_real}" DESTINATION ${engine_folder} RENAME ${onnxruntime_name} COMPONENT library)
  # A package with the engines must include their licences.
  get_filename_component(onnxruntime_folder "${onnxruntime_real}/../.." ABSOLUTE)
  file(GLOB openvino_licences "${openvino_folder}/../../openvino-*.dist-info/licenses")
  install(DIRECTORY ${openvino_licences} DESTINATION ${CMAKE_INSTALL_DOCDIR}/openvino COMPONENT library)
  file(GLOB onnxruntime_licences "${onnxruntime_folder}/LICENSE*" "${onnxruntime_folder}/ThirdPartyNotices.txt")
  install(FILES ${onnxruntime_licences} DESTINATION ${CMAKE_INSTALL_DOCDIR}/onnxruntime COMPONENT library)
  set(cli11_licence /usr/share/doc/libcli11-dev/copyright)  # Debian's; vsa contains code of CLI11
  if(TOL_BUILD_HOST AND EXISTS ${cli11_licence})
    install(FILES ${cli11_licence} DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME CLI11.txt COMPONENT tools)
  endif()
  set(TOL_ENGINE_RPATH "")
else()
  # The loader searches for the engines in the library's folder first, then in the folders in which this build found them.
  set(TOL_ENGINE_RPATH "${openvino_folder}")
  if(onnxruntime_file)
    get_filename_component(onnxruntime_folder "${onnxruntime_file}" DIRECTORY)
    list(APPEND TOL_ENGINE_RPATH "${onnxruntime_folder}")
  endif()
endif()
# The build tree has the run path of the installed files: otherwise CMake would pad it with empty entries, which make
# the loader search the current directory.
set_target_properties(TolCompatibleLib PROPERTIES
  BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN;$ORIGIN/TolCompatible;${TOL_ENGINE_RPATH}")

set(TOL_DEPENDENCY_SET "")
if(WIN32)
  # Programs of the build tree run in their own folder, so everything that they load is copied there.
  if(CMAKE_CROSSCOMPILING)  # also the compiler's libraries and those that only vsa loads
    file(GLOB windows_libraries "${TOL_WINDOWS_LIBRARIES}/bin/*.dll")
    file(COPY ${windows_libraries} DESTINATION "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  endif()
  add_custom_command(TARGET TolCompatibleLib POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_RUNTIME_DLLS:TolCompatibleLib> ${engine_files}
      $<TARGET_FILE_DIR:TolCompatibleLib>
    COMMAND_EXPAND_LISTS)
endif()
if(WIN32 AND CMAKE_CROSSCOMPILING)  # CMake cannot search for dependencies then
  install(FILES ${windows_libraries} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library)
elseif(WIN32)
  set(TOL_DEPENDENCY_SET RUNTIME_DEPENDENCY_SET TolDependencies)
  install(RUNTIME_DEPENDENCY_SET TolDependencies
    PRE_EXCLUDE_REGEXES "^api-ms-" "^ext-ms-" POST_EXCLUDE_REGEXES "[Ss]ystem32[/\\]"
    DIRECTORIES $<TARGET_FILE_DIR:TolCompatibleLib> DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library)
endif()
install(TARGETS TolCompatibleLib EXPORT TolCompatibleLib ${TOL_DEPENDENCY_SET}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES Core/TolCompatible.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TolCompatible COMPONENT development)
install(FILES README.md NOTICE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT library)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/TolCompatibleLib)
install(EXPORT TolCompatibleLib NAMESPACE TolCompatibleLib:: DESTINATION ${package_folder}
  FILE TolCompatibleLibConfig.cmake COMPONENT development)
write_basic_package_version_file(TolCompatibleLibConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/TolCompatibleLibConfigVersion.cmake" DESTINATION ${package_folder}
  COMPONENT development)
file(RELATIVE_PATH prefix_from_pc "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/TolCompatibleLib.pc.in TolCompatibleLib.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/TolCompatibleLib.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

# cpack: an archive that contains everything, and three Debian packages: library with engines, development files, vsa.
set(CPACK_PACKAGE_NAME tolcompatiblelib)
set(CPACK_PACKAGE_VENDOR "TolCompatibleLib developers")
set(CPACK_PACKAGE_CONTACT "TolCompatibleLib developers <tolcompatiblelib@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "neural networks for video and audio analysis")
set(CPACK_RESOURCE_FILE_README "${PROJECT_SOURCE_DIR}/README.md")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL library development tools)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
else()
  set(CPACK_GENERATOR "TXZ;DEB")
  include(DebianPackages)
endif()
include(CPack)
