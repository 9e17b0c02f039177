kvx_add_test(test_envelope SOURCES test_envelope.cpp LABELS cpu)
kvx_add_test(test_codecs SOURCES test_codecs.cpp LABELS cpu)
