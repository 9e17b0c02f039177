# Machine inspection: VM and socket probes, HTTP client and metadata, GUIDs.
kvx_add_test(test_vmdetect SOURCES test_vmdetect.cpp)
kvx_add_test(test_http SOURCES test_http.cpp test_http_responder.cpp)
kvx_add_test(test_http_slow SOURCES test_http_slow.cpp test_http_responder.cpp
             LABELS slow TIMEOUT 180)
kvx_add_test(test_uuid SOURCES test_uuid.cpp)
