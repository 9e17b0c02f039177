/*
 * httpclient_head.cpp - reading an HTTP/1.0 response held in memory: where
 * the head ends, the status line, the body length, and whether the whole
 * response has arrived.  Nothing here does I/O; every function stays inside
 * the buffer it is given, whatever bytes a server sent.
 */
#include <ctype.h>
#include <limits.h>
#include <string.h>

#include "httpclient.h"
#include "zellog.h"

#define CONTENT_LENGTH_TAG "Content-Length: "

/* Length of the response text: up to the first NUL or len bytes. */
static int text_length(const char* buf, int len)
{
    if (buf == NULL || len <= 0)
        return 0;
    return (int)strnlen(buf, (size_t)len);
}

/* Like memmem over [s, s + n) for the NUL-terminated needle. */
static const char* find_in(const char* s, int n, const char* needle)
{
    int k = (int)strlen(needle);

    for (int i = 0; i + k <= n; i++) {
        if (memcmp(s + i, needle, (size_t)k) == 0)
            return s + i;
    }
    return NULL;
}

/*
 * Decimal number at [*p, end) as strtol reads it (leading blanks, a sign,
 * digits; saturating at LONG_MAX/LONG_MIN).  1 and *p advanced past it when
 * digits were found, else 0 with *p unchanged.
 */
static int scan_long(const char** p, const char* end, long* value)
{
    const char* s = *p;
    unsigned long long acc = 0;
    int neg = 0, digits = 0, over = 0;

    while (s < end && isspace((unsigned char)*s))
        s++;
    if (s < end && (*s == '+' || *s == '-'))
        neg = *s++ == '-';
    for (; s < end && isdigit((unsigned char)*s); s++, digits++) {
        if (acc > ((unsigned long long)LONG_MAX + 1) / 10)
            over = 1;
        else
            acc = acc * 10 + (unsigned long long)(*s - '0');
    }
    if (digits == 0)
        return 0;
    if (!neg && (over || acc > (unsigned long long)LONG_MAX))
        *value = LONG_MAX;
    else if (neg && (over || acc > (unsigned long long)LONG_MAX + 1))
        *value = LONG_MIN;
    else
        *value = neg ? (long)(0 - acc) : (long)acc;
    *p = s;
    return 1;
}

/* Skips blanks then one word; 1 if a word was there, else 0. */
static int scan_word(const char** p, const char* end)
{
    const char* s = *p;

    while (s < end && isspace((unsigned char)*s))
        s++;
    if (s == end)
        return 0;
    while (s < end && !isspace((unsigned char)*s))
        s++;
    *p = s;
    return 1;
}

/* See httpclient.h: head length including the blank line, or 0. */
int http_head_length(const char* buf, int len)
{
    int n = text_length(buf, len);
    const char* blank = n > 0 ? find_in(buf, n, "\r\n\r\n") : NULL;

    return blank != NULL ? (int)(blank - buf) + 4 : 0;
}

/* See httpclient.h: fields read from the status line, -1 for no text. */
int http_status_fields(const char* buf, int len, int* code)
{
    int n = text_length(buf, len);
    const char* p = buf;
    const char* end = buf + n;
    long value;

    if (n == 0 || !scan_word(&p, end))
        return -1;
    if (!scan_long(&p, end, &value))
        return 1;
    if (code != NULL)
        *code = (int)value;
    return scan_word(&p, end) ? 3 : 2;
}

/*
 * Walks the text line by line ('\n'); every line holding "Content-Length: "
 * sets the result to the number after it (0 without digits), so the last
 * one wins.  With log, each value found is logged at level 5.
 */
static int scan_content_length(const char* buf, int len, int log)
{
    int n = text_length(buf, len);
    const char* line = buf;
    const char* end = buf + n;
    int result = 0;

    while (line < end) {
        const char* eol = (const char*)memchr(line, '\n', (size_t)(end - line));
        const char* stop = eol != NULL ? eol : end;
        const char* tag = find_in(line, (int)(stop - line), CONTENT_LENGTH_TAG);

        if (tag != NULL) {
            const char* p = tag + strlen(CONTENT_LENGTH_TAG);
            long value = 0;

            scan_long(&p, stop, &value);
            result = (int)value;
            if (log)
                ZELLogFunction(5, "httpclient", __LINE__, "Get the content length %d\n", result);
        }
        line = stop + 1;
    }
    return result;
}

/* See httpclient.h: last "Content-Length: " value, 0 if none. */
int http_content_length(const char* buf, int len)
{
    return scan_content_length(buf, len, 0);
}

/* See httpclient.h: 1 complete (*len cut), 0 not yet, -7 bad status. */
int http_content_ready(const char* buf, int* len, int* head_len, int* con_len)
{
    if (buf == NULL || len == NULL || head_len == NULL || con_len == NULL)
        return -7;

    if (*head_len < 1) {
        int hl = http_head_length(buf, *len);
        if (hl > 0) {
            int code = 0;
            int rc = http_status_fields(buf, *len, &code);
            if (rc < 2) {
                ZELLogFunction(0, "httpclient", __LINE__, "Fail to parse response code, rc=%d\n", rc);
                return -7;
            }
            if (code != 200) {
                ZELLogFunction(0, "httpclient", __LINE__, "Fail to parse response code, code=%d\n", code);
                return -7;
            }
            *head_len = hl;
            *con_len = scan_content_length(buf, *len, 1);
        }
    }
    if (*head_len > 0) {
        long long total = (long long)*head_len + *con_len;
        if (total <= (long long)*len) {
            /* a negative Content-Length never cuts below the start of the buffer */
            *len = total < 0 ? 0 : (int)total;
            return 1;
        }
    }
    return 0;
}
