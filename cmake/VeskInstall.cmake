# Installation: the library, its public headers, the program, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)
include(PublicHeaders)

# Answers in `result` the given headers and all headers of ours that they include, from the root.
function(vesk_headers_needed_by result)
  set(waiting ${ARGN})
  set(found "")
  while(waiting)
    list(POP_FRONT waiting header)
    if(NOT header IN_LIST found)
      list(APPEND found ${header})
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${header})
      file(STRINGS ${PROJECT_SOURCE_DIR}/${header} includes REGEX "^#include \"")
      foreach(line ${includes})
        string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" included "${line}")
        list(APPEND waiting ${included})
      endforeach()
    endif()
  endwhile()
  set(${result} ${found} PARENT_SCOPE)
endfunction()

function(vesk_install)
  set(headers_folder ${CMAKE_INSTALL_INCLUDEDIR}/vesk)
  set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/vesk)

  install(TARGETS vesk EXPORT vesk LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  if(TARGET vesk_program)
    install(TARGETS vesk_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
  vesk_headers_needed_by(headers ${VESK_PUBLIC_HEADERS})
  foreach(header ${headers})
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${headers_folder}/${folder})
  endforeach()

  install(EXPORT vesk NAMESPACE vesk:: FILE veskTargets.cmake DESTINATION ${package_folder})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/veskConfig.cmake.in ${CMAKE_BINARY_DIR}/veskConfig.cmake
                                INSTALL_DESTINATION ${package_folder})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/veskConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/veskConfig.cmake ${CMAKE_BINARY_DIR}/veskConfigVersion.cmake
          DESTINATION ${package_folder})

  # From LIBDIR/pkgconfig up to the prefix, whatever LIBDIR is ("lib", "lib/x86_64-linux-gnu").
  string(REGEX REPLACE "[^/]+" ".." to_prefix "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  set(VESK_PREFIX_FROM_PC "\${pcfiledir}/${to_prefix}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/vesk.pc.in ${CMAKE_BINARY_DIR}/vesk.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/vesk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
