# libFuzzer targets, built with clang in a build folder of their own:
#   make fuzz   (configures build-fuzz with -DTQF_FUZZ=ON and runs each target briefly)
option(TQF_FUZZ "build the libFuzzer targets (needs clang)" OFF)
if(TQF_FUZZ)
  # The engine carries the coverage the fuzzer steers by.
  target_compile_options(tqf_core PRIVATE -fsanitize=fuzzer-no-link)
  foreach(target fuzz_tqf_reader fuzz_stream_parser)
    add_executable(${target} fuzz/${target}.cpp)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${target} PRIVATE tqf_core)
  endforeach()
endif()
