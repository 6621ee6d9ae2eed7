include(CMakePackageConfigHelpers)

install(TARGETS pointcloud_preprocess hspc EXPORT pointcloud_preprocessTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS pcprep RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The public headers keep their folders, so a host includes them as "core/InputFileData.h" and so on.
foreach(folder geom core services cachefiles octree importers exporters scanview hspc)
  install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pointcloud_preprocess
    FILES_MATCHING PATTERN "*.h")
endforeach()

set(PCP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/pointcloud_preprocess)
install(EXPORT pointcloud_preprocessTargets NAMESPACE pointcloud_preprocess:: DESTINATION ${PCP_CMAKE_DIR})
configure_package_config_file(cmake/pointcloud_preprocessConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/pointcloud_preprocessConfig.cmake INSTALL_DESTINATION ${PCP_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/pointcloud_preprocessConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pointcloud_preprocessConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/pointcloud_preprocessConfigVersion.cmake DESTINATION ${PCP_CMAKE_DIR})

# The prefix is found relative to the .pc file, so an installed tree can be moved.
file(RELATIVE_PATH PCP_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" PCP_PC_TO_PREFIX "${PCP_PC_TO_PREFIX}")
configure_file(cmake/pointcloud_preprocess.pc.in ${CMAKE_CURRENT_BINARY_DIR}/pointcloud_preprocess.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pointcloud_preprocess.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
