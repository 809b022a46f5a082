# Everything the project takes from elsewhere; scripts/dependencies.sh installs the same list from Debian's packages.
find_package(Threads REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(pugixml REQUIRED)
find_package(RapidJSON REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(tomlplusplus REQUIRED)

if(TANSY_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

# Debian's rapidjson package describes itself by variables only.
if(NOT TARGET rapidjson)
  add_library(rapidjson INTERFACE)
  target_include_directories(rapidjson SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIRS})
endif()
