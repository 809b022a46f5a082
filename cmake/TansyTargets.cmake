# tansy_platform_library(<name> [PUBLIC <libraries>] [PRIVATE <libraries>])
#
# One folder is one library: its *.cpp and those of the folders in it, without the posix/ or windows/ folders of the other
# system. The libraries are shared ones, because the module and its host live in one process and must meet the same log,
# the same message loops and the same listeners.
function(tansy_platform_library name)
  cmake_parse_arguments(ARG "" "" "PUBLIC;PRIVATE" ${ARGN})
  if(WIN32)
    set(other_system posix)
  else()
    set(other_system windows)
  endif()
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  list(FILTER sources EXCLUDE REGEX "/${other_system}/[^/]*$")
  if(sources)
    add_library(${name} SHARED ${sources})
    set_target_properties(${name} PROPERTIES WINDOWS_EXPORT_ALL_SYMBOLS ON VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${name} PUBLIC "$<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform>"
                                              "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE "$<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform>"
                                                 "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    target_link_libraries(${name} INTERFACE ${ARG_PUBLIC})
  endif()
  add_library(Tansy::${name} ALIAS ${name})
endfunction()

# tansy_test_options(<target>)
#
# Test sources are compiled for speed of compiling: half of the build is theirs. What they test is optimised as ever, and
# carries the undefined-behaviour checks that the tests themselves go without.
function(tansy_test_options target)
  if(NOT MSVC)
    target_compile_options(${target} PRIVATE -O0 -g1)
    if(TANSY_SANITIZE MATCHES "undefined")
      target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
    endif()
  endif()
endfunction()

# tansy_unit_test(<name> SOURCES <files> LINK <libraries>)
#
# A GoogleTest program; each of its cases becomes one ctest entry, found when ctest runs.
function(tansy_unit_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  tansy_test_options(${name})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}/tests")
  target_link_libraries(${name} PRIVATE ${ARG_LINK} GTest::gmock GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120 LABELS unit)
endfunction()
