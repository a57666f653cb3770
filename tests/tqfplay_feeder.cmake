# The feeder's pacing, tested on its own.
target_sources(tqfplay_feeder_test PRIVATE ${CMAKE_SOURCE_DIR}/tools/StreamFeeder.cpp
  ${CMAKE_SOURCE_DIR}/tools/InputProblem.cpp ${CMAKE_SOURCE_DIR}/tools/Command.cpp)
target_include_directories(tqfplay_feeder_test PRIVATE ${CMAKE_SOURCE_DIR}/tools)
