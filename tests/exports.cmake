# The probe library the binding tests load, built beside the tests.
add_library(exportsprobe SHARED ${CMAKE_CURRENT_SOURCE_DIR}/data/exports_probe.c)
add_dependencies(exports_test exportsprobe)

# The host-level test loads the shared library itself.
add_dependencies(library_exports_test TQFPlay)
