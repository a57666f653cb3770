# The command-line tool. info, import, export and audio work on the engine's
# reader, writer and G.726 module (and libavformat, libavcodec,
# libswresample); play, stream and view are hosts of the shared library and
# reach it only through its exported interface; view draws with SDL2.
pkg_check_modules(SWRESAMPLE REQUIRED IMPORTED_TARGET libswresample)
pkg_check_modules(SDL2 REQUIRED IMPORTED_TARGET sdl2)
add_executable(tqfplay
  tools/tqfplay.cpp
  tools/Command.cpp
  tools/InputProblem.cpp
  tools/Options.cpp
  tools/OutputFile.cpp
  tools/InfoCommand.cpp
  tools/ImportCommand.cpp
  tools/PlayCommand.cpp
  tools/StreamCommand.cpp
  tools/ViewCommand.cpp
  tools/ExportCommand.cpp
  tools/VideoTimeline.cpp
  tools/AudioCommand.cpp
  tools/MediaSource.cpp
  tools/LibrarySession.cpp
  tools/PictureSink.cpp
  tools/StreamFeeder.cpp
  tools/Y4MWriter.cpp
  tools/PngWriter.cpp
  tools/FramePacer.cpp
  tools/ProgressMeter.cpp)
target_link_libraries(tqfplay PRIVATE TQFPlay tqf_core PkgConfig::FFMPEG PkgConfig::SWRESAMPLE
  PkgConfig::SDL2)
target_compile_definitions(tqfplay PRIVATE TQF_VERSION="${PROJECT_VERSION}")
# build/tqfplay finds build/libTQFPlay.so by the build tree's rpath; an
# installed tqfplay finds the installed library beside its bin folder.
include(GNUInstallDirs)
set_target_properties(tqfplay PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# Indexing a ~1 GiB file against reading it once.
add_executable(bench_tqf_index bench/bench_tqf_index.cpp)
target_link_libraries(bench_tqf_index PRIVATE tqf_core)
