# Session location mount: option strings in process, then procedure 4
# through the agent with the mount tool stubs (real bind mounts).
kvx_add_test(test_mount_agent SOURCES test_mount_agent.cpp LOCKS machine)
kvx_add_test(test_mount_slow SOURCES test_mount_slow.cpp LOCKS machine LABELS slow)
