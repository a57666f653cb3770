# Installation: the library with its plugins beside it (it looks for them in
# its own folder), the header, the tool, a pkg-config file and a CMake
# package, so that hosts can use either:
#   pkg-config --cflags --libs tqfplay
#   find_package(TQFPlay) ... target_link_libraries(host PRIVATE TQFPlay::TQFPlay)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

target_include_directories(TQFPlay INTERFACE
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(TQFPlay PROPERTIES PUBLIC_HEADER ${CMAKE_SOURCE_DIR}/include/TQFPlay.h)

install(TARGETS TQFPlay EXPORT TQFPlayTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The plugins and the tool are defined by other parts, which may come later:
# their rules are added once the whole top folder has been read.
function(tqfplay_install_programs)
  foreach(plugin avsdec jpgdec)
    if(TARGET ${plugin})
      install(TARGETS ${plugin} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    endif()
  endforeach()
  install(TARGETS tqfplay RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL tqfplay_install_programs)

# pkg-config, relocatable: the prefix is found from where the file lies, so
# `cmake --install --prefix` anywhere gives a working file.
set(TQFPLAY_PC_PREFIX "\${pcfiledir}/..")
string(REPLACE "/" ";" libdir_parts "${CMAKE_INSTALL_LIBDIR}")
foreach(part ${libdir_parts})
  string(APPEND TQFPLAY_PC_PREFIX "/..")
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/cmake/install/tqfplay.pc.in
  ${CMAKE_BINARY_DIR}/tqfplay.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tqfplay.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# CMake package: TQFPlayConfig.cmake, its version file and the target file.
set(TQFPLAY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TQFPlay)
install(EXPORT TQFPlayTargets NAMESPACE TQFPlay:: DESTINATION ${TQFPLAY_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/install/TQFPlayConfig.cmake.in
  ${CMAKE_BINARY_DIR}/TQFPlayConfig.cmake INSTALL_DESTINATION ${TQFPLAY_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/TQFPlayConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/TQFPlayConfig.cmake ${CMAKE_BINARY_DIR}/TQFPlayConfigVersion.cmake
  DESTINATION ${TQFPLAY_CMAKE_DIR})
