/*
 * A local user on the node gains nothing from the agent: each attack is set
 * up by a throwaway unprivileged account (kvxt_plain), then the server's
 * requests run, then the outcome is checked.  Holds the product lock and the
 * machine's monitor key: LOCKS machine.
 */
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include "kvx_records.h"
#include "test_accounts.h"
#include "test_exec_cmd_client.h"
#include "zelfunc.h"

namespace {

/* Shell text run as the attacker; its exit status. */
int attacker(const std::string& sh)
{
    return kvxtest::RunAs(kvxtest::Account(kvxtest::AccountKind::Plain),
                          [&](std::string&) { return system(sh.c_str()); }).code;
}

/* Permission bits of path, -1 when it is missing. */
int mode_of(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? (int)(st.st_mode & 07777) : -1;
}

/* A forked attacker process that runs fn as kvxt_plain (before it signals ready) and then waits to be killed. */
pid_t attacker_holding(const std::function<bool()>& fn)
{
    const kvxtest::TestAccount& a = kvxtest::Account(kvxtest::AccountKind::Plain);
    int ready[2];
    char c;
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        if (setgid(a.gid) == 0 && setuid(a.uid) == 0 && fn() && write(ready[1], "x", 1) == 1)
            pause();
        _exit(1);
    }
    close(ready[1]);
    bool ok = read(ready[0], &c, 1) == 1;
    close(ready[0]);
    return ok ? pid : -1;
}

/* Work directory others can write, as /tmp: the attacker plants links, programs and files. */
TEST(LocalUser, GainsNothingFromASharedWorkDirectory)
{
    KVXT_REQUIRE_ACCOUNTS();
    AgentHarness h;
    const std::string w = h.work_dir, secret = h.root + "/secret";
    ASSERT_EQ(0, rmdir(h.client_dir.c_str()));
    ASSERT_EQ(0, chmod(w.c_str(), 01777));
    ASSERT_EQ(0, mkdir(secret.c_str(), 0700));
    std::string lines;   /* a log long enough to be trimmed at start-up */
    for (int i = 0; i < 20001; i++)
        lines += "1 0 root only\n";
    for (const char* f : {"res", "log", "report"}) {
        AgentHarness::write_file(secret + "/" + f, f == std::string("log") ? lines : "1 0 root only\n");
        chmod((secret + "/" + f).c_str(), 0600);
    }
    AgentHarness::write_file(w + "/root.js", "root's");
    const kvxtest::TestAccount& a = kvxtest::Account(kvxtest::AccountKind::Plain);
    AgentHarness::write_script(h.boot_dir + "/checkmachine", "echo checked; setpriv --reuid=" + std::to_string(a.uid) +
                               " --regid=" + std::to_string(a.gid) + " --clear-groups sh -c 'echo forged >>" +
                               h.boot_dir + "/.checkmachinetxt' 2>/dev/null; true");
    ASSERT_EQ(0, chmod(h.boot_dir.c_str(), 0777));
    ASSERT_EQ(0, attacker("ln -s " + secret + "/report " + h.boot_dir + "/.checkmachinetxt"));
    ASSERT_EQ(0, attacker("cd " + w + " && mkdir logs linux-kvx-client && echo x > theirs.js && "
                          "echo 4 0 backup finished OK >logs/linuxkvxactivity.log && "
                          "ln -s " + secret + "/res logs/linuxkvxjobres && "
                          "ln -s " + secret + "/log logs/kvx-agent.log && cd linux-kvx-client && "
                          "for p in ps id; do printf '#!/bin/sh\\ntouch %s/ran-%s\\n' " + w +
                          " $p >$p && chmod 755 $p; done"));
    ASSERT_TRUE(h.start());

    EXPECT_EQ(0, num(rpc(h, EA_PROC_AGENTLOG, ""), "size"));
    EXPECT_TRUE(rpc(h, EA_PROC_JOBRESULT, ""));
    EXPECT_TRUE(run_cmd(h, 1, "id >/dev/null; ps"));
    EXPECT_EQ("checked ", text(rpc(h, EA_PROC_CHECK_MACHINE, exec_args(h.boot_dir + "/checkmachine", true)), "str"));
    EXPECT_EQ(0600, mode_of(secret + "/report"));
    EXPECT_EQ(0777, mode_of(h.boot_dir)) << "opened again after the check";
    for (const char* f : {"res", "log", "report"})
        EXPECT_EQ(f == std::string("log") ? lines : "1 0 root only\n", AgentHarness::read_file(secret + "/" + f)) << f;
    EXPECT_EQ(0777, mode_of(w + "/logs/kvx-agent.log")) << "still the attacker's link, not trimmed by sed";
    EXPECT_FALSE(AgentHarness::exists(w + "/ran-ps") || AgentHarness::exists(w + "/ran-id"));
    const std::string err = h.agent_stderr();
    EXPECT_NE(std::string::npos, err.find("/logs/kvx-agent.log]: logs belongs to another account.")) << err;
    EXPECT_EQ(err.find("Log not trusted, not written: ["), err.rfind("Log not trusted"));

    h.signal_agent(SIGHUP);   /* the cleanup: only root's own files go */
    EXPECT_EQ(1, h.wait_exit(60));
    EXPECT_FALSE(AgentHarness::exists(w + "/root.js"));
    EXPECT_TRUE(AgentHarness::exists(w + "/theirs.js") && AgentHarness::exists(w + "/linux-kvx-client/ps"));

    /* the same client directory, made by the attacker after start-up */
    AgentHarness late;
    ASSERT_EQ(0, rmdir(late.client_dir.c_str()));
    ASSERT_EQ(0, chmod(late.work_dir.c_str(), 01777));
    ASSERT_TRUE(late.start());
    ASSERT_TRUE(run_cmd(late, 1, ":"));   /* start-up done */
    ASSERT_EQ(0, attacker("mkdir " + late.client_dir + " && cd " + late.client_dir + " && printf '#!/bin/sh\\ntouch " +
                          late.root + "/ran\\n' >ps && chmod 755 ps"));
    EXPECT_TRUE(run_cmd(late, 1, "ps >/dev/null; :"));
    EXPECT_FALSE(AgentHarness::exists(late.root + "/ran"));
}

/* The server's own work directory: what the agent and its commands make stays
 * theirs, loose files are tightened, and neither a forged event, an overlong
 * line nor a stranger's monitor segment reaches the server. */
TEST(LocalUser, CannotForgeWhatTheServerIsTold)
{
    KVXT_REQUIRE_ACCOUNTS();
    AgentHarness h;   /* as root with IPC and mount namespaces of its own: the monitor key is its alone */
    const std::string w = h.work_dir, act = w + "/logs/linuxkvxactivity.log";
    h.install_simulator();
    ASSERT_EQ(0, mkdir((w + "/logs").c_str(), 0777));
    chmod((w + "/logs").c_str(), 0777);
    AgentHarness::write_file(w + "/logs/kvx-agent.log", "");
    chmod((w + "/logs/kvx-agent.log").c_str(), 0666);
    ASSERT_TRUE(h.start());
    ASSERT_TRUE(run_cmd(h, 9, ":"));   /* start-up done */
    EXPECT_EQ(0755, mode_of(w + "/logs"));
    EXPECT_EQ(0644, mode_of(w + "/logs/kvx-agent.log"));

    ASSERT_TRUE(run_cmd(h, 1, "cd " + w + " && mkdir d && touch f && echo 1 0 started >>" + act + "; :"));
    EXPECT_EQ(0755, mode_of(w + "/d"));
    EXPECT_EQ(0644, mode_of(w + "/f"));
    EXPECT_NE(0, attacker("echo 4 0 backup finished OK 2>/dev/null >>" + act));
    EXPECT_EQ("1 0 started\n", text(rpc(h, EA_PROC_AGENTLOG, ""), "ActivityLogs")) << h.log();

    /* 65,535 blanks and an envelope on one line: one bad line, not a request */
    h.send_raw(std::string(65535, ' ') + request_line(90, EA_PROC_PING, "{\"str\": \"spliced\"}"));
    Reply r = rpc(h, EA_PROC_PING, "{\"str\": \"next\"}");
    EXPECT_EQ("next", text(r, "str"));
    EXPECT_EQ(1, log_count(h.log(), "net_conn", 0, "Line longer than 65535 bytes discarded."));

    /* the stranger makes the monitor's key first, in the agent's IPC namespace (the segment outlives its maker) */
    const kvxtest::TestAccount& a = kvxtest::Account(kvxtest::AccountKind::Plain);
    ASSERT_TRUE(h.in_agent_namespaces([&] {
        int id = setgid(a.gid) || setuid(a.uid) ? -1 : shmget(KVX_IPC_KEY, KVX_MONITOR_SIZE, IPC_CREAT | 0666);
        RECOVERYPOINT_MONITOR* m = (RECOVERYPOINT_MONITOR*)(id >= 0 ? shmat(id, nullptr, 0) : (void*)-1);
        if (m == (void*)-1)
            return false;
        m->usJobStatus = 1;
        m->job_monitor.ulJobPhase = 7;
        strcpy(m->job_monitor.wszDiskName, "/dev/FORGED");
        return true;
    }));
    ASSERT_TRUE(run_cmd(h, 2, "kvxbackupvol --no-shm --seconds 2", true));
    Reply st = rpc(h, EA_PROC_JOBSTATUS, "{\"id\": 0}", 60000);
    EXPECT_NE("/dev/FORGED", text(st, "vol.name"));
    EXPECT_EQ(10, num(st, "sts"));
    EXPECT_GE(log_count(h.log(), "zelfunc", 0, "not trusted (creator "), 1);
}

/* A stranger who opened the legacy 0666 lock file holds a read lock: the
 * agent still takes the lock and the query does not answer "backup running". */
TEST(LocalUser, CannotHoldTheProductLock)
{
    KVXT_REQUIRE_ACCOUNTS();
    if (access("/etc/.kvx", F_OK) == 0)
        GTEST_SKIP() << "/etc/.kvx exists: the agent would lock it instead";
    ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
    ASSERT_EQ(0, mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL)) << strerror(errno);
    ASSERT_EQ(0, mount("kvxt_varlib", "/var/lib", "tmpfs", 0, "mode=0755")) << strerror(errno);
    const std::string lock = "/var/lib/kvx_cache/backup.bat";
    ASSERT_EQ(0, mkdir("/var/lib/kvx_cache", 0755));
    AgentHarness::write_file(lock, "");
    chmod(lock.c_str(), 0666);
    pid_t holder = attacker_holding([&] {
        struct flock fl = {};
        fl.l_type = F_RDLCK;
        int fd = open(lock.c_str(), O_RDONLY);
        return fd >= 0 && fcntl(fd, F_SETLK, &fl) == 0;
    });
    ASSERT_GT(holder, 0);
    AgentHarness h;
    h.share_node();   /* the agent locks the file of this test's own /var/lib, itself private */
    ASSERT_TRUE(h.start());
    Reply r = rpc(h, EA_PROC_CHECK_MACHINE, exec_args("kvx_ea_check_set_lock.cmd", true));
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    /* -2 only for a volume backup another test runs on this machine, never for the stranger's lock */
    EXPECT_TRUE(num(r, "ret") >= 0 || log_count(h.log(), "ea_svc", 90, "kvxbackupvol already running") == 1)
        << h.log();
    EXPECT_EQ(0600, mode_of(lock));
    EXPECT_NE(0, attacker("exec 2>/dev/null 3<" + lock));
    EXPECT_EQ(1, log_count(h.log(), "zelfunc", 0, "of another account: made anew."));
}

} // namespace
