# 64-bit Windows, by Debian's MinGW-w64 with POSIX threads. The libraries come from scripts/windows-libraries.sh.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 10.0)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

if(DEFINED ENV{TANSY_WINDOWS_LIBRARIES})
  set(tansy_windows_libraries "$ENV{TANSY_WINDOWS_LIBRARIES}")
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(tansy_windows_libraries "$ENV{XDG_CACHE_HOME}/tansy/windows")
else()
  set(tansy_windows_libraries "$ENV{HOME}/.cache/tansy/windows")
endif()
set(CMAKE_FIND_ROOT_PATH "${tansy_windows_libraries}/prefix" /usr/x86_64-w64-mingw32)
set(CMAKE_PREFIX_PATH "${tansy_windows_libraries}/prefix")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(OPENSSL_USE_STATIC_LIBS ON)

# The compiler's own libraries, which the programs load.
set(TANSY_RUNTIME_LIBRARIES libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)

# Programs of the build that have to run here, tests among them, do so under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../../scripts/wine.sh")
