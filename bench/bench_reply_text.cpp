/*
 * bench_reply_text.cpp - what packing a 200 KB command output costs: the
 * result codec (every text through jxdr_text) against a plain json_pack of
 * the same text, each followed by the dump the agent sends.  Valid text
 * (ASCII, multi-byte UTF-8) should cost at most 1.3x the plain pack; the
 * plain pack cannot send Latin-1 at all, so that row is shown on its own.
 *
 *   bench_reply_text [--rounds N]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "ea_proto.h"

namespace {

double now_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

/* Microseconds per reply: encode (codec or plain pack) and dump. */
double per_reply(const std::string& text, bool codec, int rounds, bool* packed)
{
    ExecCmdres res = {0, (int)text.size(), const_cast<char*>(text.c_str())};
    double start = now_us();

    *packed = true;
    for (int i = 0; i < rounds; i++) {
        JXDR* x = jxdr_create_call(EA_PROC_EXEC_CMD);
        ExecCmdres* r = &res;
        if (codec)
            jxdr_ExecCmdres(x, r);
        else
            jxdr_set_param(x, json_pack("{s:s,s:i,s:i}", "str", text.c_str(), "retmsg_len",
                                        res.cmd_len, "ret", 0));
        char* out = jxdr_to_string(x);
        *packed = *packed && out != NULL && strstr(out, "\"retmsg_len\"") != NULL;
        free(out);
        jxdr_destroy(x);
    }
    return (now_us() - start) / rounds;
}

} /* namespace */

int main(int argc, char** argv)
{
    int rounds = argc > 2 && strcmp(argv[1], "--rounds") == 0 ? atoi(argv[2]) : 200;
    const size_t size = EA_EXEC_RES_SIZE - 1;
    std::string utf8;
    while (utf8.size() + 2 <= size)
        utf8 += "\xc3\xa9";
    const struct { const char* name; std::string text; } rows[] = {
        {"ASCII", std::string(size, 'a')},
        {"UTF-8 (2-byte)", utf8},
        {"Latin-1", std::string(size, '\xe9')},
    };

    printf("%-16s %12s %12s %7s\n", "200 KB text", "codec us", "plain us", "ratio");
    for (const auto& r : rows) {
        bool ok_codec, ok_plain;
        double c = per_reply(r.text, true, rounds, &ok_codec);
        double p = per_reply(r.text, false, rounds, &ok_plain);
        if (ok_plain)
            printf("%-16s %12.1f %12.1f %6.2fx%s\n", r.name, c, p, c / p,
                   c / p <= 1.3 ? "" : "  (above 1.3x)");
        else
            printf("%-16s %12.1f %12s %7s%s\n", r.name, c, "refused", "-", ok_codec ? "" : "  (not packed)");
    }
    return 0;
}
