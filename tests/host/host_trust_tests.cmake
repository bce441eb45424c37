# Keys, trusted hosts and assertions; the host daemon and `qvsec host` run as
# programs.
qv_add_test(host_trust_test SOURCES host_trust_test.cpp LIBS qv_host_trust LABELS host)
qv_add_test(hostd_test SOURCES hostd_test.cpp LIBS qv_host_trust LABELS concurrency host)
target_compile_definitions(hostd_test PRIVATE QV_HOSTD_PATH="$<TARGET_FILE:qvsec-hostd>"
                                              QVSEC_PATH="$<TARGET_FILE:qvsec>")
add_dependencies(hostd_test qvsec-hostd qvsec)
