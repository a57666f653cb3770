# Installation: the library with its plugins beside it (it looks for them in
# its own folder), the header, the tool, a pkg-config file and a CMake
# package, so that hosts can use either:
#   pkg-config --cflags --libs tqfplay
#   find_package(TQFPlay) ... target_link_libraries(host PRIVATE TQFPlay::TQFPlay)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

target_include_directories(TQFPlay INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(TQFPlay PROPERTIES PUBLIC_HEADER ${PROJECT_SOURCE_DIR}/include/TQFPlay.h)

install(TARGETS TQFPlay EXPORT TQFPlayTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS avsdec jpgdec LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

# pkg-config, relocatable: the prefix is found from where the file lies, so
# `cmake --install --prefix` anywhere gives a working file.
set(TQFPLAY_PC_PREFIX "\${pcfiledir}/..")
string(REPLACE "/" ";" libdir_parts "${CMAKE_INSTALL_LIBDIR}")
foreach(part ${libdir_parts})
  string(APPEND TQFPLAY_PC_PREFIX "/..")
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/install/tqfplay.pc.in
  ${PROJECT_BINARY_DIR}/tqfplay.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tqfplay.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# CMake package: TQFPlayConfig.cmake, its version file and the target file.
set(TQFPLAY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TQFPlay)
install(EXPORT TQFPlayTargets NAMESPACE TQFPlay:: DESTINATION ${TQFPLAY_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/install/TQFPlayConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TQFPlayConfig.cmake INSTALL_DESTINATION ${TQFPLAY_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TQFPlayConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TQFPlayConfig.cmake ${PROJECT_BINARY_DIR}/TQFPlayConfigVersion.cmake
  DESTINATION ${TQFPLAY_CMAKE_DIR})

# The Python package, where Debian's python3 looks under the prefix
# (lib/python3.X/dist-packages; site-packages on other systems), with the
# installed library's path written into it.
find_program(TQF_INSTALL_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(TQF_INSTALL_PYTHON)
  execute_process(COMMAND ${TQF_INSTALL_PYTHON} -c
    "import os, sys; print('lib/python%d.%d/' % sys.version_info[:2] + ('dist-packages' if os.path.isdir('/usr/lib/python3/dist-packages') else 'site-packages'))"
    OUTPUT_VARIABLE TQF_PYTHON_DIR OUTPUT_STRIP_TRAILING_WHITESPACE)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/tqfplay DESTINATION ${TQF_PYTHON_DIR}
    PATTERN __pycache__ EXCLUDE)
  install(CODE "file(WRITE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${TQF_PYTHON_DIR}/tqfplay/_installed.py\"
    \"LIBRARY = '\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libTQFPlay.so.1'\\n\")")
endif()
