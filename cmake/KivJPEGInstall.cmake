# Installation: the shared library with its version links, both public
# headers, a pkg-config file and a CMake package (find_package(KivJPEG)
# gives the imported target KivJPEG::KivJPEG).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS KivJPEG EXPORT KivJPEGTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/kivjpeg.h ${PROJECT_SOURCE_DIR}/include/kivjpeg.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(KIV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivJPEG)
install(EXPORT KivJPEGTargets NAMESPACE KivJPEG:: DESTINATION ${KIV_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KivJPEGConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/KivJPEGConfig.cmake
                              INSTALL_DESTINATION ${KIV_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KivJPEGConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KivJPEGConfig.cmake
              ${PROJECT_BINARY_DIR}/KivJPEGConfigVersion.cmake
        DESTINATION ${KIV_CMAKE_DIR})

# The .pc file finds its prefix from its own place, so that
# `cmake --install --prefix DIR` works for any DIR.
file(RELATIVE_PATH KIV_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KIV_PC_TO_PREFIX "${KIV_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/kivjpeg.pc.in ${PROJECT_BINARY_DIR}/kivjpeg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kivjpeg.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
