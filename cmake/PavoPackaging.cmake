# Installation: the library, its public headers, a CMake package
# (find_package(pavo_media_backend) -> pavo::media_backend) and a pkg-config
# file (pkg-config pavo_media_backend).

set(PAVO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/pavo_media_backend)

install(TARGETS pavo_media_backend
  EXPORT pavo_media_backend_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pavo_media_backend
  FILES_MATCHING PATTERN "*.h")

install(EXPORT pavo_media_backend_targets
  NAMESPACE pavo::
  FILE pavo_media_backendTargets.cmake
  DESTINATION ${PAVO_INSTALL_CMAKEDIR})
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/pavo_media_backendConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pavo_media_backendConfig.cmake
  INSTALL_DESTINATION ${PAVO_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/pavo_media_backendConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/pavo_media_backendConfig.cmake
  ${PROJECT_BINARY_DIR}/pavo_media_backendConfigVersion.cmake
  DESTINATION ${PAVO_INSTALL_CMAKEDIR})

# pkg-config paths: absolute install directories are used as they are,
# relative ones are taken below ${prefix}, which is found from the file's own
# place (${pcfiledir}), so that an install with `cmake --install --prefix`
# or DESTDIR stays correct.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(PAVO_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _pc_up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" _pc_up "${_pc_up}")
  set(PAVO_PC_PREFIX "\${pcfiledir}/${_pc_up}")
endif()
foreach(_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_dir}}")
    set(PAVO_PC_${_dir} "${CMAKE_INSTALL_${_dir}}")
  else()
    set(PAVO_PC_${_dir} "\${prefix}/${CMAKE_INSTALL_${_dir}}")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/pavo_media_backend.pc.in
  ${PROJECT_BINARY_DIR}/pavo_media_backend.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pavo_media_backend.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
