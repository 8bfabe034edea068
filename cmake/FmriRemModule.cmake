# fmri_rem_module(<module> <public header> <source> ...)
#
# One static library remcore_<module> per folder of src/.  Its public header is
# the only one that other targets see: it is linked into a folder of its own
# under the build tree, which is the library's public include directory; the
# module's other headers stay private to it.
function(fmri_rem_module module header)
  set(target remcore_${module})
  add_library(${target} STATIC ${ARGN})
  set(public_dir ${PROJECT_BINARY_DIR}/include/${module})
  file(MAKE_DIRECTORY ${public_dir})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${public_dir}/${header} SYMBOLIC)
  target_include_directories(${target}
    PUBLIC ${public_dir}
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()
