# Agent runtime: child tracking, start-up, service loop, signals and cleanup.
kvx_add_test(test_childtrack SOURCES test_childtrack.cpp)
kvx_add_test(test_runtime SOURCES test_runtime.cpp)
kvx_add_test(test_runtime_cleanup SOURCES test_runtime_cleanup.cpp)
kvx_add_test(test_runtime_env SOURCES test_runtime_env.cpp LOCKS machine)
kvx_add_test(test_runtime_lock SOURCES test_runtime_lock.cpp LOCKS machine)
kvx_add_test(test_runtime_account SOURCES test_runtime_account.cpp LOCKS machine)
kvx_add_test(test_runtime_slow SOURCES test_runtime_slow.cpp LOCKS machine LABELS slow)

# Preload shim that reports the agent's start-up variables at exit; kept free
# of sanitizers so that it can be preloaded into any build of the agent.
add_library(kvxt_envdump SHARED test_runtime_envdump.cpp)
target_compile_options(kvxt_envdump PRIVATE -fno-sanitize=all)
target_link_options(kvxt_envdump PRIVATE -fno-sanitize=all)

kvx_add_test(test_runtime_startup SOURCES test_runtime_startup.cpp)
target_compile_definitions(test_runtime_startup PRIVATE
  KVXT_ENVDUMP_LIB="$<TARGET_FILE:kvxt_envdump>")
add_dependencies(test_runtime_startup kvxt_envdump)
