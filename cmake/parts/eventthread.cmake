# Figures for the pool, the message queue, the event thread and the
# many-object wait (`make bench`).
add_executable(bench_event_thread bench/bench_event_thread.cpp)
target_link_libraries(bench_event_thread PRIVATE tqf_core)
