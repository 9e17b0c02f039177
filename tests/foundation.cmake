# Log facility, plain execution, paths, locks, shared memory, the I/O layer.
kvx_add_test(test_log SOURCES test_log.cpp LABELS cpu)
kvx_add_test(test_paths SOURCES test_paths.cpp LOCKS machine LABELS cpu)
