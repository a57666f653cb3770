# The command-line tool: a table of subcommands over the engine's reader and
# writer; import also needs libavformat, libavcodec and libswresample.
pkg_check_modules(SWRESAMPLE REQUIRED IMPORTED_TARGET libswresample)
add_executable(tqfplay
  tools/tqfplay.cpp
  tools/InfoCommand.cpp
  tools/ImportCommand.cpp)
target_link_libraries(tqfplay PRIVATE tqf_core PkgConfig::FFMPEG PkgConfig::SWRESAMPLE)

# Indexing a ~1 GiB file against reading it once.
add_executable(bench_tqf_index bench/bench_tqf_index.cpp)
target_link_libraries(bench_tqf_index PRIVATE tqf_core)
