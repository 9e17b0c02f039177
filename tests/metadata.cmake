# Instance metadata lookup with session tokens, in a network namespace of its own.
kvx_add_test(test_metadata_v2 SOURCES test_metadata_v2.cpp)
