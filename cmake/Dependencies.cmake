# What to do if a dependency is missing.

set(openvino_hint "scripts/setup, or OpenVINO_DIR: the folder that contains OpenVINOConfig.cmake")
set(onnxruntime_hint "scripts/setup, or ONNXRUNTIME_ROOT: a folder with include/ and lib/")
set(opencv_hint "Debian: libopencv-dev libopencv-contrib-dev; vcpkg: opencv4; or OpenCV_DIR")
set(glog_hint "Debian: libgoogle-glog-dev; vcpkg: glog; or glog_DIR")
set(jsoncpp_hint "Debian: libjsoncpp-dev; vcpkg: jsoncpp; or jsoncpp_DIR")
set(simdjson_hint "Debian: libsimdjson-dev; vcpkg: simdjson; or simdjson_DIR")
set(curl_hint "Debian: libcurl4-openssl-dev; vcpkg: curl; or CURL_DIR")
set(cli11_hint "Debian: libcli11-dev; vcpkg: cli11; or -DTOL_BUILD_HOST=OFF")
set(iconv_hint "part of glibc; or -DTOL_BUILD_HOST=OFF")
set(gtest_hint "Debian: libgtest-dev; vcpkg: gtest; or -DBUILD_TESTING=OFF")

# tol_require(PACKAGE...)
# Stops with one message that lists every package that find_package did not find, and how to install it.
function(tol_require)
  set(missing "")
  foreach(package ${ARGN})
    if(NOT ${package}_FOUND)
      string(TOLOWER ${package} key)
      string(APPEND missing "\n  ${package} (${${key}_hint})")
    endif()
  endforeach()
  if(missing)
    message(FATAL_ERROR "These dependencies were not found:${missing}\n"
      "On Debian, scripts/setup installs all of them. The list with versions is in README.md.")
  endif()
endfunction()
