# Installation: libraries, headers, CMake package files and pkg-config files.
include(CMakePackageConfigHelpers)

set(VLKR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vlkr)

install(TARGETS vlkr vlkcore EXPORT vlkrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vlkrTargets NAMESPACE vlkr:: DESTINATION ${VLKR_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vlkrConfig.cmake.in
    ${PROJECT_BINARY_DIR}/vlkrConfig.cmake INSTALL_DESTINATION ${VLKR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vlkrConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vlkrConfig.cmake ${PROJECT_BINARY_DIR}/vlkrConfigVersion.cmake
        DESTINATION ${VLKR_CMAKE_DIR})

foreach(pc vlkr vlkcore)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
