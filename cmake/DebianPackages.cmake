# The control data of the Debian packages that cpack makes.

set(library_package libtolcompatiblelib${PROJECT_VERSION_MAJOR})
set(development_package libtolcompatiblelib-dev)
set(tools_package tolcompatiblelib-tools)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps finds the dependencies of all files; the engines' libraries are in the library's package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
get_filename_component(onnxruntime_folder "${onnxruntime_file}" DIRECTORY)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${openvino_folder}" "${onnxruntime_folder}" "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_TOOLS_DEPENDS library)

set(about "YOLO detectors, text detection and recognition, image and audio
classification, and embeddings of persons and faces, on OpenVINO and ONNX
Runtime, behind a flat C-linkage interface.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "${about}
.
This package contains the shared library and the engines.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "${about}
.
This package contains the header, the CMake package and the pkg-config file.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "fonts-wqy-microhei, ffmpeg")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "${about}
.
This package contains the program vsa, which runs pipelines of models on
images, videos, streams and audio.")

# Programs that are linked with the library depend on its package; installing it updates the loader's cache.
set(control "${PROJECT_BINARY_DIR}/debian")
file(WRITE "${control}/shlibs"
  "libTolCompatibleLib ${PROJECT_VERSION_MAJOR} ${library_package} (>= ${PROJECT_VERSION})\n")
file(WRITE "${control}/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${control}/shlibs;${control}/triggers")

# Every package has a copyright file and a changelog. The changes themselves are in CHANGELOG.md.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # of SOURCE_DATE_EPOCH, if it is set
file(WRITE "${control}/changelog" "tolcompatiblelib (${PROJECT_VERSION}) unstable; urgency=medium

  * See CHANGELOG.md of the sources.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
find_program(GZIP gzip REQUIRED)
mark_as_advanced(GZIP)
execute_process(COMMAND "${GZIP}" -9nf "${control}/changelog" COMMAND_ERROR_IS_FATAL ANY)
file(READ NOTICE notice)
file(WRITE "${control}/copyright" "Copyright: 2026 the TolCompatibleLib developers\n\n${notice}")
foreach(component library development tools)
  # The packages are made where they are needed, so their maintainer has no public address.
  set(overrides "${control}/${${component}_package}")
  file(WRITE "${overrides}" "bogus-mail-host *\nbogus-mail-host-in-debian-changelog *\n")
  if(component STREQUAL library)
    file(APPEND "${overrides}" "# ONNX Runtime's library is the official build.\nembedded-library *\n"
      "# In addition to the trigger, CPack calls ldconfig.\nmaintscript-calls-ldconfig *\n")
  elseif(component STREQUAL development)
    file(APPEND "${overrides}" "# The archive has the same folders, without the name of the architecture.\n"
      "pkg-config-unavailable-for-cross-compilation *\n")
  endif()
  install(FILES "${overrides}" DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  install(FILES "${control}/copyright" "${control}/changelog.gz"
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${${component}_package} COMPONENT ${component})
endforeach()
