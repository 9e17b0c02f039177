/*
 * zelfunc_quote.cpp - pasting paths and server-given values into shell
 * command lines as single words (source name "zelfunc").
 *
 * A value made only of characters the shell takes literally is pasted as it
 * is, so ordinary command lines stay exactly what they always were; any
 * other value is single-quoted, so a blank or a shell-special character can
 * never split it or reach the shell.
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
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

/* Writes s to f as one shell word; 0, or -1 when out of memory. */
static int put_word(FILE* f, const char* s, int dquote)
{
    /* a quoted word takes at most 4 bytes a character ('\'') and 2 quotes */
    size_t size = 4 * strlen(s != NULL ? s : "") + 3;
    char* word = (char*)malloc(size);
    int rc = -1;

    if (word != NULL && zel_shell_word(s, dquote, word, size) != NULL)
        rc = fputs(word, f) < 0 ? -1 : 0;
    free(word);
    return rc;
}

char* zel_shell_cmdline(const char* fmt, ...)
{
    char* line = NULL;
    size_t size = 0;
    FILE* f = open_memstream(&line, &size);
    va_list ap;
    int rc = 0;

    if (f == NULL)
        return NULL;
    va_start(ap, fmt);
    for (const char* p = fmt; rc == 0 && *p != '\0'; p++) {
        if (*p != '%') {
            rc = fputc(*p, f) == EOF ? -1 : 0;
            continue;
        }
        switch (*++p) {
        case 's': {
            const char* s = va_arg(ap, const char*);
            rc = fputs(s != NULL ? s : "", f) < 0 ? -1 : 0;
            break;
        }
        case 'w':
        case 'W':
            rc = put_word(f, va_arg(ap, const char*), *p == 'W');
            break;
        case 'd':
            rc = fprintf(f, "%d", va_arg(ap, int)) < 0 ? -1 : 0;
            break;
        case '%':
            rc = fputc('%', f) == EOF ? -1 : 0;
            break;
        default:                /* not a directive of this format: a caller's mistake */
            rc = -1;
            break;
        }
    }
    va_end(ap);
    if (fclose(f) != 0)
        rc = -1;
    if (rc != 0) {
        free(line);
        return NULL;
    }
    return line;
}
