/* privileged_testkit.h - the log and the table runners shared by the pty, su and sudo test programs. */
#ifndef PRIVILEGED_TESTKIT_H
#define PRIVILEGED_TESTKIT_H

#include <signal.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>

#include <chrono>
#include <vector>

#include "foundation_testkit.h"
#include "test_accounts.h"

namespace ptk {

using fkit::TestLog;

/* The test log, opened before any test forks; the work dir is open to dropped children. */
struct Env : TestLog {
    void SetUp() override
    {
        chmod(work.path, 0755);
        setenv("TARGET_WORK_DIR", work.path, 1);
        TestLog::SetUp();
    }
    static inline fkit::TempDir work;
};

inline double Seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
inline void ReapAll() { while (waitpid(-1, NULL, 0) > 0) {} }   /* children left behind end soon */

struct ByName {   /* names parameterized cases after their table row */
    template <class T> std::string operator()(const ::testing::TestParamInfo<T>& i) const { return i.param.name; }
};

/* ExecuteCmdInteractively(argv, pwd, block, timeout, output, 32) and what it must leave behind. */
struct PtyCase {
    const char* name;
    const char* argv[4];               /* none: a null vector */
    const char* pwd;
    int block, timeout, rc, answers;   /* answers: "write password to tty: <length>" lines */
    bool running;                      /* the child runs on after the return */
    const char *out, *logged;          /* cleaned output (null: not checked); a line logged `count` times */
    int count;
    double seconds;                    /* the return takes at least this, and less than 3.5 s more */
    bool highFd;                       /* the terminal's master lands above what an fd_set holds */
};

inline void PrintTo(const PtyCase& c, std::ostream* os) { *os << c.name; }

inline void CheckPtyCase(const PtyCase& c)
{
    std::string pwd = c.pwd != NULL ? c.pwd : "";
    struct sigaction mine = {}, before, after;
    mine.sa_handler = [](int) {};   /* a marker */
    mine.sa_flags = SA_NOCLDSTOP;   /* no SA_RESTART: it must come back as it was */
    ASSERT_EQ(0, sigaction(SIGCHLD, &mine, &before));
    char out[40] = "";
    memset(out + 1, 'X', sizeof(out) - 1);
    std::vector<int> busy;   /* descriptors taken so that the next one is FD_SETSIZE or above */
    for (int fd = 0; c.highFd && fd >= 0 && fd < FD_SETSIZE;)
        busy.push_back(fd = dup(0));
    long fds = fkit::OpenFdCount();
    size_t mark = TestLog::Size();
    pid_t self = getpid();
    double t0 = Seconds();
    EXPECT_EQ(c.rc, ExecuteCmdInteractively(c.argv[0] != NULL ? (char**)c.argv : NULL, c.pwd, c.block,
                                            c.timeout, out, 32));
    ASSERT_EQ(self, getpid());   /* a child whose exec failed must not run on here */
    double took = Seconds() - t0;
    /* never sooner than its least time, nor waiting for a child left running or a daemon on the terminal */
    EXPECT_TRUE(took >= c.seconds && took < c.seconds + 3.5) << took;
    EXPECT_EQ(fds, fkit::OpenFdCount());
    for (int fd : busy)
        close(fd);
    ASSERT_EQ(0, sigaction(SIGCHLD, &before, &after));
    EXPECT_TRUE(after.sa_handler == mine.sa_handler && (after.sa_flags & (SA_NOCLDSTOP | SA_RESTART)) == SA_NOCLDSTOP);
    /* a run that fails at once may close the terminal before its child has taken it: gone or not */
    if (!c.highFd) {
        EXPECT_EQ(c.running, waitpid(-1, NULL, WNOHANG) == 0);
    }
    EXPECT_EQ('X', out[32]);
    EXPECT_STREQ(c.out != NULL ? c.out : out, out);
    EXPECT_EQ(c.answers, TestLog::Count(mark, "write password to tty: " + std::to_string(pwd.size()) + "\n"));
    EXPECT_EQ(0, pwd.empty() ? 0 : TestLog::Count(mark, pwd));
    EXPECT_EQ(c.count, c.logged != NULL ? TestLog::Count(mark, c.logged) : 0);
    ReapAll();
}

enum class Pwd { Right, Wrong, Empty, Null, TooLong };

inline const char* PasswordOf(Pwd pwd, const kvxtest::TestAccount& a)
{
    static const std::string tooLong(130, 'L');   /* with its newline, over the 128-byte buffer */
    return pwd == Pwd::Right ? a.password.c_str() : pwd == Pwd::Wrong ? "not-the-password" : pwd == Pwd::Empty ? ""
         : pwd == Pwd::TooLong ? tooLong.c_str() : NULL;
}

/* CheckRootUser run as runner: through su to target when they differ, else sudo -v. */
struct RootCase {
    const char* name;
    kvxtest::AccountKind runner, target;
    Pwd pwd;
    int rc, uid;              /* uid -1: the target's; -5: left untouched */
    const char* logged;       /* a line logged once ("%d": the result); null: none */
};

inline void PrintTo(const RootCase& c, std::ostream* os) { *os << c.name; }

inline void CheckRootCase(const RootCase& c)
{
    const kvxtest::TestAccount& target = kvxtest::Account(c.target);
    const char* pwd = PasswordOf(c.pwd, target);
    size_t mark = TestLog::Size();
    kvxtest::ChildResult r = kvxtest::RunAs(kvxtest::Account(c.runner), [&](std::string& text) {
        int uid = -5;
        int rc = CheckRootUser(c.runner != c.target ? target.name.c_str() : "", pwd, &uid);
        text = std::to_string(uid);
        return rc;
    });
    ASSERT_TRUE(r.finished) << r.error;
    EXPECT_EQ(c.rc, r.code);
    EXPECT_EQ(std::to_string(c.uid == -1 ? (int)target.uid : c.uid), r.text);
    EXPECT_EQ(c.pwd != Pwd::Null, TestLog::Count(mark, "execute command (") > 0);
    char logged[256] = "";
    if (c.logged != NULL)
        snprintf(logged, sizeof(logged), c.logged, r.code);
    EXPECT_EQ(c.logged != NULL ? 1 : 0, c.logged != NULL ? TestLog::Count(mark, logged) : 0);
    EXPECT_EQ(0, TestLog::Count(mark, target.password));
}

}  // namespace ptk

#endif /* PRIVILEGED_TESTKIT_H */
