# Agent runtime: child tracking, service loop, start-up, signals and cleanup.
kvx_add_test(test_childtrack SOURCES test_childtrack.cpp)
kvx_add_test(test_runtime SOURCES test_runtime.cpp LABELS protocol)
kvx_add_test(test_runtime_env SOURCES test_runtime_env.cpp LOCKS machine)
kvx_add_test(test_runtime_slow SOURCES test_runtime_slow.cpp LOCKS machine LABELS slow)
# The reply stream under back-pressure and faults, and the log under floods.
kvx_add_test(test_stream SOURCES test_stream.cpp)
kvx_add_test(test_stream_slow SOURCES test_stream_slow.cpp LABELS slow)
