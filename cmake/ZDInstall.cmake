# Installs the shared library, its public headers (private *_p.h headers stay
# behind), a CMake package (find_package(ZDPublish) and ZDPublish::ZDPublish)
# and a pkg-config file (zdpublish).
include(CMakePackageConfigHelpers)

install(TARGETS zdpublish EXPORT ZDPublishTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zdpublish)

foreach(layer core net resources auth toolkit host publish)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/${layer}/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zdpublish/${layer}
        FILES_MATCHING PATTERN "*.h" PATTERN "*_p.h" EXCLUDE)
endforeach()
# Found by core/zdglobal.h beside itself.
install(FILES ${ZD_GENERATED_INCLUDE_DIR}/zdpublish_export.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zdpublish/core)

set(ZD_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZDPublish)
install(EXPORT ZDPublishTargets NAMESPACE ZDPublish:: DESTINATION ${ZD_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ZDPublishConfig.cmake.in
    ${PROJECT_BINARY_DIR}/ZDPublishConfig.cmake INSTALL_DESTINATION ${ZD_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZDPublishConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZDPublishConfig.cmake
    ${PROJECT_BINARY_DIR}/ZDPublishConfigVersion.cmake DESTINATION ${ZD_CMAKE_DIR})

# The .pc file finds its prefix relative to itself, so an installed tree can move.
file(RELATIVE_PATH ZD_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zdpublish.pc.in ${PROJECT_BINARY_DIR}/zdpublish.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zdpublish.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
