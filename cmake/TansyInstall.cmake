# What `cmake --install` puts where, and the package that other projects find.
include(CMakePackageConfigHelpers)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/TansyCloudStorage")
set(platform_libraries logging OSAL HostSystem TansyBase KivPlatform TansyProto TansyNet db_layer sqlbuilder)

set_target_properties(TansyCloudStorage PROPERTIES EXPORT_NAME CloudStorage)
install(TARGETS TansyCloudStorage ${platform_libraries} EXPORT TansyCloudStorageTargets
        LIBRARY DESTINATION ${TANSY_INSTALL_LIBRARIES}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        ARCHIVE DESTINATION ${TANSY_INSTALL_LIBRARIES})
foreach(program tansyd tansy)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

install(DIRECTORY include/TansyCloudStorage DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES platform/KivPlatform/FactoryInterface.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KivPlatform)
# Its headers, which are installed, need it.
target_compile_features(logging PUBLIC cxx_std_20)
install(FILES platform/logging/Logging.h platform/logging/QualifiedName.h platform/logging/Record.h
              platform/logging/StandardSink.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/logging)
install(DIRECTORY host/schema DESTINATION ${CMAKE_INSTALL_DATADIR}/TansyCloudStorage OPTIONAL)

install(EXPORT TansyCloudStorageTargets NAMESPACE Tansy:: DESTINATION ${package_folder})
configure_package_config_file(cmake/TansyCloudStorageConfig.cmake.in
                              "${CMAKE_BINARY_DIR}/TansyCloudStorageConfig.cmake"
                              INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/TansyCloudStorageConfigVersion.cmake"
                                 COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_BINARY_DIR}/TansyCloudStorageConfig.cmake"
              "${CMAKE_BINARY_DIR}/TansyCloudStorageConfigVersion.cmake"
        DESTINATION ${package_folder})
if(MINGW)
  include(TansyWindowsPackage)
endif()
