# The package for Debian: what it holds besides the installed files, and what it says of itself. scripts/package.sh builds it.
if(NOT UNIX OR CMAKE_CROSSCOMPILING)
  return()
endif()

set(debian "${CMAKE_SOURCE_DIR}/dist/debian")
set(debian_build "${CMAKE_BINARY_DIR}/debian")
configure_file("${debian}/changelog.in" "${debian_build}/changelog" @ONLY)

# These files belong to the package alone, so that an installation without it does not bring a service along.
function(tansy_debian_file source destination)
  cmake_parse_arguments(ARG "COMPRESSED" "NAME" "" ${ARGN})
  get_filename_component(name "${source}" NAME)
  if(ARG_NAME)
    set(name "${ARG_NAME}")
  endif()
  if(NOT ARG_COMPRESSED)
    install(FILES "${source}" DESTINATION "${destination}" RENAME "${name}" COMPONENT debian EXCLUDE_FROM_ALL)
    return()
  endif()
  # The file may come from the build, so that it is compressed when the package is made. -n leaves the time out.
  install(CODE "execute_process(COMMAND gzip -9nc \"${source}\" OUTPUT_FILE \"${debian_build}/${name}.gz\" COMMAND_ERROR_IS_FATAL ANY)"
          COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES "${debian_build}/${name}.gz" DESTINATION "${destination}" COMPONENT debian EXCLUDE_FROM_ALL)
endfunction()

set(doc share/doc/tansyd)
tansy_debian_file("${debian}/tansyd.service" lib/systemd/system)
tansy_debian_file("${debian}/tansyd.socket" lib/systemd/system)
tansy_debian_file("${debian}/tansyd.sysusers" lib/sysusers.d NAME tansyd.conf)
tansy_debian_file("${debian}/tansyd.tmpfiles" lib/tmpfiles.d NAME tansyd.conf)
tansy_debian_file("${debian}/tansyd.toml" share/tansyd)
tansy_debian_file("${CMAKE_SOURCE_DIR}/dist/tansyd.rules.yml" share/tansyd)
tansy_debian_file("${CMAKE_SOURCE_DIR}/dist/tansyd.dashboard.json" share/tansyd)
tansy_debian_file("${CMAKE_BINARY_DIR}/man/tansyd.bash" share/bash-completion/completions NAME tansyd)
tansy_debian_file("${CMAKE_BINARY_DIR}/man/tansy.bash" share/bash-completion/completions NAME tansy)
tansy_debian_file("${CMAKE_BINARY_DIR}/man/tansyd.8" share/man/man8 COMPRESSED)
tansy_debian_file("${CMAKE_BINARY_DIR}/man/tansyd.toml.5" share/man/man5 COMPRESSED)
tansy_debian_file("${CMAKE_BINARY_DIR}/man/tansy.1" share/man/man1 COMPRESSED)
tansy_debian_file("${debian_build}/changelog" ${doc} COMPRESSED)
tansy_debian_file("${CMAKE_SOURCE_DIR}/CHANGELOG.md" ${doc} COMPRESSED)
tansy_debian_file("${debian}/copyright" ${doc})
tansy_debian_file("${CMAKE_SOURCE_DIR}/README.md" ${doc})
file(GLOB pages CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/docs/*.md")
foreach(page IN LISTS pages)
  tansy_debian_file("${page}" ${doc}/docs)
endforeach()
install(DIRECTORY DESTINATION /etc/tansyd COMPONENT debian EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tansyd)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_CONTACT "The developers of TansyCloudStorage <tansyd@packages.debian.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "cloud-storage server with object, picture and S3 protocols")
set(CPACK_PACKAGE_DESCRIPTION
    "tansyd keeps objects and pictures of its clients in a data folder, a
PostgreSQL database or a Ceph pool, and serves them by HTTP and HTTPS. The
S3 protocol lets the usual clients and libraries use it. tansy is its
command-line client.
.
The package also holds the library that puts server and clients into a
program of your own, with its headers.")
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};Unspecified;/"
                                 "${CMAKE_BINARY_DIR};${PROJECT_NAME};debian;/")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                                WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "debconf (>= 0.5) | debconf-2.0, systemd | systemd-standalone-sysusers | systemd-sysusers, systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "librados2, postgresql, prometheus")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${debian}/postinst" "${debian}/prerm" "${debian}/postrm" "${debian}/config"
                                       "${debian}/templates")
include(CPack)
