# Session location mount: option strings, fallbacks, paths, local locations
# and the reply of procedure 4 (no mounts made).
kvx_add_test(test_mount SOURCES test_mount.cpp test_mount_local.cpp)
