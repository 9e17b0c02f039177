# Log facility, plain execution, directories/paths/locks, shared memory and
# the I/O redirection layer.
kvx_add_test(test_log SOURCES test_log.cpp)
kvx_add_test(test_exec SOURCES test_exec.cpp)
kvx_add_test(test_exec_ps SOURCES test_exec_ps.cpp LOCKS machine)
kvx_add_test(test_paths SOURCES test_paths.cpp)
kvx_add_test(test_paths_shm SOURCES test_paths_shm.cpp LOCKS machine)
kvx_add_test(test_iolayer SOURCES test_iolayer.cpp)
