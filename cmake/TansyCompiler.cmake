# What every target of the project is compiled with.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()

find_program(TANSY_CCACHE ccache)
if(TANSY_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${TANSY_CCACHE}")
endif()

if(MSVC)
  add_compile_options(/W4 /WX /permissive- /utf-8 /Zc:__cplusplus)
  add_compile_definitions(_WIN32_WINNT=0x0A00 NOMINMAX)
else()
  add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wformat=2
                      -Werror)
  # Source paths in log lines and debug information start at the project's folder, wherever it was built.
  add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-fno-semantic-interposition -Wno-error=maybe-uninitialized)
  endif()
  if(NOT WIN32)
    add_link_options(-Wl,--as-needed)
  endif()
endif()
if(MINGW)
  # Formats are checked by the native build; here they would be held against a C library that does not know all of them.
  # Pragmas are those that name libraries to Microsoft's linker.
  add_compile_options(-Wno-format -Wno-format-extra-args -Wno-unknown-pragmas)
  add_compile_definitions(_WIN32_WINNT=0x0A00 NOMINMAX)
endif()

if(TANSY_SANITIZE)
  add_compile_options(-fsanitize=${TANSY_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TANSY_SANITIZE})
  if(TANSY_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Asio's fences are beyond what the sanitizer follows; it says so for each of them.
    add_compile_options(-Wno-tsan)
  endif()
endif()
