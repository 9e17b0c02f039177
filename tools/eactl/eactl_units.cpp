/*
 * eactl_units.cpp - job status, activity log and job result in the units an
 * operator reads: bytes in KiB to TiB, rates in MiB/s, times as h:mm:ss.
 *
 * The job status replies carry sizes in KiB and rates in KiB per minute; the
 * job result carries bytes and KiB per minute.
 */
#include "eactl.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_resized = 0;

void on_winch(int)
{
    g_resized = 1;
}

const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};

/* The unit index that shows bytes as a number from 1 to 1023. */
int unit_of(unsigned long long bytes)
{
    int u = 0;
    while (u < 5 && bytes >= (1024ULL << (10 * u)))
        u++;
    return u;
}

double in_unit(unsigned long long bytes, int unit)
{
    return (double)bytes / (double)(1ULL << (10 * unit));
}

const char* level_word(long type)
{
    switch (type) {
    case 1: return "info";
    case 2: return "warning";
    case 3: return "error";
    default: return NULL;
    }
}

} /* namespace */

std::string eactl_bytes(unsigned long long bytes)
{
    char text[32];
    int u = unit_of(bytes);
    if (u == 0)
        snprintf(text, sizeof(text), "%llu B", bytes);
    else
        snprintf(text, sizeof(text), "%.1f %s", in_unit(bytes, u), kUnits[u]);
    return text;
}

std::string eactl_duration(long seconds)
{
    char text[32];
    if (seconds < 0)
        return "--:--";
    if (seconds >= 3600)
        snprintf(text, sizeof(text), "%ld:%02ld:%02ld", seconds / 3600, seconds / 60 % 60, seconds % 60);
    else
        snprintf(text, sizeof(text), "%ld:%02ld", seconds / 60, seconds % 60);
    return text;
}

double eactl_mib_per_s(unsigned long long kib_per_min)
{
    return (double)kib_per_min / 60.0 / 1024.0;
}

std::string eactl_progress_line(const JOB_STATUS& st, long elapsed_s, int width)
{
    unsigned long long pct = st.vol.dt_all > 100 ? 100 : st.vol.dt_all;
    unsigned long long done = st.vol.dt_fin << 10;
    /* The percentage is cut to a whole number: half a point is added back. */
    unsigned long long total = pct >= 100 ? done
                               : pct > 0  ? (unsigned long long)((double)done * 100.0 / ((double)pct + 0.5))
                                          : 0;
    unsigned long long rate = st.tm_usd ? st.tm_usd : st.vol.tm_usd;   /* KiB per minute */
    if (elapsed_s < 0 && rate > 0)
        elapsed_s = (long)(st.dt_fin * 60 / rate);
    long left = pct >= 100 ? 0
                : total > done && rate > 0 ? (long)((((total - done) >> 10) * 60 + rate / 2) / rate)
                                           : -1;

    int unit = total || done ? unit_of(total ? total : done) : 3;
    unit = unit ? unit : 1;
    char size[48];
    if (total)
        snprintf(size, sizeof(size), "%.1f/%.1f %s", in_unit(done, unit), in_unit(total, unit), kUnits[unit]);
    else
        snprintf(size, sizeof(size), "%.1f/? %s", in_unit(done, unit), kUnits[unit]);
    char line[384];
    snprintf(line, sizeof(line), "%3llu%%  %s  %.1f MiB/s  elapsed %s  ETA %s  %.*s", pct, size,
             eactl_mib_per_s(rate), eactl_duration(elapsed_s).c_str(), eactl_duration(left).c_str(),
             (int)sizeof(st.vol.name), st.vol.name);
    line[width < 1 ? 1 : width > 383 ? 383 : width] = '\0';
    return line;
}

std::string eactl_activity_line(const char* line, time_t when)
{
    char* end = NULL;
    long type = strtol(line, &end, 10);
    const char* word = end != line && *end == ' ' ? level_word(type) : NULL;
    char* text = NULL;
    long code = word ? strtol(end + 1, &text, 10) : 0;
    if (!word || text == end + 1 || *text != ' ')
        return line;
    char stamp[16] = "--:--:--";
    struct tm tm;
    if (when != 0)
        strftime(stamp, sizeof(stamp), "%H:%M:%S", localtime_r(&when, &tm));
    char out[1200];
    snprintf(out, sizeof(out), "%s  %-7s  %s", stamp, word, text + 1);
    std::string shown = out;
    if (code != 0)
        shown += " (code " + std::to_string(code) + ")";
    return shown;
}

/* A line drained within this long of the session's previous drain gets the
 * fetch's time: the demo polls once a second, so that is the event's time to
 * within a poll. */
#define ACTIVITY_TIME_WITHIN_S 3

void eactl_activity_drained(EactlSession* s)
{
    s->activity_since = time(NULL);
}

void eactl_print_activity(EactlSession* s, const char* text)
{
    time_t now = time(NULL);
    time_t known = s->activity_since && now - s->activity_since <= ACTIVITY_TIME_WITHIN_S ? now : 0;
    s->activity_since = now;
    for (const char* at = text; at && *at;) {
        const char* nl = strchr(at, '\n');
        std::string line = nl ? std::string(at, nl) : std::string(at);
        std::string shown = eactl_activity_line(line.c_str(), known);
        if (s->tty)
            printf("\r%-*s\n", eactl_line_width(), shown.c_str());   /* over a progress line */
        else
            printf("%s\n", shown.c_str());
        at = nl ? nl + 1 : at + line.size();
    }
}

std::string eactl_result_text(const JOB_RESULT& r)
{
    char text[512];
    snprintf(text, sizeof(text),
             "read %s at %.1f MiB/s, wrote %s at %.1f MiB/s\n"
             "protected %s in session %.31s (%.36s), %u recovery point%s",
             eactl_bytes(r.processed_data_read).c_str(), eactl_mib_per_s(r.throughput_read),
             eactl_bytes(r.processed_data_write).c_str(), eactl_mib_per_s(r.throughput_write),
             eactl_bytes(r.protected_data).c_str(), r.sessionNo[0] ? r.sessionNo : "-",
             r.sessionGuid[0] ? r.sessionGuid : "-", r.recovery_count,
             r.recovery_count == 1 ? "" : "s");
    return text;
}

namespace {

std::string iso8601(time_t when)
{
    char text[32];
    struct tm tm;
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S%z", localtime_r(&when, &tm));
    return text;
}

void set_bytes(json_t* rec, const char* name, unsigned long long bytes)
{
    json_object_set_new(rec, name, json_integer((json_int_t)bytes));
}

void set_rate(json_t* rec, const char* name, unsigned long long kib_per_min)
{
    /* one decimal place more than the text shows */
    json_object_set_new(rec, name, json_real((double)(long long)(eactl_mib_per_s(kib_per_min) * 100 + 0.5) / 100));
}

/* The activity lines "TYPE CODE TEXT" as records; other lines as text. */
void set_events(json_t* rec, const char* text, size_t size)
{
    json_t* events = json_array();
    std::string all = text ? std::string(text, strnlen(text, size)) : "";
    for (size_t at = 0, nl; at < all.size(); at = nl + 1) {
        nl = all.find('\n', at);
        nl = nl == std::string::npos ? all.size() : nl;
        std::string line = all.substr(at, nl - at);
        if (line.empty())
            continue;
        char* end = NULL;
        long type = strtol(line.c_str(), &end, 10);
        const char* word = end != line.c_str() && *end == ' ' ? level_word(type) : NULL;
        char* rest = NULL;
        long code = word ? strtol(end + 1, &rest, 10) : 0;
        if (word && rest != end + 1 && *rest == ' ')
            json_array_append_new(events, json_pack("{s:s, s:I, s:s}", "level", word, "code", (json_int_t)code,
                                                    "text", rest + 1));
        else
            json_array_append_new(events, json_pack("{s:s}", "text", line.c_str()));
    }
    json_object_set_new(rec, "events", events);
}

} /* namespace */

void eactl_readable_fields(int fn, const char* res, json_t* rec)
{
    if (fn == EA_PROC_PING) {
        const PINGres* r = (const PINGres*)res;
        json_object_set_new(rec, "agent_time", json_string(iso8601((time_t)r->stamp).c_str()));
    } else if (fn == EA_PROC_JOBSTATUS) {
        const JOB_STATUS* r = (const JOB_STATUS*)res;
        json_object_set_new(rec, "running", json_boolean(r->sts != EACTL_JOB_ENDED));
        json_object_set_new(rec, "volume", json_stringn(r->vol.name, strnlen(r->vol.name, sizeof(r->vol.name))));
        json_object_set_new(rec, "volume_percent", json_integer((json_int_t)(r->vol.dt_all > 100 ? 100 : r->vol.dt_all)));
        set_bytes(rec, "volume_done_bytes", r->vol.dt_fin << 10);
        set_bytes(rec, "processed_bytes", r->dt_fin << 10);
        set_bytes(rec, "written_bytes", r->processed_data_w << 10);
        set_rate(rec, "rate_mib_s", r->tm_usd ? r->tm_usd : r->vol.tm_usd);
        set_rate(rec, "write_rate_mib_s", r->throughput_w);
        set_events(rec, r->act_size ? r->act_log : NULL, r->act_size);
    } else if (fn == EA_PROC_AGENTLOG) {
        const AGENTLOGres* r = (const AGENTLOGres*)res;
        set_events(rec, r->logSize > 0 ? r->pLog : NULL, (size_t)r->logSize);
    } else if (fn == EA_PROC_JOBRESULT) {
        const JOB_RESULT* r = (const JOB_RESULT*)res;
        set_bytes(rec, "read_bytes", r->processed_data_read);
        set_bytes(rec, "written_bytes", r->processed_data_write);
        set_bytes(rec, "protected_bytes", r->protected_data);
        set_rate(rec, "read_rate_mib_s", r->throughput_read);
        set_rate(rec, "write_rate_mib_s", r->throughput_write);
    }
}

int eactl_line_width()
{
    static bool armed = false;
    if (!armed) {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = on_winch;
        sa.sa_flags = SA_RESTART;
        sigaction(SIGWINCH, &sa, NULL);
        armed = true;
    }
    struct winsize ws;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) != 0 || ws.ws_col < 2)
        return 79;
    return ws.ws_col - 1 > 383 ? 383 : ws.ws_col - 1;
}

bool eactl_resized()
{
    bool r = g_resized != 0;
    g_resized = 0;
    return r;
}
