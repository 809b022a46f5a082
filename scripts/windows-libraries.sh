#!/usr/bin/env bash
# Builds the libraries that the Windows build links with, static, for 64-bit Windows: OpenSSL, SQLite, pugixml and
# GoogleTest. They come from Debian's source packages, in the versions of the installed development packages. Libraries
# that are headers only are linked to from a folder of their own, because /usr/include belongs to this system.
#
# All is kept in ${XDG_CACHE_HOME:-~/.cache}/tansy/windows, or in $TANSY_WINDOWS_LIBRARIES. What is there in the version
# wanted is not built again; a second call takes no time and no network.
# usage: scripts/windows-libraries.sh
set -euo pipefail

home=${TANSY_WINDOWS_LIBRARIES:-${XDG_CACHE_HOME:-$HOME/.cache}/tansy/windows}
prefix=$home/prefix
compiler=x86_64-w64-mingw32
recipe=1  # of this script: a higher number builds all libraries again

mkdir -p "$home" "$prefix"/{include,lib,stamps}
exec 9>"$home/lock"
flock 9

build=$(mktemp -d "$home/build-XXXXXX")
trap 'rm -rf "$build"' EXIT

launcher=
if command -v ccache >/dev/null; then
  launcher=ccache
fi

# source_version PACKAGE: the version of the source package from which an installed package was built.
source_version() {
  dpkg-query -W -f='${source:Version}' "$1"
}

# with_sources TOOL ARGUMENT...: apt-get or apt-cache, with a list of sources, and a memory of it, that are this script's own.
with_sources() {
  local apt=$home/apt tool=$1
  shift
  "$tool" -o "Dir::Etc::sourcelist=$apt/sources.list" -o Dir::Etc::sourceparts=- -o "Dir::State::lists=$apt/lists" \
    -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= -o APT::Sandbox::User=root "$@"
}

# Sources come from where this machine has its packages from.
update_sources() {
  local apt=$home/apt suite keys=/usr/share/keyrings/debian-archive-keyring.gpg
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  mkdir -p "$apt/lists/partial"
  apt-get indextargets --format "deb-src [signed-by=$keys] \$(SITE) \$(RELEASE) \$(COMPONENT)" 'Created-By: Packages' |
    grep -E " $suite(-updates|-security)? main\$" | sort -u >"$apt/sources.list"
  if [[ ! -s $apt/sources.list ]]; then
    echo "this machine takes its packages from no Debian archive"
    return 1
  fi
  with_sources apt-get update -qq
}

# fetch SOURCE VERSION: unpacks a source package into $build/SOURCE. When Debian does not offer this version any more, the
# newest one is taken that it does offer.
fetch() {
  if [[ ! -e $build/updated ]]; then
    update_sources
    touch "$build/updated"
  fi
  local version offered
  offered=$(with_sources apt-cache showsrc --only-source "$1" | sed -n 's/^Version: //p' | sort -rV)
  cd "$build"
  for version in "$2" $offered; do
    rm -f "$1"_*
    if with_sources apt-get source -qq --download-only --only-source "$1=$version"; then
      dpkg-source --extract "$1"_*.dsc "$1"
      return
    fi
  done
  echo "$1 cannot be fetched in any version"
  return 1
}

# once NAME VERSION FUNCTION: runs the function unless it succeeded for this version before.
once() {
  local stamp=$prefix/stamps/$1 want="$2 recipe $recipe"
  if [[ -e $stamp && $(<"$stamp") == "$want" ]]; then
    return
  fi
  echo "windows-libraries: building $1 $2"
  rm -f "$stamp"
  local log=$home/$1.log
  # In a condition the shell would go on after a failing command of the function.
  local status=0
  set +e
  (set -e; "$3" "$2") >"$log" 2>&1
  status=$?
  set -e
  if ((status != 0)); then
    tail -n 40 "$log" >&2
    echo "windows-libraries: $1 could not be built; all that was printed is in $log" >&2
    exit 1
  fi
  echo "$want" >"$stamp"
}

# with_cmake FOLDER OPTIONS...: configures, builds and installs.
with_cmake() {
  local folder=$1
  shift
  cmake -S "$folder" -B "$folder.build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF -DCMAKE_SYSTEM_NAME=Windows \
    -DCMAKE_SYSTEM_PROCESSOR=x86_64 -DCMAKE_C_COMPILER=$compiler-gcc-posix -DCMAKE_CXX_COMPILER=$compiler-g++-posix \
    ${launcher:+-DCMAKE_C_COMPILER_LAUNCHER=$launcher -DCMAKE_CXX_COMPILER_LAUNCHER=$launcher} "$@"
  cmake --build "$folder.build"
  cmake --install "$folder.build"
}

build_openssl() {
  fetch openssl "$1"
  cd "$build/openssl"
  # Where programs look for settings and certificates: a folder that only administrators write. Configure takes the name for
  # one of this system, so it is put into the makefile.
  local settings=/openssl-settings
  perl Configure mingw64 no-shared no-tests no-module no-legacy no-engine no-dso no-idea no-mdc2 no-rc5 no-ssl3 \
    no-ssl3-method --prefix="$prefix" --libdir=lib --openssldir="$settings" \
    CC="${launcher:+$launcher }$compiler-gcc-posix" AR=$compiler-ar RANLIB=$compiler-ranlib RC=$compiler-windres
  sed -i -E "s#$settings#C:/Program Files/Common Files/SSL#; s#^(ENGINESDIR|MODULESDIR)=.*#\1=C:/Program Files/Common Files/SSL#" Makefile
  make -j"$(nproc)" build_libs
  make install_dev
}

build_sqlite() {
  fetch sqlite3 "$1"
  cd "$build/sqlite3"
  ./configure --disable-tcl --disable-readline
  make sqlite3.c sqlite3.h
  $launcher $compiler-gcc-posix -O2 -DSQLITE_THREADSAFE=1 -DSQLITE_ENABLE_COLUMN_METADATA -DSQLITE_ENABLE_DBSTAT_VTAB \
    -DSQLITE_SECURE_DELETE -DSQLITE_ENABLE_UNLOCK_NOTIFY -DSQLITE_MAX_VARIABLE_NUMBER=250000 -c sqlite3.c -o sqlite3.o
  rm -f "$prefix/lib/libsqlite3.a"
  $compiler-ar crs "$prefix/lib/libsqlite3.a" sqlite3.o
  cp sqlite3.h "$prefix/include/"
}

build_pugixml() {
  fetch pugixml "$1"
  with_cmake "$build/pugixml"
}

# Debian's googletest package is the source.
build_googletest() {
  cp -r /usr/src/googletest "$build/googletest"
  with_cmake "$build/googletest" -DCMAKE_CXX_STANDARD=17
}

# headers_only PACKAGE TARGET ENTRY...: links to headers of /usr/include, and a CMake package that names their folder.
headers_only() {
  local package=$1 target=$2 entry
  shift 2
  for entry in "$@"; do
    ln -sfn "/usr/include/$entry" "$prefix/include/$entry"
  done
  mkdir -p "$prefix/lib/cmake/$package"
  cat >"$prefix/lib/cmake/$package/${package}Config.cmake" <<END
get_filename_component(headers "\${CMAKE_CURRENT_LIST_DIR}/../../../include" ABSOLUTE)
if(NOT TARGET $target)
  add_library($target INTERFACE IMPORTED)
  set_target_properties($target PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "\${headers}")
endif()
END
}

once openssl "$(source_version libssl-dev)" build_openssl
once sqlite "$(source_version libsqlite3-dev)" build_sqlite
once pugixml "$(source_version libpugixml-dev)" build_pugixml
once googletest "$(source_version googletest)" build_googletest
ln -sfn /usr/include/boost "$prefix/include/boost"
headers_only RapidJSON rapidjson rapidjson
headers_only CLI11 CLI11::CLI11 CLI
headers_only tomlplusplus tomlplusplus::tomlplusplus toml++
