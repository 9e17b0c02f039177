kvx_add_test(test_envelope SOURCES test_envelope.cpp LABELS cpu)
kvx_add_test(test_codecs SOURCES test_codecs.cpp LABELS cpu)
# Against the real agent, which takes the node's product lock.
kvx_add_test(test_envelope_agent SOURCES test_envelope_agent.cpp LOCKS machine LABELS protocol)
