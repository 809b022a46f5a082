# Everything the project takes from elsewhere; scripts/dependencies.sh installs the same list from Debian's packages.
find_package(Threads REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(pugixml REQUIRED)
find_package(RapidJSON REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(tomlplusplus REQUIRED)

# libpq is the one that may be missing. It is looked for here, because CMake's own module wants the server's headers too.
find_path(LIBPQ_INCLUDE_DIR libpq-fe.h PATH_SUFFIXES postgresql)
find_library(LIBPQ_LIBRARY NAMES pq libpq)
mark_as_advanced(LIBPQ_INCLUDE_DIR LIBPQ_LIBRARY)
if(LIBPQ_INCLUDE_DIR AND LIBPQ_LIBRARY AND NOT TARGET PostgreSQL::libpq)
  add_library(PostgreSQL::libpq UNKNOWN IMPORTED)
  set_target_properties(PostgreSQL::libpq PROPERTIES IMPORTED_LOCATION "${LIBPQ_LIBRARY}"
                                                     INTERFACE_INCLUDE_DIRECTORIES "${LIBPQ_INCLUDE_DIR}")
elseif(NOT LIBPQ_LIBRARY)
  message(STATUS "libpq is not installed: built without PostgreSQL")
endif()

if(TANSY_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

# Debian's rapidjson package describes itself by variables only.
if(NOT TARGET rapidjson)
  add_library(rapidjson INTERFACE)
  target_include_directories(rapidjson SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIRS})
endif()
