# Pseudo-terminal runner, su and sudo execution, root check.  All of them
# take the machine lock: they make throwaway accounts and sudo rules, or
# leave children on terminals that a process-wide query could see.
kvx_add_test(test_privileged_pty SOURCES test_privileged_pty.cpp LOCKS machine)
kvx_add_test(test_privileged SOURCES test_privileged.cpp LOCKS machine)
kvx_add_test(test_privileged_slow SOURCES test_privileged_slow.cpp LOCKS machine LABELS slow)
