/*
 * eactl_demo.cpp - a simulated backup from start to result: installs the
 * simulated backup program as kvxbackupvol on the node, starts it in the
 * background through procedure 3, polls procedure 2 with a progress bar until
 * the job has ended, then fetches the activity log (5) and the job result (6).
 */
#include "eactl.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

const int JOB_ENDED = 10;       /* sts of a job that is no longer running */
const int POLL_LIMIT_S = 300;

void draw_progress(const JOB_STATUS& st, bool tty)
{
    int pct = st.vol.dt_all > 100 ? 100 : (int)st.vol.dt_all;
    char bar[31];
    int fill = pct * 30 / 100;
    for (int k = 0; k < 30; k++)
        bar[k] = k < fill ? '#' : '.';
    bar[30] = '\0';
    printf("%s[%s] %3d%%  %-16.16s %10llu KiB  %8u KiB/min  phase %u%s",
           tty ? "\r" : "", bar, pct, st.vol.name, (unsigned long long)st.dt_fin, st.tm_usd,
           st.stg, tty ? "" : "\n");
    fflush(stdout);
}

} /* namespace */

int eactl_cmd_demo(EactlSession* s, int argc, char** argv)
{
    int seconds = 8, code = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--seconds") == 0)
            seconds = atoi(argv[i + 1]);
        else if (strcmp(argv[i], "--exit") == 0)
            code = atoi(argv[i + 1]);
    }

    std::string sim = s->agent_path.substr(0, s->agent_path.rfind('/') + 1) + "kvxbackupvol-sim";
    if (eactl_install_client_file(s, sim.c_str(), "kvxbackupvol") != 0) {
        fprintf(stderr, "kvx-eactl demo: cannot install %s as kvxbackupvol\n", sim.c_str());
        return 1;
    }
    printf("agent deployed in %s%s%s\n", s->host.c_str(), s->host.empty() ? "" : ":",
           s->target_dir.c_str());

    char cmd[128];
    snprintf(cmd, sizeof(cmd), "kvxbackupvol --seconds %d --exit %d", seconds, code);
    ExecCmdargs a;
    memset(&a, 0, sizeof(a));
    a.cmd = cmd;
    a.cmd_len = (int)strlen(cmd) + 1;
    a.block_flag = 1;
    a.jobid = 1;
    a.user = const_cast<char*>("");
    a.pwd = const_cast<char*>("");
    ExecCmdres r = {0, 0, NULL};
    if (eactl_call(s, EA_PROC_EXEC_CMD, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&a,
                   JXDR_PROC(ExecCmdres, jxdr_ExecCmdres), (char*)&r) != 0)
        return 1;
    printf("start \"%s\": %.*s (ret %d)\n", cmd, r.cmd_len, r.cmd ? r.cmd : "", r.cmd_ret);
    if (r.cmd_ret != 0)
        return 1;

    bool tty = isatty(STDOUT_FILENO);
    JOB_STATUS st;
    std::string activity;
    time_t until = time(NULL) + POLL_LIMIT_S;
    for (;;) {
        memset(&st, 0, sizeof(st));
        JOBSTATUSargs sa = {1};
        if (eactl_call(s, EA_PROC_JOBSTATUS, JXDR_PROC(JOBSTATUSargs, jxdr_JOBSTATUSargs),
                       (char*)&sa, JXDR_PROC(JOB_STATUS, jxdr_JOBSTATUSres), (char*)&st) != 0)
            return 1;
        if (st.act_size && st.act_log)
            activity += st.act_log;
        if (st.sts == JOB_ENDED)
            break;
        draw_progress(st, tty);
        if (time(NULL) > until) {
            fprintf(stderr, "\nkvx-eactl demo: the job did not end within %d s\n", POLL_LIMIT_S);
            return 1;
        }
        sleep(1);
    }
    if (tty)
        printf("\n");
    printf("job ended: %s (phase %u)\n", st.stg == 1 ? "finished" : "failed", st.stg);
    if (!activity.empty())
        printf("\nactivity seen while polling:\n%s", activity.c_str());

    printf("\nactivity log (procedure 5):\n");
    char* log_argv[] = {const_cast<char*>("log")};
    if (eactl_cmd_log(s, 1, log_argv) != 0)
        return 1;
    printf("\njob result (procedure 6):\n");
    char* result_argv[] = {const_cast<char*>("result")};
    return eactl_cmd_result(s, 1, result_argv);
}
