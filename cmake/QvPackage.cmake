# What `cmake --install` adds beyond the targets: the CMake package, the
# version header, man pages, the sample configuration and the valgrind
# suppressions.
include(CMakePackageConfigHelpers)

set(_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/qv_sec)
install(EXPORT qv_secTargets NAMESPACE qv_sec:: DESTINATION ${_cmakedir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qv_secConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/qv_secConfig.cmake
  INSTALL_DESTINATION ${_cmakedir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
# The library's interface only grows within a major version (SONAME .1).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/qv_secConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/qv_secConfig.cmake ${PROJECT_BINARY_DIR}/cmake/qv_secConfigVersion.cmake
  DESTINATION ${_cmakedir})

install(FILES ${PROJECT_BINARY_DIR}/include/qv_sec_version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Man pages carry the version; the build tree holds them as installed
# (share/man/manN), where the man-page test reads them.
file(GLOB _pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.[1-8])
set(QV_MAN_PAGES "")
foreach(_page ${_pages})
  get_filename_component(_name ${_page} NAME)
  string(REGEX REPLACE ".*\\.([1-8])$" "\\1" _section ${_name})
  set(_out ${PROJECT_BINARY_DIR}/share/man/man${_section}/${_name})
  configure_file(${_page} ${_out} @ONLY)
  install(FILES ${_out} DESTINATION ${CMAKE_INSTALL_DATADIR}/man/man${_section})
  list(APPEND QV_MAN_PAGES ${_out})
endforeach()

# The sample configuration names the modules where this installation puts
# them, so it is written when the prefix is known: at install time (the
# prefix given to `cmake --install --prefix` may differ from the configured
# one).
install(CODE "
  set(QV_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(_sample \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QV_INSTALL_SHAREDIR}/qvsec.cfg.sample\")
  message(STATUS \"Installing: \${_sample}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/share/qvsec.cfg.sample.in\" \"\${_sample}\" @ONLY)
")

# Users running their programs under valgrind need the same suppression of
# the loader's word-sized read that the tests use.
install(FILES ${PROJECT_SOURCE_DIR}/tests/qv_cu/valgrind.supp DESTINATION ${QV_INSTALL_SHAREDIR})

# The documentation beside the man pages.
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qvsec)
install(FILES ${PROJECT_SOURCE_DIR}/mpm/local/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qvsec
  RENAME local-mechanism.md)
install(FILES ${PROJECT_SOURCE_DIR}/mpm/host/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qvsec
  RENAME host-mechanism.md)
