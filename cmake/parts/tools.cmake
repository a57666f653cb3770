# The demo host: loads libTQFPlay.so with dlopen, as a host application would.
add_executable(tqf_demo tools/tqf_demo.c)
target_include_directories(tqf_demo PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(tqf_demo PRIVATE ${CMAKE_DL_LIBS})
add_dependencies(tqf_demo TQFPlay)
