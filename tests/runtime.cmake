# Agent runtime: child tracking, start-up, service loop, signals and cleanup.
kvx_add_test(test_childtrack SOURCES test_childtrack.cpp)
