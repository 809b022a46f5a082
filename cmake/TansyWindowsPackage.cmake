# A zip for 64-bit Windows, which runs where it is unpacked:
#   cmake --build --preset windows && cpack --config build/windows/CPackConfig.cmake
foreach(library IN LISTS TANSY_RUNTIME_LIBRARIES)
  install(FILES "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${library}" DESTINATION ${CMAKE_INSTALL_BINDIR})
endforeach()
install(FILES README.md LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

# What is linked in is others' work, under terms of theirs.
set(others libssl-dev libsqlite3-dev libpugixml-dev libboost1.81-dev rapidjson-dev libcli11-dev libtomlplusplus-dev
           gcc-mingw-w64-x86-64-posix mingw-w64-x86-64-dev)
foreach(package IN LISTS others)
  if(EXISTS "/usr/share/doc/${package}/copyright")
    install(FILES "/usr/share/doc/${package}/copyright" DESTINATION "${CMAKE_INSTALL_DOCDIR}/licenses" RENAME "${package}.txt")
  endif()
endforeach()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME "TansyCloudStorage-${PROJECT_VERSION}-win64")
set(CPACK_STRIP_FILES ON)
include(CPack)
