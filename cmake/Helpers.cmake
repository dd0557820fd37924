# add_subdirectory() for every child folder of DIR that has a CMakeLists.txt, so that
# new components join the build without editing a shared list.
function(as_add_subdirectories dir)
  file(GLOB _children LIST_DIRECTORIES true "${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*")
  list(SORT _children)
  foreach(_child IN LISTS _children)
    if(IS_DIRECTORY "${_child}" AND EXISTS "${_child}/CMakeLists.txt")
      add_subdirectory("${_child}")
    endif()
  endforeach()
endfunction()

# as_add_platform_library(NAME SOURCES... HEADER h [LIBS ...]): a stand-in for one of
# the appliance's own libraries, lib<NAME>.so.1, exporting only what it marks; its
# header is installed below include/appliance_storage/platform. It may use the
# header-only helpers of src/ (core/common/decimal.h) but never links the library.
function(as_add_platform_library name)
  cmake_parse_arguments(P "" "HEADER" "SOURCES;LIBS" ${ARGN})
  add_library(${name} SHARED ${P_SOURCES})
  add_library(ApplianceStorage::${name} ALIAS ${name})
  target_include_directories(${name}
    PUBLIC "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>"
           "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/appliance_storage/platform>"
    PRIVATE "${PROJECT_SOURCE_DIR}/src")
  set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET hidden SOVERSION 1)
  target_link_libraries(${name} PRIVATE as_warnings ${P_LIBS})
  install(FILES ${P_HEADER} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/appliance_storage/platform")
endfunction()

# Every source file learns the name that its errors and traces carry: its path below
# ROOT without the extension ("core/linex/create_process").
function(as_set_source_names root)
  foreach(_src IN LISTS ARGN)
    get_filename_component(_abs "${_src}" ABSOLUTE)
    file(RELATIVE_PATH _rel "${root}" "${_abs}")
    string(REGEX REPLACE "\\.[^./]*$" "" _name "${_rel}")
    set_property(SOURCE "${_abs}" APPEND PROPERTY COMPILE_DEFINITIONS "AS_SOURCE_NAME=\"${_name}\"")
  endforeach()
endfunction()

# as_add_program(NAME SOURCES... [LIBS ...]): a program of the project, with the source
# names and the warnings of the library's own code.
function(as_add_program name)
  cmake_parse_arguments(X "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${X_SOURCES})
  as_set_source_names("${PROJECT_SOURCE_DIR}" ${X_SOURCES})
  target_link_libraries(${name} PRIVATE ${X_LIBS} as_warnings)
endfunction()

# as_add_test(NAME SOURCES... [LIBS ...] [LABELS ...] [TIMEOUT n] [NO_MAIN])
# One GoogleTest program, registered with ctest under the given labels ("unit",
# "machine", "threaded", "vm"). NO_MAIN: the LIBS bring their own main().
function(as_add_test name)
  cmake_parse_arguments(T "NO_MAIN" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  as_add_program(${name} SOURCES ${T_SOURCES} LIBS ${T_LIBS} GTest::gtest GTest::gmock)
  if(NOT T_NO_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
endfunction()

# as_add_bench(NAME SOURCES... [LIBS ...]): a Google Benchmark program.
function(as_add_bench name)
  cmake_parse_arguments(B "" "" "SOURCES;LIBS" ${ARGN})
  find_package(benchmark REQUIRED)
  as_add_program(${name} SOURCES ${B_SOURCES} LIBS ${B_LIBS} benchmark::benchmark)
endfunction()

# as_add_fuzzer(NAME SOURCES... [LIBS ...] [CORPUS dir] [SECONDS n]): a libFuzzer
# target, registered with ctest (label "fuzz") to run for a bounded time from its
# seed corpus. Built only with clang (AS_BUILD_FUZZ).
function(as_add_fuzzer name)
  cmake_parse_arguments(F "" "CORPUS;SECONDS" "SOURCES;LIBS" ${ARGN})
  as_add_program(${name} SOURCES ${F_SOURCES} LIBS ${F_LIBS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  if(NOT F_SECONDS)
    set(F_SECONDS 60)
  endif()
  set(_work "${CMAKE_CURRENT_BINARY_DIR}/${name}_corpus")
  file(MAKE_DIRECTORY "${_work}")
  set(_args "${_work}")
  if(F_CORPUS)
    list(APPEND _args "${F_CORPUS}")
  endif()
  add_test(NAME ${name} COMMAND ${name} -max_total_time=${F_SECONDS} -timeout=10 -rss_limit_mb=2048
           -print_final_stats=1 ${_args})
  set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 600)
endfunction()
