/*
 * fuzz_http.cpp - an HTTP response, as a server could send it, through the
 * parsers the HTTP client runs on its receive buffer.
 *
 * The bytes are received into an 8192-byte buffer kept NUL-terminated, as
 * the client does: once whole, then again in pieces whose size depends on
 * the input's length, asking after each piece whether the response is
 * complete.  The pure functions are also called on the raw input.
 */
#include <string.h>

#include <string>

#include "fuzz_support.h"
#include "httpclient.h"

#define HTTP_BUF_SIZE 8192

/* Text length the parsers see: up to the first NUL or len bytes. */
static int seen_length(const char* buf, int len)
{
    return len > 0 ? (int)strnlen(buf, (size_t)len) : 0;
}

/* One response arriving in pieces of step bytes; stops where the client
 * stops (complete, rejected, or buffer full). */
static void receive_in_pieces(const uint8_t* data, size_t size, size_t step)
{
    char buf[HTTP_BUF_SIZE];
    int len = 0, head_len = 0, con_len = 0, code = 0, rc = 0;
    size_t pos = 0;

    buf[0] = '\0';
    while (pos < size && len < HTTP_BUF_SIZE - 1) {
        size_t n = size - pos;
        if (n > step)
            n = step;
        if (n > (size_t)(HTTP_BUF_SIZE - 1 - len))
            n = (size_t)(HTTP_BUF_SIZE - 1 - len);
        memcpy(buf + len, data + pos, n);
        pos += n;
        len += (int)n;
        buf[len] = '\0';

        int before = len;
        rc = http_content_ready(buf, &len, &head_len, &con_len);
        FUZZ_CHECK(rc == 1 || rc == 0 || rc == -7);
        if (rc != 0)
            http_status_fields(buf, len, &code);
        if (rc == 1) {
            FUZZ_CHECK(len >= 0 && len <= before);
            FUZZ_CHECK(head_len > 0 && head_len <= seen_length(buf, before));
            buf[len] = '\0';
            /* the body the client hands out starts inside the buffer */
            std::string body(buf + head_len);
            FUZZ_CHECK(body.size() < HTTP_BUF_SIZE);
            return;
        }
        if (rc < 0)
            return;
        FUZZ_CHECK(len == before);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = (const char*)data;
    int len = size > HTTP_BUF_SIZE ? HTTP_BUF_SIZE : (int)size;
    int head, fields, code = -12345;

    head = http_head_length(text, len);
    FUZZ_CHECK(head == 0 || (head >= 4 && head <= seen_length(text, len)));
    fields = http_status_fields(text, len, &code);
    FUZZ_CHECK(fields >= -1 && fields <= 3);
    FUZZ_CHECK(fields >= 2 || code == -12345);
    http_content_length(text, len);

    receive_in_pieces(data, size, HTTP_BUF_SIZE);
    receive_in_pieces(data, size, 1 + size % 61);
    return 0;
}
