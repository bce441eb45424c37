# qv_add_library(<target> EXPORTS <map> SOURCES <...> [DEPS <targets...>])
#
# Builds <target>_objects (position-independent, symbols hidden) and the shared
# library <target> from them, with SONAME lib<target>.so.1 and only the names
# that the version script <map> lists exported. Unit tests that need internal
# routines link <target>_objects directly.
function(qv_add_library target)
  cmake_parse_arguments(A "" "EXPORTS" "SOURCES;DEPS" ${ARGN})
  add_library(${target}_objects OBJECT ${A_SOURCES})
  set_target_properties(${target}_objects PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(${target}_objects
    PUBLIC ${PROJECT_SOURCE_DIR}/include
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${target}_objects PUBLIC ${A_DEPS} Threads::Threads ${CMAKE_DL_LIBS})

  add_library(${target} SHARED $<TARGET_OBJECTS:${target}_objects>)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:include>)
  target_link_libraries(${target} PUBLIC ${A_DEPS} Threads::Threads ${CMAKE_DL_LIBS})
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${A_EXPORTS})
  target_link_options(${target} PRIVATE -Wl,--version-script=${A_EXPORTS})
  # clang links the sanitizer runtimes into executables only, so sanitized
  # shared libraries keep undefined references to them.
  if(NOT QV_SANITIZE AND NOT QV_FUZZ)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
  # The export set qv_secTargets becomes the CMake package's imported targets.
  install(TARGETS ${target} EXPORT qv_secTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

# Adds every direct subfolder of <dir> that has a CMakeLists.txt.
function(qv_add_optional_subdirectories dir)
  file(GLOB _subs LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/${dir}/*)
  list(SORT _subs)
  foreach(_s ${_subs})
    if(EXISTS ${_s}/CMakeLists.txt)
      add_subdirectory(${_s})
    endif()
  endforeach()
endfunction()

# qv_install_pkgconfig(<name> <description> <libs>)
function(qv_install_pkgconfig name description libs)
  set(QV_PC_NAME ${name})
  set(QV_PC_DESCRIPTION "${description}")
  set(QV_PC_LIBS "${libs}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/qv.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
