# cmake --install, in three components:
#   Runtime      libkZOLUser.so.1 (with its SONAME and version): all a device image takes
#   Development  the public header, the class headers under kZOLUser/internal/,
#                the platform's C headers, kzol.pc and the CMake package
#                (find_package(kZOLUser) gives the imported target kZOLUser::kZOLUser)
#   Tools        kzol, its man page, the device emulation, and the host stand-ins
#                of the platform libraries for PCs
# A plain `cmake --install` takes all three. The stand-ins carry the names of the
# platform's own libraries (libdlog.so.0, libvconf.so.0, libusb_device.so.0), so
# they go to a directory of their own, <libdir>/kzol, never into <libdir>.
include(CMakePackageConfigHelpers)

set(KZOL_INCLUDE_DEST ${CMAKE_INSTALL_INCLUDEDIR}/kZOLUser)
set(KZOL_CMAKE_DEST ${CMAKE_INSTALL_LIBDIR}/cmake/kZOLUser)
set(KZOL_HOST_LIB_DEST ${CMAKE_INSTALL_LIBDIR}/kzol)

install(TARGETS kZOLUser kzol_platform_headers EXPORT kZOLUserTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${KZOL_INCLUDE_DEST})
install(FILES app/kZOLUser/include/kZOLUser.h DESTINATION ${KZOL_INCLUDE_DEST} COMPONENT Development)
# The class headers, and every header they include (block_layout.h comes with
# signature.h): each compiles on its own in a consumer (tests/check_install.sh).
install(FILES
  libbs/src/bs_context.h libbs/src/signature.h libbs/src/block_layout.h libbs/src/string_utils.h
  libbs/src/verify_context.h libbs/src/UnixSocket.h libbs/src/securezone_context.h libbs/src/handles.h
  app/kZOLUser/src/main.h
  DESTINATION ${KZOL_INCLUDE_DEST}/internal COMPONENT Development)
install(DIRECTORY platform/include/ DESTINATION ${KZOL_INCLUDE_DEST}/platform COMPONENT Development)

install(EXPORT kZOLUserTargets NAMESPACE kZOLUser:: DESTINATION ${KZOL_CMAKE_DEST} COMPONENT Development)
configure_package_config_file(cmake/kZOLUserConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kZOLUserConfig.cmake INSTALL_DESTINATION ${KZOL_CMAKE_DEST})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kZOLUserConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kZOLUserConfig.cmake ${PROJECT_BINARY_DIR}/kZOLUserConfigVersion.cmake
  DESTINATION ${KZOL_CMAKE_DEST} COMPONENT Development)

# The prefix as seen from the .pc file, so the tree can be installed anywhere.
file(RELATIVE_PATH KZOL_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
configure_file(cmake/kzol.pc.in ${PROJECT_BINARY_DIR}/kzol.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kzol.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

install(TARGETS dlog vconf usb_device LIBRARY DESTINATION ${KZOL_HOST_LIB_DEST} COMPONENT Tools NAMELINK_SKIP)
install(TARGETS kzol_emulate LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Tools)
if(TARGET kzol)
  install(TARGETS kzol RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  install(FILES ${PROJECT_BINARY_DIR}/tools/kzol/kzol.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)
endif()
