/*
 * zelfunc_quote.cpp - pasting paths and server-given values into shell
 * command lines as single words (source name "zelfunc").
 *
 * A value made only of characters the shell takes literally is pasted as it
 * is, so ordinary command lines stay exactly what they always were; any
 * other value is single-quoted, so a blank or a shell-special character can
 * never split it or reach the shell.
 */
#include <stdio.h>
#include <string.h>

#include "zelfunc.h"

/* Characters a shell word may hold without quoting. */
static const char kShellSafe[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+=:@,%";

int zel_shell_safe(const char* s)
{
    return s != NULL && s[0] != '\0' && strspn(s, kShellSafe) == strlen(s);
}

char* zel_shell_word(const char* s, int dquote, char* out, size_t size)
{
    size_t n = 0;

    if (out == NULL || size == 0)
        return NULL;
    if (s == NULL)
        s = "";
    if (zel_shell_safe(s)) {
        int w = snprintf(out, size, dquote ? "\"%s\"" : "%s", s);
        if (w < 0 || (size_t)w >= size) {
            out[0] = '\0';
            return NULL;
        }
        return out;
    }
    /* 'text' with every ' written as '\'' ; the whole word or nothing */
    if (size < 3) {
        out[0] = '\0';
        return NULL;
    }
    out[n++] = '\'';
    for (const char* p = s; *p != '\0'; p++) {
        const char* piece = *p == '\'' ? "'\\''" : p;
        size_t len = *p == '\'' ? 4 : 1;
        if (n + len + 2 > size) {   /* room left for the closing quote and NUL */
            out[0] = '\0';
            return NULL;
        }
        memcpy(out + n, piece, len);
        n += len;
    }
    out[n++] = '\'';
    out[n] = '\0';
    return out;
}
