/*
 * jxdr_text.cpp - the texts a reply carries (source name "jxdr").
 *
 * The JSON library refuses a string that is not UTF-8, and a reply whose
 * "param" does not pack leaves with "param" {} and no result at all.  The
 * texts of replies come from the node (command output, files the product's
 * programs write, disk and path names), are cut by fixed buffers and may be
 * in any encoding, so every codec packs them through jxdr_text().
 */
#include <stdlib.h>
#include <string.h>
#include "jxdr.h"

/*
 * The UTF-8 sequence at s (n > 0 bytes left), as the JSON library checks it:
 * no overlong forms, no surrogates, nothing above U+10FFFF.  Its length (1 to
 * 4); 0 when the first byte does not start a valid sequence; -1 when a valid
 * beginning is cut off by the end of the text.
 */
static int utf8_sequence(const unsigned char* s, size_t n)
{
    unsigned char c = s[0], lo = 0x80, hi = 0xBF;
    int len;

    if (c < 0x80)
        return 1;
    if (c >= 0xC2 && c <= 0xDF)
        len = 2;
    else if (c >= 0xE0 && c <= 0xEF)
        len = 3;
    else if (c >= 0xF0 && c <= 0xF4)
        len = 4;
    else
        return 0;
    /* the second byte's range rules out overlong forms, surrogates and > U+10FFFF */
    if (c == 0xE0)
        lo = 0xA0;
    else if (c == 0xED)
        hi = 0x9F;
    else if (c == 0xF0)
        lo = 0x90;
    else if (c == 0xF4)
        hi = 0x8F;
    for (int i = 1; i < len; i++) {
        if ((size_t)i >= n)
            return -1;
        if (s[i] < lo || s[i] > hi)
            return 0;
        lo = 0x80;
        hi = 0xBF;
    }
    return len;
}

/* Bytes at the start of s (n bytes) that are valid UTF-8 as they stand. */
static size_t utf8_valid_prefix(const unsigned char* s, size_t n)
{
    size_t i = 0;

    while (i < n) {
        if (s[i] < 0x80) {
            i++;
            continue;
        }
        int k = utf8_sequence(s + i, n - i);
        if (k <= 0)
            break;
        i += (size_t)k;
    }
    return i;
}

/*
 * See jxdr.h.  One pass over valid text; only text that needs mending is
 * copied (once), so the 200 KB of a command's output cost little either way.
 */
json_t* jxdr_text(const char* s, int max, int* len)
{
    const unsigned char* u = (const unsigned char*)(s != NULL ? s : "");
    size_t n = max < 0 ? strlen((const char*)u) : strnlen((const char*)u, (size_t)max);
    size_t i = utf8_valid_prefix(u, n), o = i;
    json_t* j;
    char* out;

    if (i == n)
        return json_stringn_nocheck((const char*)u, n);
    out = (char*)malloc(n + 1);
    if (out == NULL)
        return NULL;
    memcpy(out, u, i);
    while (i < n) {
        int k = utf8_sequence(u + i, n - i);
        if (k < 0 && (max < 0 || n == (size_t)max))
            break;                  /* a character cut by a buffer: dropped whole */
        if (k <= 0) {
            out[o++] = '?';         /* a byte of another encoding, or a stray one */
            i++;
            continue;
        }
        memcpy(out + o, u + i, (size_t)k);
        o += (size_t)k;
        i += (size_t)k;
    }
    /* a length sent with the text says what was delivered */
    if (len != NULL && o < n)
        *len = *len > (int)(n - o) ? *len - (int)(n - o) : 0;
    j = json_stringn_nocheck(out, o);
    free(out);
    return j;
}
