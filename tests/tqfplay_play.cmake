# The end-to-end tests run build/tqfplay and compare with the library's own
# pictures, so they link the shared library as a host does.
foreach(test tqfplay_play_test tqfplay_export_test)
  add_dependencies(${test} tqfplay)
  target_link_libraries(${test} PRIVATE TQFPlay)
endforeach()
# The host test installs the build and builds examples/host against it.
add_dependencies(tqfplay_host_test tqfplay TQFPlay)
