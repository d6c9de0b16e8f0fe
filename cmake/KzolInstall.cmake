# cmake --install: the library (with its SONAME and version), its headers, the
# kzol command, the host platform stand-ins, kzol.pc and a CMake package
# (find_package(kZOLUser) gives the imported target kZOLUser::kZOLUser).
include(CMakePackageConfigHelpers)

set(KZOL_INCLUDE_DEST ${CMAKE_INSTALL_INCLUDEDIR}/kZOLUser)
set(KZOL_CMAKE_DEST ${CMAKE_INSTALL_LIBDIR}/cmake/kZOLUser)

# The host stand-ins of the platform libraries go with it; on the device the
# platform's own libraries of the same names take their place.
install(TARGETS kZOLUser kzol_platform_headers dlog vconf usb_device EXPORT kZOLUserTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${KZOL_INCLUDE_DEST})
install(FILES
  app/kZOLUser/include/kZOLUser.h
  libbs/src/bs_context.h libbs/src/signature.h libbs/src/string_utils.h libbs/src/verify_context.h
  libbs/src/UnixSocket.h libbs/src/securezone_context.h libbs/src/handles.h
  DESTINATION ${KZOL_INCLUDE_DEST})
install(DIRECTORY platform/include/ DESTINATION ${KZOL_INCLUDE_DEST}/platform)

install(TARGETS kzol_emulate LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TARGET kzol)
  install(TARGETS kzol RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT kZOLUserTargets NAMESPACE kZOLUser:: DESTINATION ${KZOL_CMAKE_DEST})
configure_package_config_file(cmake/kZOLUserConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kZOLUserConfig.cmake INSTALL_DESTINATION ${KZOL_CMAKE_DEST})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kZOLUserConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kZOLUserConfig.cmake ${PROJECT_BINARY_DIR}/kZOLUserConfigVersion.cmake
  DESTINATION ${KZOL_CMAKE_DEST})

# The prefix as seen from the .pc file, so the tree can be installed anywhere.
file(RELATIVE_PATH KZOL_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
configure_file(cmake/kzol.pc.in ${PROJECT_BINARY_DIR}/kzol.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kzol.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
