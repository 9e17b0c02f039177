/*
 * The pseudo-terminal runner driven with scripts that play a prompting
 * program, and the cleaning of terminal text.  No accounts needed.
 */
#include <signal.h>
#include <string.h>

#include <gtest/gtest.h>

#include "privileged_testkit.h"
#include "zelutil.h"

using ptk::PrivilegedEnv;

static ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new PrivilegedEnv);

/* ---- prompt rules ---- */

struct PromptCase {
    const char* name;
    const char* pwd;
    const char* script;   /* bash; exits 0 when it was answered as expected */
};
static void PrintTo(const PromptCase& c, std::ostream* os) { *os << c.name; }

/* Echo stays off like su and sudo do; 'ans' checks the line read. */
static const PromptCase kPromptCases[] = {
    { "PasswordPromptAnsweredWithPassword", "pw-one",
      "stty -echo; printf 'Password: '; IFS= read -r -t 5 l || exit 90; printf '\\n';"
      "[ \"$l\" = pw-one ]" },
    { "PromptMatchedInAnyCase", "pw-two",
      "stty -echo; printf '[sudo] PASSWORD for bob: '; IFS= read -r -t 5 l || exit 90; printf '\\n';"
      "[ \"$l\" = pw-two ]" },
    { "NoPasswordAnswersBareNewline", "",
      "stty -echo; printf 'Password: '; IFS= read -r -t 5 l || exit 90; printf '\\n';"
      "[ -z \"$l\" ]" },
    { "TryAgainWithPromptInOneChunkNotAnswered", "pw",
      "stty -echo; printf 'Sorry, try again. [sudo] password for bob: ';"
      "IFS= read -r -t 2 l && exit 91; exit 0" },
    { "TextWithoutPasswordNotAnswered", "pw",
      "stty -echo; printf 'Enter passphrase: '; IFS= read -r -t 2 l && exit 91; exit 0" },
    { "PromptAfterTryAgainAnswered", "pw-three",
      "stty -echo; printf 'Password: '; IFS= read -r -t 5 l || exit 90; printf '\\n'; sleep 0.5;"
      "printf 'Sorry, try again.\\n'; sleep 0.5;"
      "printf 'Password: '; IFS= read -r -t 5 m || exit 92; printf '\\n'; [ \"$m\" = pw-three ]" },
};

class PromptRule : public ::testing::TestWithParam<PromptCase> {};

TEST_P(PromptRule, AnswersOnlyPasswordPrompts)
{
    ptk::Argv argv = ptk::Bash(GetParam().script);
    EXPECT_EQ(0, ExecuteCmdInteractively(argv.get(), GetParam().pwd, 1, -1, NULL, 0));
}

INSTANTIATE_TEST_SUITE_P(Pty, PromptRule, ::testing::ValuesIn(kPromptCases),
                         [](const ::testing::TestParamInfo<PromptCase>& i) { return i.param.name; });

TEST(PtyRunner, StopsAnsweringAfterFourthAnswer)
{
    /* prompts up to six times; exits with the number of answers it got */
    ptk::Argv argv = ptk::Bash(
        "stty -echo; n=0; while [ $n -lt 6 ]; do printf 'Password: ';"
        "IFS= read -r -t 2 l || break; n=$((n+1)); printf '\\n'; sleep 0.5; done; exit $n");
    size_t mark = PrivilegedEnv::Mark();
    EXPECT_EQ(4, ExecuteCmdInteractively(argv.get(), "secret-4", 1, -1, NULL, 0));
    EXPECT_EQ(4, ptk::CountOf(PrivilegedEnv::Since(mark), "write password to tty: 8\n"));
}

/* ---- results ---- */

TEST(PtyRunner, EmptyVectorIsRejected)
{
    char empty[] = "";
    char* noProgram[] = { NULL };
    char* emptyProgram[] = { empty, NULL };
    EXPECT_EQ(-1, ExecuteCmdInteractively(NULL, "pw", 1, -1, NULL, 0));
    EXPECT_EQ(-1, ExecuteCmdInteractively(noProgram, "pw", 1, -1, NULL, 0));
    EXPECT_EQ(-1, ExecuteCmdInteractively(emptyProgram, "pw", 1, -1, NULL, 0));
}

struct ExitCase {
    const char* name;
    std::vector<std::string> argv;
    int timeout;
    int expected;
};
static void PrintTo(const ExitCase& c, std::ostream* os) { *os << c.name; }

static const ExitCase kExitCases[] = {
    { "ExitCodeReturned", { "sh", "-c", "echo out; exit 7" }, -1, 7 },
    { "ExitCodeReturnedWithinTimeout", { "sh", "-c", "exit 5" }, 3, 5 },
    /* the only permitted round reaps it: still counted as timed out */
    { "ReapInLastRoundCountsAsTimeout", { "true" }, 1, -8 },
    { "SignalledChildIsMinusTen", { "sh", "-c", "kill -9 $$" }, -1, -10 },
    { "MissingProgramExits127", { "/nonexistent/kvx-program", "arg1" }, -1, 127 },
    { "UnexecutableProgramFailsInChild", { "/proc/self/status" }, -1, 126 },
};

class PtyExit : public ::testing::TestWithParam<ExitCase> {};

TEST_P(PtyExit, ResultCode)
{
    ptk::Argv argv(GetParam().argv);
    EXPECT_EQ(GetParam().expected,
              ExecuteCmdInteractively(argv.get(), NULL, 1, GetParam().timeout, NULL, 0));
}

INSTANTIATE_TEST_SUITE_P(Pty, PtyExit, ::testing::ValuesIn(kExitCases),
                         [](const ::testing::TestParamInfo<ExitCase>& i) { return i.param.name; });

TEST(PtyRunner, FailedExecEndsTheChildOnly)
{
    ptk::Argv argv({ "/nonexistent/kvx-program", "the-arg" });
    size_t mark = PrivilegedEnv::Mark();
    pid_t self = getpid();
    EXPECT_EQ(127, ExecuteCmdInteractively(argv.get(), NULL, 1, -1, NULL, 0));
    ASSERT_EQ(self, getpid());
    std::string log = PrivilegedEnv::Since(mark);
    EXPECT_EQ(1, ptk::CountOf(log, "failed to execute cmd: the-arg(No such file or directory).\n"));
    /* one parent waited; a child running on would have logged a second wait */
    EXPECT_EQ(1, ptk::CountOf(log, "waiting for process"));
    EXPECT_EQ(1, ptk::CountOf(log, "exited (127).\n"));
}

TEST(PtyRunner, TimeoutEndsWaitAfterAboutTheGivenSeconds)
{
    /* the terminal goes quiet at once (no descriptors on it), the child runs on */
    ptk::Argv argv({ "sh", "-c", "exec </dev/null >/dev/null 2>&1; sleep 30" });
    double t0 = ptk::Seconds();
    EXPECT_EQ(-8, ExecuteCmdInteractively(argv.get(), NULL, 1, 3, NULL, 0));
    double took = ptk::Seconds() - t0;
    EXPECT_GE(took, 2.5);
    EXPECT_LT(took, 8.0);
    ptk::ReapEnded();
}

struct ChangeCase {
    const char* name;
    const char* answer;   /* printed once the runner nudges the terminal */
    int expected;
    const char* output;
};
static void PrintTo(const ChangeCase& c, std::ostream* os) { *os << c.name; }

static const ChangeCase kChangeCases[] = {
    { "ChangingPasswordGivesOne", "Changing password for bob.", 1, "1" },
    { "MatchIsCaseSensitive", "changing password for bob.", -8, "" },
    { "OtherTextIsTimeout", "still busy", -8, "" },
};

class PtyTimeout : public ::testing::TestWithParam<ChangeCase> {};

TEST_P(PtyTimeout, NudgeAnswerDecides)
{
    /* four answers end the prompt phase; the fifth line is the runner's nudge */
    std::string script =
        "stty -echo; for i in 1 2 3 4; do printf 'Password: '; IFS= read -r l; printf '\\n';"
        "sleep 0.5; done; IFS= read -r l; printf '%s\\n' '" + std::string(GetParam().answer) +
        "'; sleep 20";
    ptk::Argv argv = ptk::Bash(script);
    char out[64] = "";
    EXPECT_EQ(GetParam().expected, ExecuteCmdInteractively(argv.get(), "pw", 1, 2, out, sizeof(out)));
    EXPECT_STREQ(GetParam().output, out);
    ptk::ReapEnded();
}

INSTANTIATE_TEST_SUITE_P(Pty, PtyTimeout, ::testing::ValuesIn(kChangeCases),
                         [](const ::testing::TestParamInfo<ChangeCase>& i) { return i.param.name; });

TEST(PtyRunner, NonBlockingReturnsWithChildRunning)
{
    std::string pidFile = PrivilegedEnv::Dir() / "nonblocking.pid";
    unlink(pidFile.c_str());
    /* leaves the terminal at once, so the prompt phase ends without a prompt */
    ptk::Argv argv({ "sh", "-c", "trap '' HUP; exec </dev/null >/dev/null 2>&1; echo $$ > " +
                     pidFile + "; exec sleep 20" });
    double t0 = ptk::Seconds();
    EXPECT_EQ(0, ExecuteCmdInteractively(argv.get(), "pw", 0, -1, NULL, 0));
    EXPECT_LT(ptk::Seconds() - t0, 5.0);
    pid_t child = ptk::WaitPidFile(pidFile);
    EXPECT_TRUE(ptk::ProcessAlive(child));
    ptk::KillAndReap(child);
}

/* ---- output capture ---- */

TEST(PtyRunner, OutputIsCleanedTerminalText)
{
    ptk::Argv argv({ "sh", "-c", "printf 'Warning: no tty ticket\\n42\\n'" });
    char out[128] = "";
    EXPECT_EQ(0, ExecuteCmdInteractively(argv.get(), NULL, 1, -1, out, sizeof(out)));
    EXPECT_STREQ("42", out);
}

TEST(PtyRunner, OutputIsBoundedByItsSize)
{
    ptk::Argv argv({ "sh", "-c", "printf 'abcdefghijklmnopqrstuvwxyz'" });
    char out[9];
    memset(out, 'X', sizeof(out));
    EXPECT_EQ(0, ExecuteCmdInteractively(argv.get(), NULL, 1, -1, out, 8));
    EXPECT_EQ('X', out[8]);
    EXPECT_EQ(std::string("abcdefg"), std::string(out));
}

/* ---- process-wide state left as found ---- */

static void MarkerHandler(int) {}

struct PathCase {
    const char* name;
    std::vector<std::string> argv;
    int block;
    int timeout;
};
static void PrintTo(const PathCase& c, std::ostream* os) { *os << c.name; }

static const PathCase kPathCases[] = {
    { "Success", { "sh", "-c", "echo hi" }, 1, -1 },
    { "Failure", { "sh", "-c", "exit 3" }, 1, -1 },
    { "Timeout", { "sh", "-c", "exec </dev/null >/dev/null 2>&1; sleep 10" }, 1, 1 },
    { "Signalled", { "sh", "-c", "kill -9 $$" }, 1, -1 },
    { "NonBlocking", { "sh", "-c", "exec </dev/null >/dev/null 2>&1; sleep 1" }, 0, -1 },
    { "MissingProgram", { "/nonexistent/kvx-program" }, 1, -1 },
};

class PtyPath : public ::testing::TestWithParam<PathCase> {};

TEST_P(PtyPath, ClosesTerminalAndRestoresSigchld)
{
    struct sigaction mine, before, after;
    memset(&mine, 0, sizeof(mine));
    mine.sa_handler = MarkerHandler;
    sigemptyset(&mine.sa_mask);
    mine.sa_flags = SA_NOCLDSTOP;      /* no SA_RESTART: it must come back as it was */
    ASSERT_EQ(0, sigaction(SIGCHLD, &mine, &before));

    ptk::Argv argv(GetParam().argv);
    int fds = ptk::OpenFdCount();
    ExecuteCmdInteractively(argv.get(), "pw", GetParam().block, GetParam().timeout, NULL, 0);
    EXPECT_EQ(fds, ptk::OpenFdCount());

    ASSERT_EQ(0, sigaction(SIGCHLD, &before, &after));
    EXPECT_EQ((void*)MarkerHandler, (void*)after.sa_handler);
    EXPECT_EQ(SA_NOCLDSTOP, after.sa_flags & (SA_NOCLDSTOP | SA_RESTART));
    sleep(GetParam().block != 1 ? 1 : 0);
    ptk::ReapEnded();
}

INSTANTIATE_TEST_SUITE_P(Pty, PtyPath, ::testing::ValuesIn(kPathCases),
                         [](const ::testing::TestParamInfo<PathCase>& i) { return i.param.name; });

/* ---- secrets ---- */

TEST(PtyRunner, EchoedPasswordNeverReachesTheLog)
{
    const char* pwd = "Zq-distinctive-Pw-8841";
    /* echo left on: the answer comes straight back through the terminal */
    ptk::Argv argv = ptk::Bash("printf 'Password: '; IFS= read -r l; echo \"got $l\"; exit 3");
    size_t mark = PrivilegedEnv::Mark();
    EXPECT_EQ(3, ExecuteCmdInteractively(argv.get(), pwd, 1, -1, NULL, 0));
    std::string log = PrivilegedEnv::Since(mark);
    EXPECT_EQ(std::string::npos, log.find(pwd));
    EXPECT_NE(std::string::npos, log.find("write password to tty: 22\n"));
    EXPECT_NE(std::string::npos, log.find("**********************"));
}

/* ---- cleaning terminal text ---- */

struct CleanCase {
    const char* name;
    const char* in;
    const char* out;
};
static void PrintTo(const CleanCase& c, std::ostream* os) { *os << c.name; }

static const CleanCase kCleanCases[] = {
    { "LeadingWarningLineDropped", "Warning: locale not set\r\n0\r\n", "0" },
    { "LeadingErrorLineDroppedAnyCase", "ERROR: something\r\nresult text\r\n", "result text" },
    { "OnlyOneLineDropped", "warning: a\nWarning: b\n7", "Warning: b\n7" },
    { "BlanksBeforeWarningIgnored", "\r\n  Warning: x\r\n5  ", "5" },
    { "WarningWithoutNewlineKept", "  Warning: just this  ", "Warning: just this" },
    { "WarningLaterKept", "1000\r\nWarning: late\r\n", "1000\r\nWarning: late" },
    { "BlanksOnlyBecomeEmpty", " \r\n\t \r\n", "" },
    { "PlainTextTrimmed", "\t hello world \r\n", "hello world" },
};

class CleanOutput : public ::testing::TestWithParam<CleanCase> {};

TEST_P(CleanOutput, Result)
{
    char buf[128];
    snprintf(buf, sizeof(buf), "%s", GetParam().in);
    EXPECT_EQ(0, ProcessSudoOutput(buf, sizeof(buf)));
    EXPECT_STREQ(GetParam().out, buf);
}

INSTANTIATE_TEST_SUITE_P(SudoOutput, CleanOutput, ::testing::ValuesIn(kCleanCases),
                         [](const ::testing::TestParamInfo<CleanCase>& i) { return i.param.name; });

TEST(SudoOutput, RejectsNullAndEmptyBuffers)
{
    char buf[4] = "x";
    EXPECT_EQ(-1, ProcessSudoOutput(NULL, 10));
    EXPECT_EQ(-1, ProcessSudoOutput(buf, 0));
    EXPECT_STREQ("x", buf);
}

TEST(SudoOutput, UnterminatedBufferStaysWithinItsSize)
{
    char buf[12];
    memset(buf, 'a', sizeof(buf));
    EXPECT_EQ(0, ProcessSudoOutput(buf, 8));
    EXPECT_STREQ("aaaaaaa", buf);
    EXPECT_EQ('a', buf[8]);
}
