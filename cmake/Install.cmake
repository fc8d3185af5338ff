# cmake --install: the module and the engine runtime libraries, the headers a game needs to
# call the module, a CMake package (find_package(OrvexClient)) and a pkg-config file
# (orvex-client), the tools when they are built, and the licence.
include(CMakePackageConfigHelpers)

set(ORVEX_LIBRARIES client game OrvexNet OrvexFileSystem OrvexCpu)
install(TARGETS ${ORVEX_LIBRARIES} EXPORT OrvexClientTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The module's interface and the platform declarations it names. Nothing of the engine
# runtime's own.
install(FILES ${CMAKE_SOURCE_DIR}/src/client/Client.h DESTINATION ${ORVEX_INSTALL_INCLUDEDIR}/client)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/ DESTINATION ${ORVEX_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

set(_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OrvexClient)
install(EXPORT OrvexClientTargets NAMESPACE Orvex:: DESTINATION ${_package_dir})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/OrvexClientConfig.cmake.in
  ${CMAKE_BINARY_DIR}/OrvexClientConfig.cmake INSTALL_DESTINATION ${_package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/OrvexClientConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/OrvexClientConfig.cmake
              ${CMAKE_BINARY_DIR}/OrvexClientConfigVersion.cmake DESTINATION ${_package_dir})

file(RELATIVE_PATH ORVEX_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_SOURCE_DIR}/cmake/orvex-client.pc.in ${CMAKE_BINARY_DIR}/orvex-client.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/orvex-client.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

foreach(_tool game-server game-client replica-svg replica-diff)
  if(TARGET ${_tool})
    install(TARGETS ${_tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
