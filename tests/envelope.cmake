# Envelope, line channel, endpoint and procedure codecs.
kvx_add_test(test_envelope SOURCES test_envelope.cpp test_envelope_channel.cpp)
kvx_add_test(test_codecs SOURCES test_codecs.cpp test_codecs_results.cpp)
# Against the real agent, which takes the node's product lock.
kvx_add_test(test_envelope_agent SOURCES test_envelope_agent.cpp LOCKS machine)
