# Player benchmarks: plain programs that print their figures.
add_executable(bench_stream bench/bench_stream.cpp)
target_include_directories(bench_stream PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(bench_stream PRIVATE tqf_core PkgConfig::TURBOJPEG)
