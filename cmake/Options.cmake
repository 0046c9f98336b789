# Every option and path that the build takes; presets, scripts and users set them with -D.

option(TOL_BUILD_HOST "Build the example host vsa" ${PROJECT_IS_TOP_LEVEL})
option(TOL_BUILD_BENCHMARKS "Build the benchmark programs" OFF)
option(TOL_BUILD_FUZZ "Build for fuzzing with Clang's libFuzzer" OFF)
option(TOL_BUILD_PYTHON "Build the Python package; needs the host" OFF)
option(TOL_BUNDLE_ENGINES "Install the engines' libraries with the library" ${WIN32})
option(TOL_COVERAGE "Count the lines and branches that run (gcov)" OFF)
option(TOL_FAKE_OPENVINO "Build with a stand-in for OpenVINO that only runs the networks of the tests" OFF)
option(TOL_HARDENING "Harden optimised builds for Linux" ON)
option(TOL_SANITIZE "Build with the address and undefined-behaviour sanitizers" OFF)
option(TOL_SANITIZE_THREADS "Build with the thread sanitizer" OFF)
option(TOL_WARNINGS_AS_ERRORS "Stop at the first warning" OFF)

set(TOL_BUNDLE_EXCLUDE "intel_[gn]pu_plugin" CACHE STRING
  "Regular expression of engine files that TOL_BUNDLE_ENGINES leaves out")
set(TOL_MODELS "${PROJECT_SOURCE_DIR}/.deps/models" CACHE PATH
  "Models for the tests and examples (scripts/setup)")
set(TOL_PYTHON "${PROJECT_SOURCE_DIR}/.deps/venv/bin/python" CACHE FILEPATH
  "Python with the packages of scripts/requirements.txt (scripts/setup)")
set(TOL_RAY_PYTHON "${PROJECT_SOURCE_DIR}/.deps/ray/bin/python" CACHE FILEPATH
  "Python with Ray (examples/ray/setup); without it the test of that example is skipped")
set(TOL_SUPERVISION_PYTHON "${PROJECT_SOURCE_DIR}/.deps/supervision/bin/python" CACHE FILEPATH
  "Python with supervision (python/examples/setup); without it the tests of its examples are skipped")

# Fixed paths that several folders use.
set(TOL_PICTURES "${PROJECT_SOURCE_DIR}/examples/pictures")
set(TOL_ONNX_NETWORKS "${PROJECT_BINARY_DIR}/tests/onnx")  # written by tests/support/make_onnx.py
