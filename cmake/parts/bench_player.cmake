# Player benchmarks: plain programs that print their figures and ratios.
add_executable(bench_stream bench/bench_stream.cpp)
target_include_directories(bench_stream PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(bench_stream PRIVATE tqf_core PkgConfig::TURBOJPEG)

add_executable(bench_file bench/bench_file.cpp)
target_include_directories(bench_file PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(bench_file PRIVATE tqf_core)
target_compile_definitions(bench_file PRIVATE TQF_BINARY_DIR="${CMAKE_BINARY_DIR}" TQF_FFMPEG="${TQF_FFMPEG}")

add_executable(bench_overload bench/bench_overload.cpp)
target_include_directories(bench_overload PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(bench_overload PRIVATE tqf_core)
