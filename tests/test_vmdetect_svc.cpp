/*
 * Procedure 7 end to end: the answer matches what this machine shows in
 * /proc/cpuinfo and uname, whether the agent runs as root or re-runs itself
 * through su or sudo, and a job whose script runs here is reported local.
 * The job query is ps-wide and the kvxt_ accounts are used: LOCKS machine.
 */
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include <fstream>
#include <set>

#include "test_accounts.h"
#include "test_exec_cmd_client.h"

namespace {

struct VmAnswer {
    int rc = -100;
    VMDetectInfo_t info = {-1, -1, -1, -1};
};

VmAnswer vmdetect_call(AgentHarness& h, const std::string& uuid, std::string user = "",
                       std::string pwd = "")
{
    std::string cmd = uuid;
    ExecCmdargs args = {};
    args.cmd = &cmd[0];
    args.cmd_len = (int)cmd.size() + 1;
    args.user = &user[0];
    args.pwd = &pwd[0];
    VmAnswer a;
    VMDetectInfo_t* rec = &a.info;
    a.rc = h.call(EA_PROC_VMDETECT, JXDR_PROC(ExecCmdargs, jxdr_ExecCmdargs), (char*)&args,
                  JXDR_PROC(VMDetectInfo_t, jxdr_VMDetectres), (char*)rec);
    return a;
}

/* What the probes must find on this machine, read independently. */
struct MachineFacts {
    int vm = 0;
    int socks = 0;
    int uek = 0;
};

MachineFacts read_machine_facts()
{
    MachineFacts f;
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    std::set<std::string> ids, procs;
    while (std::getline(in, line)) {
        if (line.compare(0, 5, "flags") == 0 && line.find("hypervisor") != std::string::npos)
            f.vm = 1;
        if (line.compare(0, 11, "physical id") == 0)
            ids.insert(line);
        if (line.compare(0, 9, "processor") == 0)
            procs.insert(line);
    }
    f.socks = (int)(ids.empty() ? procs.size() : ids.size());
    struct utsname u;
    uname(&u);
    std::string rel = u.release;
    for (char& c : rel)
        c = (char)tolower((unsigned char)c);
    f.uek = rel.find("uek") != std::string::npos;
    return f;
}

/* A stand-in job script: a sleep whose command line is "jobscript-<uuid> 30". */
pid_t start_job_script(const std::string& uuid)
{
    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_RDWR);
        dup2(null_fd, 1);
        dup2(null_fd, 2);
        std::string name = "jobscript-" + uuid;
        execl("/bin/sleep", name.c_str(), "30", (char*)nullptr);
        _exit(127);
    }
    return pid;
}

#define SKIP_ON_XEN()                                                                  \
    do {                                                                               \
        if (access("/proc/xen", R_OK) == 0)                                            \
            GTEST_SKIP() << "Xen node: the expected answer depends on its capabilities"; \
    } while (0)

TEST(VmDetectService, RootAgentReportsThisMachine)
{
    SKIP_ON_XEN();
    MachineFacts want = read_machine_facts();
    const std::string uuid = "5d0c7a2e-0b7e-4b51-9f3a-" + std::to_string(getpid());

    AgentBox box;
    AgentHarness& h = *box;
    ASSERT_TRUE(h.start());
    for (bool job_running : {false, true}) {
        SCOPED_TRACE(job_running ? "job script running" : "no job script");
        pid_t job = job_running ? start_job_script(uuid) : -1;
        if (job_running)
            usleep(300000);
        VmAnswer a = vmdetect_call(h, uuid);
        if (job > 0) {
            kill(job, SIGKILL);
            waitpid(job, nullptr, 0);
        }
        ASSERT_EQ(0, a.rc);
        EXPECT_EQ(job_running ? 1 : 0, a.info.is_local);
        EXPECT_EQ(want.vm, a.info.vpt_type);
        EXPECT_EQ(want.socks, a.info.socks);
        EXPECT_EQ(want.uek, a.info.is_oracle_uek);
    }
    std::string log = h.log();
    EXPECT_NE(std::string::npos, log.find("detect_vm_info_svc: UUID=" + uuid + "."));
    EXPECT_NE(std::string::npos,
              log.find("detect_vm_info_svc: result, local: 1, vm: " + std::to_string(want.vm)));
}

struct RerunCase {
    const char* name;
    kvxtest::AccountKind agent;
    bool su_root_alias;   /* request names kvxt_root0 with its password */
    bool sudo_password;   /* request carries the agent account's password */
};

const RerunCase kRerunCases[] = {
    {"sudo without password", kvxtest::AccountKind::SudoNoPassword, false, false},
    {"sudo with password", kvxtest::AccountKind::SudoPassword, false, true},
    {"su to a root account", kvxtest::AccountKind::Runner, true, false},
};

TEST(VmDetectService, OrdinaryAgentReRunsItselfAsRoot)
{
    SKIP_ON_XEN();
    KVXT_REQUIRE_SUDO();
    MachineFacts want = read_machine_facts();
    for (const RerunCase& c : kRerunCases) {
        SCOPED_TRACE(c.name);
        const kvxtest::TestAccount& agent = kvxtest::Account(c.agent);
        const kvxtest::TestAccount& alias = kvxtest::Account(kvxtest::AccountKind::RootAlias);
        AgentBox box;
        AgentHarness& h = *box;
        h.run_as(agent.uid, agent.gid);
        ASSERT_TRUE(h.start());
        std::string user = c.su_root_alias ? alias.name : "";
        std::string pwd = c.su_root_alias ? alias.password : (c.sudo_password ? agent.password : "");
        VmAnswer a = vmdetect_call(h, "no-such-job-uuid", user, pwd);
        ASSERT_EQ(0, a.rc);
        EXPECT_EQ(0, a.info.is_local);
        EXPECT_EQ(want.vm, a.info.vpt_type);
        EXPECT_EQ(want.socks, a.info.socks);
        EXPECT_EQ(want.uek, a.info.is_oracle_uek);
        std::string log = h.log();
        EXPECT_NE(std::string::npos, log.find(h.boot_dir + "//kvx_ea EA_CMD_DETECT_VM > /dev/null 2>&1"));
        EXPECT_NE(std::string::npos, log.find(h.boot_dir + "//kvx_ea EA_CMD_GET_SOCKS > /dev/null 2>&1"));
    }
}

} /* namespace */
