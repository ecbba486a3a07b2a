# The rooms of the house: one static library each, all of them together the shared library.

set(VESK_ROOMS "" CACHE INTERNAL "")

add_library(vesk_flags INTERFACE)
target_include_directories(vesk_flags INTERFACE ${PROJECT_SOURCE_DIR})
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

# With VESK_PCH what nearly every file includes is compiled once for all rooms, and with GoogleTest for
# all tests. Files include what they use all the same: builds without it hold them to that.
set(VESK_COMMON_HEADERS <algorithm> <atomic> <chrono> <condition_variable> <cstdint> <cstring> <functional> <map>
    <memory> <mutex> <optional> <span> <string> <string_view> <thread> <utility> <vector>)
if(VESK_PCH)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/headers.cpp CONTENT "// Headers are compiled along with a source.\nint main() { return 0; }\n")
  add_library(vesk_headers OBJECT ${CMAKE_BINARY_DIR}/headers.cpp)
  target_link_libraries(vesk_headers PRIVATE vesk_flags)
  target_precompile_headers(vesk_headers PRIVATE ${VESK_COMMON_HEADERS})
endif()

# vesk_room(NAME DIR folder [USES rooms…] [LINK libraries…]): all .cpp files below the folder.
function(vesk_room name)
  cmake_parse_arguments(ROOM "" "DIR" "USES;LINK" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${ROOM_DIR}/*.cpp)
  list(TRANSFORM ROOM_USES PREPEND vesk_)
  if(sources)
    add_library(vesk_${name} STATIC ${sources})
    target_link_libraries(vesk_${name} PUBLIC vesk_flags ${ROOM_USES} ${ROOM_LINK})
    set(VESK_ROOMS ${VESK_ROOMS} vesk_${name} CACHE INTERNAL "")
    if(VESK_PCH)
      target_precompile_headers(vesk_${name} REUSE_FROM vesk_headers)
    endif()
  else()
    add_library(vesk_${name} INTERFACE)
    target_link_libraries(vesk_${name} INTERFACE vesk_flags ${ROOM_USES} ${ROOM_LINK})
  endif()
endfunction()

# libvesk: every room whole, hidden but for what is marked for export.
function(vesk_library)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/vesk_library.cpp CONTENT "// A library needs a source of its own.\n")
  add_library(vesk SHARED ${CMAKE_BINARY_DIR}/vesk_library.cpp)
  foreach(room ${VESK_ROOMS})
    target_link_libraries(vesk PRIVATE -Wl,--whole-archive $<TARGET_FILE:${room}> -Wl,--no-whole-archive ${room})
  endforeach()
  target_include_directories(vesk INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:include/vesk>)
  set_target_properties(vesk PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
endfunction()
