/*
 * eactl_demo.cpp - a simulated backup from start to result, as an operator
 * would watch one: the simulated backup program is installed as
 * kvxbackupvol with the agent and started in the background through
 * procedure 3; procedure 2 is polled once a second for a progress line and
 * the new activity lines until the job has ended; then the rest of the
 * activity log (5) and the job result (6) close it.
 */
#include "eactl.h"

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

const int POLL_LIMIT_S = 3600;

struct DemoOptions {
    int seconds = 10;
    int code = 0;
};

int parse_demo(int argc, char** argv, DemoOptions* o)
{
    static const struct option opts[] = {{"seconds", required_argument, nullptr, 's'},
                                         {"exit", required_argument, nullptr, 'e'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    int opt;
    long v = 0;
    optind = 0;
    while ((opt = eactl_getopt(argc, argv, "h", opts)) != -1) {
        if (opt == 'h') {
            eactl_command_help("demo");
            return EACTL_HELP;
        }
        bool seconds = opt == 's';
        if (opt == '?' || !eactl_number("demo", seconds ? "--seconds" : "--exit", optarg, 0,
                                        seconds ? 3600 : 255, &v))
            return EACTL_USAGE;
        (seconds ? o->seconds : o->code) = (int)v;
    }
    if (optind != argc) {
        fprintf(stderr, "kvx-eactl demo: takes no arguments but options; try 'kvx-eactl demo --help'\n");
        return EACTL_USAGE;
    }
    return EACTL_OK;
}

void show_progress(EactlSession* s, const JOB_STATUS& st, long elapsed)
{
    if (s->tty) {
        int width = eactl_line_width();
        printf("\r%-*s", width, eactl_progress_line(st, elapsed, width).c_str());
    } else {
        printf("%s\n", eactl_progress_line(st, elapsed, 79).c_str());
    }
    fflush(stdout);
}

/* Waits a second; on a terminal that changes its size meanwhile the
 * progress line is drawn again at the new width. */
void wait_a_second(EactlSession* s, const JOB_STATUS& st, long elapsed)
{
    struct timespec left = {1, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR && !eactl_interrupted()) {
        if (s->tty && eactl_resized())
            show_progress(s, st, elapsed);
    }
}

/* Starts the simulated job in the background; 0 or EACTL_FAILED. */
int start_job(EactlSession* s, const DemoOptions& o)
{
    char cmd[128];
    snprintf(cmd, sizeof(cmd), "kvxbackupvol --seconds %d --exit %d", o.seconds, o.code);
    ExecCmdargs a;
    memset(&a, 0, sizeof(a));
    a.cmd = cmd;
    a.cmd_len = (int)strlen(cmd) + 1;
    a.block_flag = 1;
    a.jobid = 1;
    a.user = const_cast<char*>("");
    a.pwd = const_cast<char*>("");
    ExecCmdres r = {0, 0, NULL};
    eactl_activity_drained(s);   /* the job's log starts empty in the fresh work directory */
    int rc = eactl_request(s, EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&a,
                           JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r);
    if (rc < 0)
        return EACTL_FAILED;
    if (r.cmd_ret != 0) {
        eactl_error(s, "demo: the backup program did not start (ret %d): %.*s", r.cmd_ret,
                    r.cmd ? (int)strnlen(r.cmd, (size_t)r.cmd_len) : 0, r.cmd ? r.cmd : "");
        return EACTL_FAILED;
    }
    if (rc == 0)
        printf("backup started on %s: %s\n", s->node.c_str(), cmd);
    return EACTL_OK;
}

/* Polls until the job has ended; its last reply in st.  0 or EACTL_FAILED. */
int watch_job(EactlSession* s, JOB_STATUS* st)
{
    time_t start = time(NULL);
    for (;;) {
        memset(st, 0, sizeof(*st));
        JOBSTATUSargs sa = {1};
        int rc = eactl_request(s, EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs),
                               (char*)&sa, JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)st);
        if (rc < 0)
            return EACTL_FAILED;
        if (rc == 0)
            eactl_print_activity(s, st->act_size ? st->act_log : NULL);
        if (st->sts == EACTL_JOB_ENDED)
            break;
        if (rc == 0)
            show_progress(s, *st, (long)(time(NULL) - start));
        if (time(NULL) - start > POLL_LIMIT_S) {
            eactl_error(s, "demo: the job did not end within %d s", POLL_LIMIT_S);
            return EACTL_FAILED;
        }
        wait_a_second(s, *st, (long)(time(NULL) - start));
    }
    if (s->tty)
        printf("\r%-*s\r", eactl_line_width(), "");
    return EACTL_OK;
}

} /* namespace */

int eactl_cmd_demo(EactlSession* s, int argc, char** argv)
{
    DemoOptions o;
    int rc = parse_demo(argc, argv, &o);
    if (rc != EACTL_OK)
        return rc;
    if (s->checking) {
        std::string sim = eactl_find_program("kvxbackupvol-sim");
        if (sim.empty()) {
            fprintf(stderr, "kvx-eactl demo: kvxbackupvol-sim is neither beside kvx-eactl nor in "
                            "../lib/kvx-ea\n");
            return EACTL_FAILED;
        }
        s->files.push_back({sim, "work/linux-kvx-client/kvxbackupvol"});
        /* the agent's cleanup cancels a running backup through it */
        std::string monitor = eactl_find_program("kvxmonitor-sim");
        if (!monitor.empty())
            s->files.push_back({monitor, "work/linux-kvx-client/kvxmonitor"});
        return EACTL_OK;
    }
    if (!s->json)
        printf("%s deployed on %s (%s) in %s\n", strrchr(s->agent_path.c_str(), '/')
                   ? strrchr(s->agent_path.c_str(), '/') + 1 : s->agent_path.c_str(),
               s->node.c_str(), s->machine.c_str(), s->target_dir.c_str());
    JOB_STATUS st;
    if (start_job(s, o) != EACTL_OK || watch_job(s, &st) != EACTL_OK)
        return EACTL_FAILED;
    bool ok = st.stg == 1;
    char* log_argv[] = {const_cast<char*>("log")};
    char* result_argv[] = {const_cast<char*>("result")};
    if (eactl_cmd_log(s, 1, log_argv) != EACTL_OK)
        return EACTL_FAILED;
    if (!s->json)
        printf("backup %s:\n", ok ? "finished" : "FAILED");
    if (eactl_cmd_result(s, 1, result_argv) != EACTL_OK)
        return EACTL_FAILED;
    if (!ok)
        s->reason = "the backup job failed";
    return ok ? EACTL_OK : EACTL_FAILED;
}
