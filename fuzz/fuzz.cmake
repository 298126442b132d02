# The fuzz targets (cmake -DVORCORE_FUZZ=ON with clang++): the engine's units
# with AddressSanitizer, UndefinedBehaviorSanitizer and libFuzzer's coverage,
# the units that touch the machine replaced by fuzz/edge_stubs.cpp at link
# time, and one program per fuzz/<name>_fuzz.cpp. fuzz/run.sh runs them.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "The fuzz targets need clang++ (cmake -DCMAKE_CXX_COMPILER=clang++ -DVORCORE_FUZZ=ON)")
endif()

set(VORCORE_FUZZ_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
set(VORCORE_EDGE_UNITS
    ${CMAKE_SOURCE_DIR}/src/core/shell.cpp
    ${CMAKE_SOURCE_DIR}/src/core/safe_files.cpp
    ${CMAKE_SOURCE_DIR}/src/link/port_line.cpp)
set(VORCORE_FUZZ_SOURCES ${VORCORE_SOURCES})
list(REMOVE_ITEM VORCORE_FUZZ_SOURCES ${VORCORE_EDGE_UNITS})

add_library(vorcore_fuzz_lib STATIC ${VORCORE_FUZZ_SOURCES}
            ${CMAKE_SOURCE_DIR}/fuzz/edge_stubs.cpp ${CMAKE_SOURCE_DIR}/fuzz/fuzz_support.cpp)
target_include_directories(vorcore_fuzz_lib PUBLIC ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/fuzz)
target_compile_options(vorcore_fuzz_lib PUBLIC ${VORCORE_FUZZ_FLAGS} -fsanitize=fuzzer-no-link)
target_compile_definitions(vorcore_fuzz_lib PRIVATE VORCORE_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
target_link_options(vorcore_fuzz_lib PUBLIC ${VORCORE_FUZZ_FLAGS})
target_link_libraries(vorcore_fuzz_lib PUBLIC Threads::Threads)

file(GLOB VORCORE_FUZZ_TARGETS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/fuzz/*_fuzz.cpp)
foreach(fuzz_source ${VORCORE_FUZZ_TARGETS})
  get_filename_component(fuzz_name ${fuzz_source} NAME_WE)
  add_executable(${fuzz_name} ${fuzz_source})
  target_compile_options(${fuzz_name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${fuzz_name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${fuzz_name} PRIVATE vorcore_fuzz_lib util)
endforeach()
