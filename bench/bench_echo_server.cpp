/*
 * bench_echo_server.cpp - the baselines for the round-trip benchmarks: a
 * minimal line server that parses the same envelope with Jansson and answers
 * with the agent's framing and reply shapes, nothing else: procedure 1 is
 * echoed, procedure 3 runs the command with popen and one fread.
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
        json_t* param;
        if (fn == 3) {
            char out[1024] = "";
            size_t got = 0;
            FILE* p = popen(str, "r");
            if (p) {
                got = fread(out, 1, sizeof(out) - 1, p);
                pclose(p);
            }
            out[got] = '\0';
            param = json_pack("{s:s, s:i, s:i}", "str", out, "retmsg_len", (int)got, "ret", 0);
        } else {
            param = json_pack("{s:s, s:i}", "str", str, "sp", (int)time(NULL));
        }
        json_t* rep = json_pack("{s:i, s:i, s:i, s:i, s:i, s:o}", "ver", 1, "type", 2, "seq", seq,
                                "fn", fn, "status", 0, "param", param);
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
