/*
 * The operator client deploying the real agent: on this machine, through a
 * private OpenSSH server on 127.0.0.1 (its own keys and port, key
 * authentication only, nothing in ~/.ssh touched), on many nodes at once,
 * and from its Debian package unpacked into a temporary root.
 */
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>

#include "eactl.h"
#include "eactl_fixture.h"

namespace {

/* The password from the environment travels only inside requests. */
TEST_F(EactlDeploy, PasswordFromTheEnvironmentOnlyInRequests)
{
    setenv("KVX_EACTL_PASSWD", "kvxt-secret", 1);
    Outcome r = run_eactl({"exec", "env"}, dir);
    unsetenv("KVX_EACTL_PASSWD");
    EXPECT_EQ(0, r.status) << r.err;
    expect_shows(r.out, {"PATH=", "!kvxt-secret"});
}

/* Runs of the client and what they show, each within its time limits.
 * Quiet unless asked: the agent's first-start "wc" message and a command's
 * standard error stay in the target unless -v; over ssh one connection
 * carries the whole session.  Exit status 1: a command failed, 4: a node
 * unreachable or timed out (over failed); the remote command's exit status in
 * every mode; JSON records with readable fields beside the wire's; many nodes
 * in parallel; the demo reads like a backup; host ranges, an exclude and
 * standard input run each node once, and one host from a list still gets its
 * prefix and the summary (for dshbak and clubak). */
TEST_F(EactlDeploy, ExitStatusesAndWhatRunsShow)
{
    spill(dir + "/nodes", "node1\nnode2  # web\n\nnode3\nunreachable\nsilent\n");
    const struct {
        std::vector<std::string> args;
        bool ssh;
        int status;
        std::vector<std::string> out, err;   /* see expect_shows */
        int connections = -1;                 /* new ones, -1 unchecked */
        std::string input;
    } cases[] = {
        {{"ping", "hi", "then", "exec", "echo out; echo err >&2"}, false, 0, {"reply: hi\n", "ret: 0\nout\n"}, {"="}, 0},
        {{"-v", "ping", "hi", "then", "exec", "echo out; echo err >&2"}, false, 0, {"reply: hi\n", "ret: 0\nout\n"},
         {"kvx-eactl: localhost: stderr: wc: ", "kvx-eactl: localhost: stderr: err\n",
          "/kvx_ea (x86_64) deployed in /tmp/kvx-eactl."}, 0},
        {{"--no-reuse", "--host", "node1", "ping", "hi", "then", "exec", "echo out; echo err >&2"}, true, 0,
         {"reply: hi\n", "ret: 0\nout\n"}, {"="}, 1},
        {{"--no-reuse", "--host", "node1", "-v", "ping", "hi", "then", "exec", "echo out; echo err >&2"}, true, 0,
         {"reply: hi\n", "ret: 0\nout\n"},
         {"kvx-eactl: node1: stderr: wc: ", "kvx-eactl: node1: stderr: err\n", " (x86_64) deployed in /tmp/kvx-eactl."}, 1},
        {{"exec", "--wait", "exit 7"}, false, 1, {"=ret: 1, exit status 7\nno return\n"}},
        {{"exec", "echo out; exit 3"}, false, 1, {"=ret: 0, exit status 3\nout\n"}},
        {{"exec", "echo out"}, false, 0, {"=ret: 0\nout\n"}},
        {{"exec", "exit 3", "then", "exec", "echo after"}, false, 1, {"=ret: 0, exit status 3\nret: 0\nafter\n"}},
        {{"exec", "--wait", "true"}, false, 0, {"=ret: 0\nno return\n"}},
        {{"exec", "kill -9 $PPID"}, false, 1, {}},
        {{"--json", "exec", "echo x; exit 5"}, false, 1,
         {"\"type\": \"reply\", \"command\": \"exec\", \"param\": {\"str\": \"x\\n\"",
          "\"status\": 5, \"reason\": \"exit status 5\"}"}},
        {{"--json", "ping", "t"}, false, 0, {"\"agent_time\": \"20"}},
        {{"--json", "demo", "--seconds", "0"}, false, 0,
         {"\"read_bytes\": 7516192768, \"written_bytes\": 3231961088, \"protected_bytes\": 7516192768, "
          "\"read_rate_mib_s\": 7168.0, \"write_rate_mib_s\": 3082.24}",
          "{\"level\": \"info\", \"code\": 0, \"text\": \"Backup job finished: 7.0 GiB read, 3.0 GiB written\"}"}},
        {{"--host", "node1", "exec", "--wait", "exit 9"}, true, 1, {"=ret: 1, exit status 9\nno return\n"}},
        {{"--host", "unreachable", "ping", "x"}, true, 4, {}},
        {{"--connect-timeout", "1", "--host", "silent", "ping", "x"}, true, 4, {}},
        /* three aliases of the server in parallel with one that refuses and one that never answers: each
         * ok node's lines come prefixed, the silent one ends at its time-out, and the summary counts them */
        {{"--no-reuse", "--hosts-file", dir + "/nodes", "--connect-timeout", "2", "ping", "many"}, true, 4,
         {"node1: reply: many\n", "node2: reply: many\n", "node3: reply: many\n",
          "~^(node[123]: [^\n]*\n){6}summary: 3 ok, 0 failed, 2 unreachable \\(unreachable, silent\\)\n$"},
         {"kvx-eactl: unreachable: unreachable\n", "kvx-eactl: unreachable: stderr: ssh: connect to host 127.0.0.1 port ",
          "kvx-eactl: silent: stderr: Connection timed out during banner exchange"}, 3},
        {{"--host", "node1,unreachable", "exec", "exit 3"}, true, 4,
         {"summary: 0 ok, 1 failed (node1), 1 unreachable (unreachable)\n"}},
        {{"--json", "--host", "node1", "--host", "node3", "--host", "unreachable", "ping", "js"}, true, 4,
         {"~^(\\{\"[^\n]*\\}\n){6}$",
          "{\"host\": \"node1\", \"type\": \"reply\", \"command\": \"ping\", \"param\": {\"str\": \"js\"",
          "{\"host\": \"node3\", \"type\": \"reply\", \"command\": \"ping\", \"param\": {\"str\": \"js\"",
          "{\"host\": \"node1\", \"type\": \"node\", \"result\": \"ok\"",
          "{\"host\": \"node3\", \"type\": \"node\", \"result\": \"ok\"",
          "{\"host\": \"unreachable\", \"type\": \"node\", \"result\": \"unreachable\"",
          "{\"type\": \"summary\", \"ok\": 2, \"failed\": 0, \"unreachable\": 1, \"failed_hosts\": [], "
          "\"unreachable_hosts\": [\"unreachable\"]}\n"}},
        {{"--host", "node2", "demo", "--seconds", "2"}, true, 0,
         {" deployed on node2 (x86_64) in /tmp/kvx-eactl.",
          "backup started on node2: kvxbackupvol --seconds 2 --exit 0\n",
          "  info     Backup job started: 2 volumes, 7.0 GiB\n",
          "  info     Backing up /dev/sdb1 (xfs, 2.5 GiB)\n",
          "  info     Backup job finished: 7.0 GiB read, 3.0 GiB written\n",
          "backup finished:\nread 7.0 GiB at 3584.0 MiB/s, wrote 3.0 GiB at ",
          "protected 7.0 GiB in session S0000042 (",
          "~\n +[0-9]+%  [0-9.]+/[0-9.?]+ GiB  [0-9.]+ MiB/s  elapsed [0-9]+:[0-9]{2}  ETA [-0-9]+:[-0-9]{2}  "
          "/dev/sd[ab][12]\n",
          "!--:--:--"},   /* each poll's lines have their time */
         {"="}},
        {{"demo", "--seconds", "0", "--exit", "4"}, false, 1,
         {"  error    Backup job failed with exit code 4 (code 4)\nbackup FAILED:\n"},
         {"kvx-eactl: localhost: stderr: wc: "}},
        {{"--host", "node[1-3]", "-x", "node2", "--hosts-file", "-", "ping", "sel"}, true, 0,
         {"~^(node[13]: [^\n]*\n){4}summary: 2 ok, 0 failed, 0 unreachable\n$"}, {}, -1, "node3\nnode1  # again\n\n"},
        {{"--host", "node[2-2]", "ping", "one"}, true, 0,
         {"node2: reply: one\n", "summary: 1 ok, 0 failed, 0 unreachable\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(joined(c.args));
        int before = connections();
        Outcome r = run_eactl(c.ssh ? over_ssh(c.args) : c.args, dir, c.input);
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_LT(r.seconds, 15.0) << "waited for a silent node";
        expect_shows(r.out, c.out);
        expect_shows(r.err, c.err);
        EXPECT_TRUE(c.connections < 0 || c.connections == connections() - before) << connections() - before;
    }
    /* dshbak and clubak group the nodes' identical lines */
    Outcome r = run_eactl(over_ssh({"--host", "node[1-3]", "-x", "node2", "exec", "echo same"}), dir);
    EXPECT_EQ(0, r.status) << r.err;
    spill(dir + "/lines", r.out);
    for (std::string grouper : {"dshbak -c", "clubak -b"}) {
        /* pdsh and clustershell come with scripts/setup.sh */
        if (sshd_sandbox_run({"sh", "-c", "command -v " + grouper.substr(0, grouper.find(' '))}) == 0)
            expect_shows(run_program({"sh", "-c", grouper + " <" + dir + "/lines"}, dir).out,
                         {"node[1,3]", "ret: 0\n", "same\n"});
    }
}

/* An Ansible inventory, INI and YAML, with groups of groups, --limit,
 * ansible_host and ansible_port. */
TEST_F(EactlDeploy, AnsibleInventoryWithGroupsAndLimit)
{
    if (sshd_sandbox_run({"sh", "-c", "command -v ansible-inventory"}) != 0)
        GTEST_SKIP() << "ansible-core is not installed (scripts/setup.sh installs it)";
    setenv("ANSIBLE_HOME", (dir + "/ansible").c_str(), 1);
    std::string port = std::to_string(sb.port);
    spill(dir + "/hosts.ini", "[web]\nnode1\nnode2\n[db]\ndatabase ansible_host=node3\n"
                              "[direct]\nbyport ansible_host=127.0.0.1 ansible_port=" + port + "\n"
                              "[prod:children]\nweb\ndb\n");
    spill(dir + "/hosts.yml", "all:\n  children:\n    prod:\n      children:\n"
                              "        web:\n          hosts:\n            node1:\n            node2:\n"
                              "        db:\n          hosts:\n            database:\n              ansible_host: node3\n"
                              "    direct:\n      hosts:\n        byport:\n          ansible_host: 127.0.0.1\n"
                              "          ansible_port: " + port + "\n");
    /* the YAML reader gets the groups and the limit once */
    const struct { const char* file; const char* limit; std::vector<std::string> hosts; } cases[] = {
        {"hosts.ini", "", {"node1", "node2", "database", "byport"}},
        {"hosts.ini", "prod:!node2", {"node1", "database"}},
        {"hosts.ini", "direct", {"byport"}},
        {"hosts.yml", "", {"node1", "node2", "database", "byport"}},
        {"hosts.yml", "prod:!node2", {"node1", "database"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " --limit " + c.limit);
        std::vector<std::string> args = {"--inventory", dir + "/" + c.file, "ping", "inv"};
        if (*c.limit)
            args.insert(args.begin() + 2, {"--limit", c.limit});
        Outcome r = run_eactl(over_ssh(args), dir);
        EXPECT_EQ(0, r.status) << r.err;
        for (const std::string& h : c.hosts)
            EXPECT_TRUE(has(r.out, h + ": reply: inv\n")) << r.out;
        EXPECT_TRUE(has(r.out, "summary: " + std::to_string(c.hosts.size()) + " ok,")) << r.out;
    }
    Outcome r = run_eactl(over_ssh({"--inventory", dir + "/hosts.ini", "--limit", "nothing", "ping"}), dir);
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "kvx-eactl: --limit 'nothing' leaves no host of ")) << r.err;
    r = run_program({"env", "PATH=/nonexistent", kBin + "/kvx-eactl", "--inventory", dir + "/hosts.ini", "ping"}, dir);
    EXPECT_EQ(2, r.status);
    EXPECT_TRUE(has(r.err, "install Debian's ansible-core")) << r.err;
}

/* A second call shares the first one's connection and takes the agent from
 * the node's cache; a cache entry that fails its check is never run. */
TEST_F(EactlDeploy, WarmCallReusesTheConnectionAndTheCachedAgent)
{
    if (!built("kvx_ea-static"))
        GTEST_SKIP() << "the sanitizer build has no static agent";
    std::string cached = sb.dir + "/cache/kvx-eactl/" + eactl_file_hash(kBin + "/kvx_ea-static");
    unlink(cached.c_str());
    int before = connections();
    Outcome r = run_eactl(over_ssh({"-v", "--host", "node1", "ping", "cold"}), dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_FALSE(has(r.err, "from the node's cache")) << r.err;
    EXPECT_EQ(slurp(kBin + "/kvx_ea-static"), slurp(cached));
    struct stat st;
    ASSERT_EQ(0, stat((sb.dir + "/cache/kvx-eactl").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    int after_cold = connections();
    EXPECT_LE(after_cold - before, 1);

    r = run_eactl(over_ssh({"-v", "--host", "node1", "ping", "warm"}), dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "reply: warm\n")) << r.out;
    expect_shows(r.err, {"deployed in /tmp/kvx-eactl.", " from the node's cache\n"});
    EXPECT_EQ(after_cold, connections()) << "a new connection";

    spill(cached, "#!/bin/sh\ntouch " + dir + "/ran\n", 0755);
    r = run_eactl(over_ssh({"--host", "node1", "ping", "bad"}), dir);
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "failed its check and was removed")) << r.err;
    EXPECT_NE(0, access((dir + "/ran").c_str(), F_OK)) << "the changed copy ran";
    r = run_eactl(over_ssh({"--no-reuse", "--host", "node1", "ping", "again"}), dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(slurp(kBin + "/kvx_ea-static"), slurp(cached));
}

/* Processes whose parent is this process (the test is their subreaper), but sshd. */
std::vector<pid_t> own_children(pid_t sshd)
{
    std::vector<pid_t> pids;
    std::string me = "PPid:\t" + std::to_string(getpid()) + "\n";
    Outcome r = run_program({"sh", "-c", "grep -l '^PPid:' /proc/[0-9]*/status 2>/dev/null"}, "/tmp");
    for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string path = r.out.substr(at, nl - at), status = slurp(path);
        pid_t pid = atoi(path.c_str() + 6);
        if (has(status, me) && !has(status, "State:\tZ") && pid != sshd)
            pids.push_back(pid);
    }
    return pids;
}

/* Ctrl-C (SIGINT) and SIGTERM during a demo over ssh: the agent's input is
 * closed, the node removes the target and ends the backup program, and no
 * process of the client is left. */
TEST_F(EactlDeploy, InterruptDuringDemoLeavesNothingBehind)
{
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    /* SIGTERM to the client of many nodes reaches it alone: it passes it on to each node */
    const struct { int sig; const char* hosts; size_t nodes; } cases[] = {
        {SIGINT, "node2", 1}, {SIGTERM, "node2", 1}, {SIGTERM, "node[1-2]", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(strsignal(c.sig)) + " " + c.hosts);
        std::string out = dir + "/demo.out", err = dir + "/demo.err";
        std::vector<std::string> args = over_ssh({"--no-reuse", "--host", c.hosts, "demo", "--seconds", "60"});
        args.insert(args.begin(), kBin + "/kvx-eactl");
        pid_t pid = start_program(args, "/dev/null", out, err);
        /* each backup runs once its first progress line is out */
        std::string text, deployed = " deployed on node[12] \\(x86_64\\) in (/[^\n]+)\n";
        for (int k = 0; k < 3000 && (count_of(text, deployed) < c.nodes || count_of(text, "%  [^\n]*\n") < c.nodes);
             k++) {
            usleep(10000);
            text = slurp(out);
        }
        std::vector<std::string> targets;
        std::regex re(deployed);
        for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it)
            targets.push_back((*it)[1]);
        ASSERT_EQ(c.nodes, targets.size()) << text << slurp(err);
        for (const std::string& t : targets)
            ASSERT_EQ(0, access(t.c_str(), F_OK)) << t;
        double t0 = now_s();
        kill(pid, c.sig);
        int st = eactl_reap(pid);
        EXPECT_LT(now_s() - t0, 15.0) << "the demo ran on";
        EXPECT_TRUE(WIFEXITED(st)) << st;
        EXPECT_EQ(128 + c.sig, WEXITSTATUS(st)) << slurp(err);
        for (const std::string& t : targets) {
            EXPECT_NE(0, access(t.c_str(), F_OK)) << t << " left on the node";
            EXPECT_EQ("", run_program({"sh", "-c", "ls -l /proc/[0-9]*/exe 2>/dev/null | grep -F '" + t + "/'"}, dir).out)
                << "left running on the node";
        }
        while (waitpid(-1, &st, WNOHANG) > 0)   /* ended orphans of the node's side */
            ;
        std::vector<pid_t> left = own_children(sb.pid);
        EXPECT_TRUE(left.empty()) << left.size() << " processes of the client left, e.g. "
                                  << (left.empty() ? "" : slurp("/proc/" + std::to_string(left[0]) + "/cmdline"));
        for (pid_t p : left)
            kill(p, SIGKILL);
        while (waitpid(-1, &st, WNOHANG) > 0)
            ;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

/* A node whose /tmp cannot run programs (a private mount namespace with a
 * noexec or read-only tmpfs on /tmp): the deploy moves on to $TMPDIR, then
 * /var/tmp, and says so in one line; --target still decides. */
TEST_F(EactlDeploy, NoexecTmpFallsBackToAnotherDirectory)
{
    if (sshd_sandbox_run({"unshare", "-m", "true"}) != 0)
        GTEST_SKIP() << "no mount namespace here (needs root)";
    if (kBin.compare(0, 5, "/tmp/") == 0)
        GTEST_SKIP() << "the build tree is under /tmp, which the test covers";
    std::string var_tmpdir = "/var/tmp/kvx-eactl-test-tmpdir." + std::to_string(getpid());
    mkdir(var_tmpdir.c_str(), 0755);
    const std::string moved = "kvx-eactl: localhost: /tmp cannot run programs: deployed in ";
    const struct { std::string mount, env, target; int status; std::string err; } cases[] = {
        {"noexec", "", "", 0, moved + "/var/tmp/kvx-eactl."},
        {"ro", "", "", 0, moved + "/var/tmp/kvx-eactl."},
        {"noexec", "TMPDIR=" + var_tmpdir, "", 0, moved + var_tmpdir + "/kvx-eactl."},
        {"noexec", "", "/tmp/given", 1, "kvx-eactl: localhost: stderr: kvx-eactl: /tmp/given cannot run programs"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mount + " " + c.env + " " + c.target);
        std::vector<std::string> args = {"unshare", "-m", "--propagation", "private", "env"};
        if (!c.env.empty())
            args.push_back(c.env);
        args.insert(args.end(), {"sh", "-c", "mount -t tmpfs -o " + c.mount + " tmpfs /tmp && exec \"$@\"", "sh",
                                 kBin + "/kvx-eactl"});
        if (!c.target.empty())
            args.insert(args.end(), {"--target", c.target});
        args.insert(args.end(), {"ping", "noexec"});
        Outcome r = run_program(args, dir);
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_TRUE(has(r.err, c.err)) << r.err;
        if (c.status == 0) {
            EXPECT_TRUE(has(r.out, "reply: noexec\n")) << r.out;
            EXPECT_EQ(1u + r.err.find('\n'), r.err.size()) << "one line: " << r.err;
        }
    }
    Outcome left = run_program({"sh", "-c", "ls -d /var/tmp/kvx-eactl.* " + var_tmpdir + "/* 2>/dev/null"}, dir);
    EXPECT_EQ("", left.out);
    remove_tree(var_tmpdir);
}

/* On a terminal the progress line takes its width (less the last column)
 * and follows a change of size at once; activity lines are whole. */
TEST_F(EactlDeploy, ProgressLineFitsTheTerminalAndFollowsItsSize)
{
    struct winsize ws = {20, 40, 0, 0};
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, &ws);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::string eactl = kBin + "/kvx-eactl";
        execl(eactl.c_str(), eactl.c_str(), "demo", "--seconds", "4", (char*)nullptr);
        _exit(127);
    }
    std::string text;
    size_t resized_at = std::string::npos;
    char buf[4096];
    ssize_t n;
    for (struct pollfd p = {master, POLLIN, 0}; poll(&p, 1, 30000) > 0 && (n = read(master, buf, sizeof(buf))) > 0;) {
        text.append(buf, (size_t)n);   /* read ends with EIO once the client has ended */
        if (resized_at == std::string::npos && has(text, "MiB/s")) {
            resized_at = text.size();
            ws.ws_col = 60;
            ioctl(master, TIOCSWINSZ, &ws);
        }
    }
    close(master);
    int st = eactl_reap(pid);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << text;
    ASSERT_NE(std::string::npos, resized_at) << text;
    size_t widest[2] = {0, 0};   /* before and after the change */
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = std::min(text.find_first_of("\r\n", at), text.size());
        std::string seg = text.substr(at, end - at);
        if (has(seg, "MiB/s") && !has(seg, "read 7.0 GiB"))
            widest[end > resized_at] = std::max(widest[end > resized_at], seg.size());
    }
    EXPECT_EQ(39u, widest[0]) << text;
    EXPECT_EQ(59u, widest[1]) << text;
    EXPECT_TRUE(has(text, "  info     Backing up /dev/sdb1 (xfs, 2.5 GiB)")) << text;
}

/* Without --agent each node gets the agent it can run: kvx_ea here (kvx_ea
 * first), kvx_ea-i386 on an i686 node (when scripts/portable.sh built it)
 * and over ssh the static agent, which the cache test shows. */
TEST_F(EactlDeploy, DeploysTheAgentOfTheNodesArchitecture)
{
    const struct { const char* arch; const char* agent; } cases[] = {{"x86_64", "kvx_ea"}, {"i686", "kvx_ea-i386"}};
    for (const auto& c : cases) {
        if (!built(c.agent))
            continue;
        std::string target = dir + "/" + c.arch;
        Outcome r = run_program({"setarch", c.arch, kBin + "/kvx-eactl", "--target", target, "ping", "arch"}, dir);
        EXPECT_TRUE(has(r.out, "reply: arch")) << r.out << r.err;
        EXPECT_EQ(slurp(kBin + "/" + c.agent), slurp(target + "/boot/kvx_ea")) << c.arch;
    }
}

/* The package, unpacked with dpkg-deb -x (nothing installed): its client
 * finds its agent in ../lib/kvx-ea and its man page renders cleanly. */
TEST_F(EactlDeploy, PackageRunsFromAnUnpackedRoot)
{
    if (!built("kvx_ea-static"))
        GTEST_SKIP() << "the package needs the static agent, which sanitizer builds lack";
    Outcome r = run_program({"bash", std::string(KVX_SOURCE_DIR) + "/scripts/package.sh", "--bin", kBin,
                             "--out", dir}, dir);
    std::string deb = dir + "/kvx-ea_" KVX_VERSION_TEXT "_amd64.deb", root = dir + "/root";
    ASSERT_EQ(0, r.status) << r.err;
    ASSERT_EQ(deb + "\n", r.out);
    ASSERT_EQ(0, run_program({"dpkg-deb", "-x", deb, root}, dir).status);
    for (const char* file : {"/usr/bin/kvx-eactl", "/usr/lib/kvx-ea/kvx_ea-static",
                             "/usr/lib/kvx-ea/kvxbackupvol-sim", "/usr/share/man/man1/kvx-eactl.1.gz",
                             "/usr/share/doc/kvx-ea/README.md"})
        EXPECT_EQ(0, access((root + file).c_str(), R_OK)) << file;
    /* and every agent of another CPU that scripts/portable.sh built */
    for (const char* agent : {"kvx_ea-i386", "kvx_ea-aarch64", "kvx_ea-ppc64le", "kvx_ea-s390x"})
        EXPECT_EQ(built(agent), access((root + "/usr/lib/kvx-ea/" + agent).c_str(), R_OK) == 0) << agent;

    EXPECT_EQ("kvx-eactl " KVX_VERSION_TEXT "\n", run_program({root + "/usr/bin/kvx-eactl", "--version"}, dir).out);
    r = run_program({root + "/usr/bin/kvx-eactl", "-v", "ping", "packaged"}, dir);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "reply: packaged\n")) << r.out;
    EXPECT_TRUE(has(r.err, root + "/usr/bin/../lib/kvx-ea/kvx_ea-static (x86_64) deployed in ")) << r.err;

    r = run_program({"man", "--warnings", "-E", "UTF-8", "-l", root + "/usr/share/man/man1/kvx-eactl.1.gz"}, dir);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.err);
    expect_shows(r.out, {"KVX-EACTL(1)", "--hosts-file FILE"});
}

} // namespace
