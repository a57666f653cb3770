# The decoder plugins, bound by the library at run time from its own folder:
# build/libavsdec.so (AVS over libavcodec's cavs decoder, sharing the engine
# source of the H.264 members) and build/libjpgdec.so (JPEG over TurboJPEG).
add_library(avsdec SHARED plugins/avsdec/avsdec.cpp codecs/VideoEngine.cpp)
target_include_directories(avsdec PRIVATE ${CMAKE_SOURCE_DIR}/codecs)
target_link_libraries(avsdec PRIVATE PkgConfig::FFMPEG)

add_library(jpgdec SHARED plugins/jpgdec/jpgdec.cpp)
target_include_directories(jpgdec PRIVATE ${CMAKE_SOURCE_DIR}/codecs)
target_link_libraries(jpgdec PRIVATE PkgConfig::TURBOJPEG)

# Every symbol resolved at link time; not in the fuzz build, whose clang
# sanitizer runtime lives in the program and not in the plugins.
if(NOT TQF_FUZZ)
  target_link_options(avsdec PRIVATE -Wl,-z,defs)
  target_link_options(jpgdec PRIVATE -Wl,-z,defs)
endif()

# The library finds them beside itself, so building it builds them too.
add_dependencies(TQFPlay avsdec jpgdec)
