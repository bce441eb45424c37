# The "host" module across simulated hosts, with the real daemon. The test
# links the module's objects (its services and clients call the routines
# directly) and runs qvsec-hostd for each host.
if(TARGET mpm_host_objects AND TARGET qvsec-hostd)
  qv_add_test(host_module_test SOURCES host_module_test.cpp sim_hosts.cpp
              LIBS mpm_host_objects mpm_common_objects qv_host_trust LABELS mpm)
  target_include_directories(host_module_test PRIVATE ${PROJECT_SOURCE_DIR}/mpm/host)
  target_compile_definitions(host_module_test PRIVATE QV_HOSTD="$<TARGET_FILE:qvsec-hostd>")
  add_dependencies(host_module_test qvsec-hostd)
endif()
if(TARGET mpm_host_objects)
  qv_add_test(host_parts_test SOURCES host_parts_test.cpp
              LIBS mpm_host_objects mpm_common_objects qv_host_trust LABELS mpm concurrency)
endif()
