/*
 * bench_agent.cpp - measures the agent against simple baselines, side by
 * side in one run, and prints a table:
 *   - ping round trip over pipes vs. bench_echo_server (target: <= 1.5x)
 *   - start-up to first ping reply vs. spawning /bin/true
 *   - peak resident memory after 10,000 pings (target: <= 4 MiB)
 *   - resident memory across 10,000 unknown-fn requests (target: flat)
 *
 *   bench_agent [--agent PATH] [--pings N] [--starts N]
 */
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ea_proto.h"
#include "exec_proto.h"

namespace {

struct Peer {
    pid_t pid;
    FILE* in;    /* replies from the peer */
    FILE* out;   /* requests to the peer */
    STDIOChannel* channel;
    ExecProto* proto;
};

double now_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

/* Starts program with --targetworkdir work; the bench is its parent, which
 * is safe because the agent only kills its parent when it cleans up. */
bool spawn(Peer* p, const std::string& program, const std::string& work)
{
    int to[2], from[2];
    if (pipe(to) || pipe(from))
        return false;
    p->pid = fork();
    if (p->pid < 0)
        return false;
    if (p->pid == 0) {
        dup2(to[0], 0);
        dup2(from[1], 1);
        close(to[0]);
        close(to[1]);
        close(from[0]);
        close(from[1]);
        execl(program.c_str(), program.c_str(), "--targetworkdir", work.c_str(), (char*)NULL);
        _exit(127);
    }
    close(to[0]);
    close(from[1]);
    p->out = fdopen(to[1], "w");
    p->in = fdopen(from[0], "r");
    p->channel = new STDIOChannel(p->in, p->out);
    p->proto = new ExecProto(p->channel);
    return true;
}

void finish(Peer* p)
{
    delete p->proto;
    delete p->channel;
    fclose(p->out);
    fclose(p->in);
    waitpid(p->pid, NULL, 0);
}

int ping(Peer* p, const char* text)
{
    PINGargs a = {(int)strlen(text) + 1, const_cast<char*>(text), false};
    char buf[EA_PING_MSG_SIZE];
    PINGres r = {0, (int)sizeof(buf), buf};
    return p->proto->call(EA_PROC_PING, JXDR_PROC(PINGargs, jxdr_PINGargs), (char*)&a,
                          JXDR_PROC(PINGres, jxdr_PINGres), (char*)&r);
}

/* A /proc/<pid>/status value in KiB ("VmHWM", "VmRSS"), -1 if absent. */
long status_kib(pid_t pid, const char* key)
{
    char path[64], line[256];
    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    FILE* f = fopen(path, "r");
    long v = -1;
    size_t klen = strlen(key);
    while (f && fgets(line, sizeof(line), f))
        if (strncmp(line, key, klen) == 0 && line[klen] == ':')
            v = atol(line + klen + 1);
    if (f)
        fclose(f);
    return v;
}

/* Mean microseconds per ping over n pings; -1 on a failed call. */
double ping_rtt(Peer* p, int n)
{
    for (int k = 0; k < 200; k++)   /* warm-up */
        if (ping(p, "warm-up") != 0)
            return -1;
    double t0 = now_us();
    for (int k = 0; k < n; k++)
        if (ping(p, "hello") != 0)
            return -1;
    return (now_us() - t0) / n;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

} /* namespace */

int main(int argc, char** argv)
{
    std::string bindir(argv[0]);
    bindir = bindir.substr(0, bindir.rfind('/') + 1);
    std::string agent = bindir + "kvx_ea", echo = bindir + "bench_echo_server";
    int pings = 10000, starts = 30;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--agent") == 0)
            agent = argv[i + 1];
        else if (strcmp(argv[i], "--pings") == 0)
            pings = atoi(argv[i + 1]);
        else if (strcmp(argv[i], "--starts") == 0)
            starts = atoi(argv[i + 1]);
    }
    signal(SIGPIPE, SIG_IGN);
    char tmpl[] = "/tmp/kvx-bench.XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("mkdtemp");
        return 1;
    }
    std::string work = std::string(tmpl) + "/work";
    mkdir(work.c_str(), 0755);

    /* Ping round trip, agent and baseline in the same run. */
    Peer a, e;
    if (!spawn(&a, agent, work) || !spawn(&e, echo, work)) {
        fprintf(stderr, "bench_agent: cannot start %s or %s\n", agent.c_str(), echo.c_str());
        return 1;
    }
    double rtt_echo = ping_rtt(&e, pings);
    double rtt_agent = ping_rtt(&a, pings);
    long hwm_pings = status_kib(a.pid, "VmHWM");

    /* Unknown procedures get no reply: send them, then sync with one ping. */
    long rss_before = status_kib(a.pid, "VmRSS");
    const char* unknown = "{\"ver\": 1, \"type\": 1, \"seq\": 1, \"fn\": 99, \"status\": 0, \"param\": {}}\n";
    for (int k = 0; k < pings; k++)
        fputs(unknown, a.out);
    fflush(a.out);
    int sync_rc = ping(&a, "sync");
    long rss_after = status_kib(a.pid, "VmRSS");
    finish(&e);
    finish(&a);

    /* Start-up to first ping reply vs. spawning /bin/true. */
    std::vector<double> t_agent, t_true;
    for (int k = 0; k < starts; k++) {
        double t0 = now_us();
        Peer p;
        if (!spawn(&p, agent, work) || ping(&p, "first") != 0)
            return 1;
        t_agent.push_back(now_us() - t0);
        finish(&p);
        t0 = now_us();
        pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/true", "true", (char*)NULL);
            _exit(127);
        }
        waitpid(pid, NULL, 0);
        t_true.push_back(now_us() - t0);
    }
    nftw(tmpl, remove_entry, 16, FTW_DEPTH | FTW_PHYS);

    double ratio = rtt_echo > 0 ? rtt_agent / rtt_echo : 0;
    printf("| measure | agent | baseline | ratio / target |\n");
    printf("|---|---|---|---|\n");
    printf("| ping round trip (%d pings) | %.1f us | %.1f us (Jansson echo server) | %.2fx (<= 1.5x) %s |\n",
           pings, rtt_agent, rtt_echo, ratio, ratio <= 1.5 ? "ok" : "MISSED");
    printf("| start-up to first ping reply (median of %d) | %.0f us | %.0f us (/bin/true) | %.1fx |\n",
           starts, median(t_agent), median(t_true), median(t_agent) / median(t_true));
    printf("| peak RSS after %d pings | %ld KiB | | <= 4096 KiB %s |\n", pings, hwm_pings,
           hwm_pings > 0 && hwm_pings <= 4096 ? "ok" : "MISSED");
    printf("| RSS across %d unknown-fn requests | %ld -> %ld KiB | | flat %s |\n", pings,
           rss_before, rss_after, sync_rc == 0 && rss_after - rss_before <= 64 ? "ok" : "MISSED");
    return 0;
}
