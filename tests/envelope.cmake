# The envelope, the line channel's framing and the procedure codecs.
kvx_add_test(test_envelope SOURCES test_envelope.cpp LABELS cpu)
