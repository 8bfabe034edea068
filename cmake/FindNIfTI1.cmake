# Finds the NIfTI-1 reference library (nifti1_io with its znz layer and the
# nifti1.h header) and defines the target NIfTI1::NIfTI1.
find_path(NIfTI1_INCLUDE_DIR nifti1_io.h PATH_SUFFIXES nifti)
find_path(NIfTI1_HEADER_DIR nifti1.h PATH_SUFFIXES nifti)
find_path(ZNZ_INCLUDE_DIR znzlib.h PATH_SUFFIXES nifti)
find_library(NIfTI1_LIBRARY NAMES niftiio)
find_library(ZNZ_LIBRARY NAMES znz)
find_package(ZLIB QUIET)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(NIfTI1
  REQUIRED_VARS NIfTI1_LIBRARY ZNZ_LIBRARY NIfTI1_INCLUDE_DIR NIfTI1_HEADER_DIR ZNZ_INCLUDE_DIR
  FAIL_MESSAGE "NIfTI-1 library not found: run scripts/setup.sh or install the Debian packages libniftiio-dev and libnifti2-dev")
if(NIfTI1_FOUND AND NOT TARGET NIfTI1::NIfTI1)
  add_library(NIfTI1::NIfTI1 UNKNOWN IMPORTED)
  set(_nifti_libs ${ZNZ_LIBRARY})
  if(ZLIB_FOUND)
    list(APPEND _nifti_libs ZLIB::ZLIB)
  endif()
  set_target_properties(NIfTI1::NIfTI1 PROPERTIES
    IMPORTED_LOCATION ${NIfTI1_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES "${NIfTI1_INCLUDE_DIR};${NIfTI1_HEADER_DIR};${ZNZ_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${_nifti_libs}")
endif()
mark_as_advanced(NIfTI1_INCLUDE_DIR NIfTI1_HEADER_DIR ZNZ_INCLUDE_DIR NIfTI1_LIBRARY ZNZ_LIBRARY)
