# The block queue's benchmark: the live stream's reserve-copy-commit and
# get-release-remove cycle, on one thread and on two.
add_executable(bench_vbuffer_queue bench/bench_vbuffer_queue.cpp)
target_link_libraries(bench_vbuffer_queue PRIVATE tqf_core)
