# The client endpoint; procedures 3 (command execution), 7 (VM detection) and 8 (machine check).
kvx_add_test(test_exec_cmd SOURCES test_exec_cmd.cpp LABELS protocol)
kvx_add_test(test_checkmachine SOURCES test_checkmachine.cpp LOCKS machine)
