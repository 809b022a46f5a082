# tansy_platform_library(<name> [PUBLIC <libraries>] [PRIVATE <libraries>] [EXCLUDE <regular expression of sources>])
#
# One folder is one library: its *.cpp and those of the folders in it, without the posix/ or windows/ folders of the other
# system. The libraries are shared ones, because the module and its host live in one process and must meet the same log,
# the same message loops and the same listeners.
function(tansy_platform_library name)
  cmake_parse_arguments(ARG "" "EXCLUDE" "PUBLIC;PRIVATE" ${ARGN})
  if(WIN32)
    set(other_system posix)
  else()
    set(other_system windows)
  endif()
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  list(FILTER sources EXCLUDE REGEX "/${other_system}/[^/]*$")
  if(ARG_EXCLUDE)
    list(FILTER sources EXCLUDE REGEX "${ARG_EXCLUDE}")
  endif()
  if(sources)
    add_library(${name} SHARED ${sources})
    set_target_properties(${name} PROPERTIES WINDOWS_EXPORT_ALL_SYMBOLS ON VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${name} PUBLIC "$<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform>"
                                              "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
    if(MINGW)
      # The libraries of others that are linked in stay this library's own affair.
      target_link_options(${name} PRIVATE -Wl,--export-all-symbols -Wl,--exclude-libs,ALL)
    elseif(NOT WIN32)
      set(hidden "${CMAKE_SOURCE_DIR}/cmake/HideBoost.map")
      target_link_options(${name} PRIVATE "-Wl,--version-script=${hidden}")
      set_target_properties(${name} PROPERTIES LINK_DEPENDS "${hidden}")
    endif()
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
  if(WIN32)
    target_link_libraries(${target} PRIVATE TansyTestWindows)
  endif()
  if(NOT MSVC)
    target_compile_options(${target} PRIVATE -O0 -g1)
    if(TANSY_SANITIZE MATCHES "undefined")
      target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
    endif()
  endif()
endfunction()

# tansy_unit_test(<name> SOURCES <files> LINK <libraries> [ON_POSTGRESQL <filter>] [WITHOUT_POSTGRESQL <filter>] [ON_CEPH <filter>]
#                 [ON_CEPH_TOO <filter>])
#
# A GoogleTest program; each of its cases becomes one ctest entry, found when ctest runs. ON_POSTGRESQL: these cases run
# once more with a PostgreSQL server of their own, as one entry, because each process starts a server.
# WITHOUT_POSTGRESQL: these cases run there only. ON_CEPH: these cases need a Ceph cluster, and run as one entry for the same
# reason. ON_CEPH_TOO: these cases keep bytes in a pool there, and in a folder elsewhere.
function(tansy_unit_test name)
  cmake_parse_arguments(ARG "" "ON_POSTGRESQL;WITHOUT_POSTGRESQL;ON_CEPH;ON_CEPH_TOO" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  tansy_test_options(${name})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}/tests")
  target_link_libraries(${name} PRIVATE ${ARG_LINK} GTest::gmock GTest::gtest_main Threads::Threads)
  set(others ${ARG_WITHOUT_POSTGRESQL} ${ARG_ON_CEPH})
  set(filter "*")
  if(others)
    list(JOIN others ":" others)
    set(filter "-${others}")
  endif()
  if(WIN32)
    target_link_libraries(${name} PRIVATE TansyTestPostgres TansyTestCeph)
    tansy_windows_test(${name} ${others})
    return()
  endif()
  gtest_discover_tests(${name} TEST_FILTER "${filter}" DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120 LABELS unit)
  if(ARG_ON_POSTGRESQL)
    target_link_libraries(${name} PRIVATE TansyTestPostgres)
    tansy_postgresql_test(${name} "${ARG_ON_POSTGRESQL}" unit)
  endif()
  if(ARG_ON_CEPH)
    target_link_libraries(${name} PRIVATE TansyTestCeph)
    tansy_ceph_test(${name} "${ARG_ON_CEPH}:${ARG_ON_CEPH_TOO}" unit)
  endif()
endfunction()

# tansy_windows_test(<program> <filter of cases that need a server of another kind>...)
#
# A whole test program is one ctest entry, because under Wine the start of a process costs more than most tests. The cases
# that tests/windows/left_out/<program>.txt names, each with its reason, are left out and printed beside those that ran.
function(tansy_windows_test name)
  add_test(NAME windows.${name}
           COMMAND bash "${CMAKE_SOURCE_DIR}/tests/windows/run.sh" "$<TARGET_FILE:${name}>"
                   "${CMAKE_SOURCE_DIR}/tests/windows/left_out/${name}.txt" ${ARGN})
  set_tests_properties(windows.${name} PROPERTIES TIMEOUT 900 LABELS windows)
endfunction()

# tansy_postgresql_test(<program> <filter> <label>)
#
# One ctest entry that runs these cases of a program on PostgreSQL.
function(tansy_postgresql_test name filter label)
  add_test(NAME postgresql.${name} COMMAND ${name} "--gtest_filter=${filter}")
  set_tests_properties(postgresql.${name} PROPERTIES TIMEOUT 300 LABELS "${label};postgresql"
                                                     ENVIRONMENT TANSY_TEST_DATABASE=postgresql)
endfunction()

# tansy_ceph_test(<program> <filter> <label>)
#
# One ctest entry that runs these cases of a program on a Ceph cluster of their own.
function(tansy_ceph_test name filter label)
  add_test(NAME ceph.${name} COMMAND ${name} "--gtest_filter=${filter}")
  set(environment TANSY_TEST_STORAGE=rados)
  if(TANSY_SANITIZE MATCHES "thread")
    list(APPEND environment
         "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=${CMAKE_SOURCE_DIR}/tests/fakes/ceph.tsan")
  endif()
  set_tests_properties(ceph.${name} PROPERTIES TIMEOUT 300 LABELS "${label};ceph" RESOURCE_LOCK ceph
                                              ENVIRONMENT "${environment}")
endfunction()
