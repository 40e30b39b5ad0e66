# What `cmake --install` puts under the prefix: libVelmora.so, the public headers, a CMake package
# (find_package(Velmora CONFIG) -> Velmora::Velmora) and velmora.pc. The static velmora_core,
# the test helpers and the benchmarks stay in the build tree.
include(CMakePackageConfigHelpers)

set(VELMORA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Velmora)

install(TARGETS Velmora EXPORT VelmoraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/velmora
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

install(EXPORT VelmoraTargets NAMESPACE Velmora:: DESTINATION ${VELMORA_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VelmoraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VelmoraConfig.cmake INSTALL_DESTINATION ${VELMORA_CMAKE_DIR})
# Mirrors the SONAME: within 0.x only the same minor version promises the same ABI.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(VELMORA_COMPATIBILITY SameMinorVersion)
else()
  set(VELMORA_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelmoraConfigVersion.cmake
  COMPATIBILITY ${VELMORA_COMPATIBILITY})
install(FILES ${PROJECT_BINARY_DIR}/VelmoraConfig.cmake
  ${PROJECT_BINARY_DIR}/VelmoraConfigVersion.cmake DESTINATION ${VELMORA_CMAKE_DIR})

# velmora.pc names its prefix relative to its own directory, so that it stays right when the tree
# is installed with `cmake --install --prefix` elsewhere than configured, or moved afterwards.
set(VELMORA_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${VELMORA_PKGCONFIG_DIR}")
  set(VELMORA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH VELMORA_PC_UP /prefix/${VELMORA_PKGCONFIG_DIR} /prefix)
  string(REGEX REPLACE "/$" "" VELMORA_PC_UP "${VELMORA_PC_UP}")
  set(VELMORA_PC_PREFIX "\${pcfiledir}/${VELMORA_PC_UP}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(VELMORA_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(VELMORA_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
# Only for static linking, which the package does not offer; listed for completeness of the
# library's own needs (threads, and liblog on Android).
set(VELMORA_PC_LIBS_PRIVATE "-pthread")
if(ANDROID)
  string(APPEND VELMORA_PC_LIBS_PRIVATE " -llog")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/velmora.pc.in ${PROJECT_BINARY_DIR}/velmora.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velmora.pc DESTINATION ${VELMORA_PKGCONFIG_DIR})
