# Third-party libraries, all from the distribution's packages. A missing one
# stops the configuration with the package that provides it.

function(corvane_require found what package)
  if(NOT ${found})
    message(FATAL_ERROR "Corvane needs ${what}; install it with: apt-get install -y ${package}")
  endif()
endfunction()

set(BLA_VENDOR OpenBLAS)
find_package(BLAS QUIET)
corvane_require(BLAS_FOUND "BLAS (OpenBLAS)" libopenblas-serial-dev)
find_package(LAPACK QUIET)
corvane_require(LAPACK_FOUND "LAPACK" libopenblas-serial-dev)

find_path(CBLAS_INCLUDE_DIR cblas.h PATH_SUFFIXES x86_64-linux-gnu/openblas-serial x86_64-linux-gnu openblas)
corvane_require(CBLAS_INCLUDE_DIR "the CBLAS header cblas.h" libopenblas-serial-dev)
find_path(LAPACKE_INCLUDE_DIR lapacke.h)
find_library(LAPACKE_LIBRARY lapacke)
corvane_require(LAPACKE_INCLUDE_DIR "the LAPACKE header lapacke.h" liblapacke-dev)
corvane_require(LAPACKE_LIBRARY "the LAPACKE library" liblapacke-dev)

add_library(corvane_linalg INTERFACE)
target_include_directories(corvane_linalg INTERFACE ${CBLAS_INCLUDE_DIR} ${LAPACKE_INCLUDE_DIR})
target_link_libraries(corvane_linalg INTERFACE ${LAPACKE_LIBRARY} ${LAPACK_LIBRARIES} ${BLAS_LIBRARIES})

find_package(OpenMP QUIET COMPONENTS CXX)
corvane_require(OpenMP_CXX_FOUND "OpenMP support in the C++ compiler" libgomp1)

find_package(nlohmann_json 3 QUIET)
corvane_require(nlohmann_json_FOUND "the JSON library nlohmann_json" nlohmann-json3-dev)

find_package(Threads REQUIRED)

if(CORVANE_BUILD_TESTS)
  find_package(GTest QUIET)
  corvane_require(GTest_FOUND "GoogleTest" "libgtest-dev libgmock-dev")
  find_package(PNG QUIET)
  corvane_require(PNG_FOUND "libpng, to read screenshots in the tests" libpng-dev)
  # The report test renders a page in it, and fails with a clear message if
  # it is missing rather than being left out.
  find_program(CORVANE_CHROMIUM NAMES chromium chromium-browser)
endif()
if(CORVANE_BUILD_BENCH)
  find_package(benchmark QUIET)
  corvane_require(benchmark_FOUND "Google Benchmark" libbenchmark-dev)
endif()
