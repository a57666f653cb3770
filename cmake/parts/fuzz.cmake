# libFuzzer targets, built with clang in a build folder of their own:
#   make test-fuzz   a short run of each (part of make test)
#   make fuzz        FUZZ_SECONDS each
option(TQF_FUZZ "build the libFuzzer targets (needs clang)" OFF)
if(TQF_FUZZ)
  # The engine carries the coverage the fuzzer steers by.
  target_compile_options(tqf_core PRIVATE -fsanitize=fuzzer-no-link)
  set(TQF_FUZZ_TARGETS fuzz_tqf_reader fuzz_stream_parser fuzz_stream_header fuzz_stream_decode
      fuzz_decoder fuzz_file_player fuzz_tool)
  foreach(target ${TQF_FUZZ_TARGETS})
    add_executable(${target} fuzz/${target}.cpp)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${target} PRIVATE tqf_core)
  endforeach()
  # The decoder plugins are looked for beside the program that holds the engine.
  foreach(target fuzz_stream_decode fuzz_decoder fuzz_file_player)
    add_dependencies(${target} avsdec jpgdec)
  endforeach()
  pkg_check_modules(FUZZ_SWRESAMPLE REQUIRED IMPORTED_TARGET libswresample)
  target_sources(fuzz_tool PRIVATE tools/Command.cpp tools/InfoCommand.cpp tools/ImportCommand.cpp
    tools/Options.cpp tools/OutputFile.cpp tools/InputProblem.cpp)
  target_include_directories(fuzz_tool PRIVATE ${CMAKE_SOURCE_DIR}/tools)
  target_link_libraries(fuzz_tool PRIVATE PkgConfig::FFMPEG PkgConfig::FUZZ_SWRESAMPLE)
  add_custom_target(fuzz_targets DEPENDS ${TQF_FUZZ_TARGETS})
endif()
