# The "host" mechanism module (included from this directory's CMakeLists.txt):
# its own objects, the objects shared with "local" (mpm/common) and the host
# trust library.
add_library(mpm_host_objects OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/exchange.cpp
  ${CMAKE_CURRENT_LIST_DIR}/host_config.cpp
  ${CMAKE_CURRENT_LIST_DIR}/host_tokens.cpp
  ${CMAKE_CURRENT_LIST_DIR}/names.cpp
  ${CMAKE_CURRENT_LIST_DIR}/replay_cache.cpp)
set_target_properties(mpm_host_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(mpm_host_objects
  PUBLIC ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/include
  PRIVATE ${PROJECT_SOURCE_DIR}/lib/qv_sec)
target_link_libraries(mpm_host_objects PUBLIC mpm_common_objects qv_host_trust PkgConfig::SODIUM Threads::Threads)

add_library(mpm_host MODULE $<TARGET_OBJECTS:mpm_host_objects> $<TARGET_OBJECTS:mpm_common_objects>)
target_link_libraries(mpm_host PRIVATE qv_host_trust PkgConfig::SODIUM Threads::Threads)
set_target_properties(mpm_host PROPERTIES
  PREFIX ""
  OUTPUT_NAME mpm_host
  LIBRARY_OUTPUT_DIRECTORY ${QV_MODULE_OUTPUT_DIRECTORY}
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/mpm/common/exports.map)
target_link_options(mpm_host PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/mpm/common/exports.map)
if(NOT QV_SANITIZE AND NOT QV_FUZZ)
  target_link_options(mpm_host PRIVATE -Wl,--no-undefined)
endif()
install(TARGETS mpm_host LIBRARY DESTINATION ${QV_INSTALL_MODULEDIR})
