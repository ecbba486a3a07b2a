# Modules: one static library for each, all of them together the shared library.
#
# vesk_module(FOLDER [USES folders…] [CALLS folders…] [LINK libraries…]) takes the .cpp files of the folder.
# A module is named by its folder. Its files may include those of the modules in USES, of what these use, and
# the public headers; scripts/check-includes reads these calls and holds the code to them. CALLS names modules
# further up that define functions which a public header declares: linked, never included.

set(VESK_MODULES "" CACHE INTERNAL "")

add_library(vesk_flags INTERFACE)
target_include_directories(vesk_flags INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_options(vesk_flags INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wno-missing-field-initializers
                       -fno-omit-frame-pointer $<$<BOOL:${VESK_WERROR}>:-Werror>
                       $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
# At -O3 GCC 12 sees these in the standard library's own strings, vectors and variants, where they are not;
# the checked builds, which optimise less, look for them.
target_compile_options(vesk_flags INTERFACE
  "$<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release>>:-Wno-restrict;-Wno-array-bounds;-Wno-maybe-uninitialized>")
if(VESK_SANITIZE)
  target_compile_options(vesk_flags INTERFACE -fsanitize=${VESK_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(vesk_flags INTERFACE -fsanitize=${VESK_SANITIZE})
endif()
if(VESK_FUZZ)
  target_compile_options(vesk_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# With VESK_PCH what nearly every file includes is compiled once for all modules, and with GoogleTest for
# all tests. Files include what they use all the same: builds without it hold them to that. With clang only:
# GCC 12 fails to write such headers ("internal compiler error: in gt_pch_save") once in some twenty times,
# by where the kernel happens to place them.
set(VESK_COMMON_HEADERS <algorithm> <atomic> <chrono> <condition_variable> <cstdint> <cstring> <functional> <map>
    <memory> <mutex> <optional> <span> <string> <string_view> <thread> <utility> <vector>)
if(VESK_PCH AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "VESK_PCH takes clang. Leave it OFF, or choose clang with CMAKE_CXX_COMPILER.")
endif()
if(VESK_PCH)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/headers.cpp CONTENT "// Headers are compiled along with a source.\nint main() { return 0; }\n")
  add_library(vesk_headers OBJECT ${CMAKE_BINARY_DIR}/headers.cpp)
  target_link_libraries(vesk_headers PRIVATE vesk_flags)
  target_precompile_headers(vesk_headers PRIVATE ${VESK_COMMON_HEADERS})
endif()

# The targets of the modules of these folders.
function(vesk_targets_of result)
  list(TRANSFORM ARGN REPLACE "/" "_")
  list(TRANSFORM ARGN PREPEND vesk_)
  set(${result} ${ARGN} PARENT_SCOPE)
endfunction()

function(vesk_module folder)
  cmake_parse_arguments(MODULE "" "" "USES;CALLS;LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  vesk_targets_of(target ${folder})
  vesk_targets_of(used ${MODULE_USES})
  vesk_targets_of(called ${MODULE_CALLS})
  if(sources)
    add_library(${target} STATIC ${sources})
    target_link_libraries(${target} PUBLIC vesk_flags ${used} ${called} ${MODULE_LINK})
    set(VESK_MODULES ${VESK_MODULES} ${target} CACHE INTERNAL "")
    if(VESK_PCH)
      target_precompile_headers(${target} REUSE_FROM vesk_headers)
    endif()
  else()
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE vesk_flags ${used} ${called} ${MODULE_LINK})
  endif()
endfunction()

# libvesk: every module whole, hidden but for what is marked for export.
function(vesk_library)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/vesk_library.cpp CONTENT "// A library needs a source of its own.\n")
  add_library(vesk SHARED ${CMAKE_BINARY_DIR}/vesk_library.cpp)
  foreach(module ${VESK_MODULES})
    target_link_libraries(vesk PRIVATE -Wl,--whole-archive $<TARGET_FILE:${module}> -Wl,--no-whole-archive ${module})
  endforeach()
  target_compile_features(vesk INTERFACE cxx_std_20)
  target_include_directories(vesk INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                             $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # What may change its interface has another name: a minor version before 1.0, a major one from then on.
  set(interface_version ${PROJECT_VERSION_MAJOR})
  if(PROJECT_VERSION_MAJOR EQUAL 0)
    string(APPEND interface_version .${PROJECT_VERSION_MINOR})
  endif()
  set_target_properties(vesk PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${interface_version})
  set(map ${PROJECT_SOURCE_DIR}/cmake/vesk.map)
  target_link_options(vesk PRIVATE -Wl,--version-script=${map})
  set_target_properties(vesk PROPERTIES LINK_DEPENDS ${map})
endfunction()
