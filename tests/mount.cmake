# Session location mount.
# Option strings, fallbacks, paths, local locations and the reply of
# procedure 4, called in process (no mounts made).
kvx_add_test(test_mount SOURCES test_mount.cpp test_mount_local.cpp)
# Procedure 4 through the agent with the mount tool stubs: real bind mounts.
kvx_add_test(test_mount_agent SOURCES test_mount_agent.cpp LOCKS machine)
# Write tests that fail five times, two seconds apart.
kvx_add_test(test_mount_slow SOURCES test_mount_slow.cpp LOCKS machine LABELS slow)
