# Installation: the library, its public headers, a CMake package, a pkg-config file, documents and
# examples. What belongs to a program is installed in apps/.
include(CMakePackageConfigHelpers)

function(vesk_install)
  set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/vesk)

  install(TARGETS vesk EXPORT vesk LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vesk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          FILES_MATCHING PATTERN "*.h")

  install(EXPORT vesk NAMESPACE vesk:: FILE veskTargets.cmake DESTINATION ${package_folder})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/veskConfig.cmake.in ${CMAKE_BINARY_DIR}/veskConfig.cmake
                                INSTALL_DESTINATION ${package_folder})
  set(compatibility SameMajorVersion)
  if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(compatibility SameMinorVersion)
  endif()
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/veskConfigVersion.cmake COMPATIBILITY ${compatibility})
  install(FILES ${CMAKE_BINARY_DIR}/veskConfig.cmake ${CMAKE_BINARY_DIR}/veskConfigVersion.cmake
          DESTINATION ${package_folder})

  # From LIBDIR/pkgconfig up to the prefix, whatever LIBDIR is ("lib", "lib/x86_64-linux-gnu").
  string(REGEX REPLACE "[^/]+" ".." to_prefix "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  set(VESK_PREFIX_FROM_PC "\${pcfiledir}/${to_prefix}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/vesk.pc.in ${CMAKE_BINARY_DIR}/vesk.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/vesk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

  # What is for people and for hosts; how Vesk works inside goes with its source.
  foreach(document controls.md devices.md embedding.md glossary.md linux.md movies.md preview.jpg)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/${document} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
  endforeach()
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
endfunction()
