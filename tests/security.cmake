# A local user on the node: attacks set up by a throwaway account against the agent.
kvx_add_test(test_security SOURCES test_security.cpp LOCKS machine)
