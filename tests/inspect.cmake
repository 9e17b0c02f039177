# Machine inspection: VM and socket probes, GUIDs, HTTP client and metadata
# (with session tokens, in a network namespace of its own).
kvx_add_test(test_vmdetect SOURCES test_vmdetect.cpp LABELS cpu)
kvx_add_test(test_http SOURCES test_http.cpp)
kvx_add_test(test_http_slow SOURCES test_http_slow.cpp LABELS slow TIMEOUT 180)
