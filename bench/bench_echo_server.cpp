/*
 * bench_echo_server.cpp - the baseline for the ping benchmark: a minimal
 * line server that parses the same envelope with Jansson and answers a ping
 * the way the agent does (same framing, same reply shape), nothing else.
 */
#include <jansson.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

int main()
{
    static char line[65536];
    while (fgets(line, sizeof(line), stdin)) {
        size_t n = strlen(line);
        if (n && line[n - 1] == '\n')
            line[--n] = '\0';
        json_error_t err;
        json_t* req = json_loads(line, 0, &err);
        if (!req)
            continue;
        int seq = 0, fn = 0;
        const char* str = "";
        json_unpack(req, "{s:i, s:i, s:{s:s}}", "seq", &seq, "fn", &fn, "param", "str", &str);
        json_t* rep = json_pack("{s:i, s:i, s:i, s:i, s:i, s:{s:s, s:i}}", "ver", 1, "type", 2,
                                "seq", seq, "fn", fn, "status", 0, "param", "str", str, "sp",
                                (int)time(NULL));
        char* text = json_dumps(rep, JSON_ENSURE_ASCII);
        if (text) {
            if (write(1, text, strlen(text) + 1) < 0 || write(1, "\n\n", 2) < 0)
                return 1;
            free(text);
        }
        json_decref(rep);
        json_decref(req);
    }
    return 0;
}
