# Benchmarks of the codecs against the ffmpeg tool (`make bench`). Their media
# are made by the tool into build/media/bench on the first run.
foreach(bench bench_h264_decode bench_g726_decode)
  add_executable(${bench} bench/${bench}.cpp)
  target_link_libraries(${bench} PRIVATE tqf_core)
  target_compile_definitions(${bench} PRIVATE TQF_BINARY_DIR="${CMAKE_BINARY_DIR}" TQF_FFMPEG="${TQF_FFMPEG}")
endforeach()
