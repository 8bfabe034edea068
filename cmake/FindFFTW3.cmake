# Finds FFTW 3 in double precision and defines the target FFTW3::FFTW3.
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(PC_FFTW3 QUIET fftw3)
endif()
find_path(FFTW3_INCLUDE_DIR fftw3.h HINTS ${PC_FFTW3_INCLUDE_DIRS})
find_library(FFTW3_LIBRARY NAMES fftw3 HINTS ${PC_FFTW3_LIBRARY_DIRS})
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(FFTW3
  REQUIRED_VARS FFTW3_LIBRARY FFTW3_INCLUDE_DIR
  FAIL_MESSAGE "FFTW 3 (double precision) not found: run scripts/setup.sh or install the Debian package libfftw3-dev")
if(FFTW3_FOUND AND NOT TARGET FFTW3::FFTW3)
  add_library(FFTW3::FFTW3 UNKNOWN IMPORTED)
  set_target_properties(FFTW3::FFTW3 PROPERTIES
    IMPORTED_LOCATION ${FFTW3_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${FFTW3_INCLUDE_DIR})
endif()
mark_as_advanced(FFTW3_INCLUDE_DIR FFTW3_LIBRARY)
