# Log facility, plain execution, directories/paths/locks, shared memory and
# the I/O redirection layer.
kvx_add_test(test_log SOURCES test_log.cpp)
