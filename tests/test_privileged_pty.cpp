/* The pseudo-terminal runner driven by scripts that play prompting programs, and terminal text cleaning. */
#include <gtest/gtest.h>

#include "privileged_testkit.h"

static ::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new ptk::Env);

/* Echo off, as su and sudo set it; each script exits with what it checked. */
#define PROMPT "stty -echo; printf 'Password: '; IFS= read -r -t 5 l || exit 90; printf '\\n'; "
#define FOUR_PROMPTS "trap '' HUP; for i in 1 2 3 4; do " PROMPT "sleep 0.5; done; IFS= read -r l; printf '%s\\n' "
/* Leaves the terminal at once, and outlives its hang-up. */
#define QUIET "trap '' HUP; exec </dev/null >/dev/null 2>&1; "

static const std::string kLongPwd(130, 'L');   /* with its newline, over the 128-byte buffer */

static const ptk::PtyCase kRuns[] = {
    { "AnyCasePromptAnswered", { "bash", "-c", "stty -echo; printf '[sudo] PASSWORD for bob: '; "
      "IFS= read -r -t 5 l; printf '\\n'; [ \"$l\" = pw-1 ]" }, "pw-1", 1, -1, 0, 1 },
    /* sudo's lecture comes with echo off already, in pieces: only the prompt after it is answered */
    { "LectureInPiecesThenPromptAnsweredOnce", { "bash", "-c", "stty -echo; printf 'We trust you have received "
      "the usual lecture.\\n'; sleep 0.3; printf 'Think before you type.\\n\\n'; sleep 0.3; printf '[sudo] password "
      "for bob: '; IFS= read -r -t 5 l; printf '\\n'; IFS= read -r -t 1 x && exit 91; [ \"$l\" = pw-l ]" }, "pw-l", 1,
      -1, 0, 1 },
    { "NoPasswordAnswersBareNewline", { "bash", "-c", PROMPT "[ -z \"$l\" ]" }, "", 1, -1, 0, 0 },
    { "PromptAfterTryAgainInOneChunkAnswered", { "bash", "-c", "stty -echo; printf 'Sorry, try again. "
      "[sudo] password for bob: '; IFS= read -r -t 5 l; printf '\\n'; [ \"$l\" = pw-2 ]" }, "pw-2", 1, -1, 0, 1 },
    /* sudo's pwfeedback: cbreak mode, stars echoed apart from the line end; each read after that is a try */
    { "CbreakPromptsInAnyLanguageAnsweredOncePerRead", { "bash", "-c", "for i in 1 2; do stty -echo -icanon; "
      "printf 'Passwort für bob: '; IFS= read -r -t 5 l || exit 90; printf '****'; sleep 0.3; printf '**'; "
      "stty echo icanon; printf '\\nDas hat nicht funktioniert.\\n'; done; [ \"$l\" = pw-c ]" }, "pw-c", 1, -1, 0, 2 },
    /* raw mode (signal keys off too) is a command's terminal relayed by sudo, not a prompt */
    { "RawModePromptIsOutput", { "bash", "-c", "stty raw -echo; printf 'Password: '; IFS= read -r -t 2 l; "
      "printf 'got[%s]' \"$l\"" }, "pw-r", 1, -1, 0, 0, false, "got[]", NULL, 0, 1.5 },
    { "PromptWithEchoOnIsOutput", { "bash", "-c", "printf 'Password: '; IFS= read -r -t 2 l; printf 'got[%s]' \"$l\"" },
      "pw-9", 1, -1, 0, 0, false, "got[]", NULL, 0, 1.5 },
    { "PasswordTooLongRunsNothing", { "bash", "-c", PROMPT "exit 7" }, kLongPwd.c_str(), 1, -1, -6, 0, false, "",
      "ExecuteCmdInteractively: password is too long (130 bytes), nothing run.\n", 1 },
    { "DaemonLeftOnTerminalDoesNotHoldReturn", { "sh", "-c", "trap '' HUP; echo out; sleep 8 &" }, NULL, 1,
      -1, 0, 0, false, "out" },
    { "PromptAfterTryAgainAnswered", { "bash", "-c", PROMPT "sleep 0.5; printf 'Sorry, try again.\\n'; "
      "sleep 0.5; " PROMPT "[ \"$l\" = pw-3 ]" }, "pw-3", 1, -1, 0, 2 },
    { "StopsAnsweringAfterFourthAnswer", { "bash", "-c", "stty -echo; n=0; while [ $n -lt 6 ]; do "
      "printf 'Password: '; IFS= read -r -t 2 l || break; n=$((n+1)); printf '\\n'; sleep 0.5; "
      "done; exit $n" }, "secret-4", 1, -1, 4, 4, false, NULL, NULL, 0, 3.5 },
    { "PasswordChangeAfterTimeoutIsOne", { "bash", "-c", FOUR_PROMPTS "'Changing password for bob.'; "
      "sleep 3" }, "pw-5", 1, 2, 1, 4, true, "1", NULL, 0, 1.5 },
    { "PasswordChangeMatchIsCaseSensitive", { "bash", "-c", FOUR_PROMPTS "'changing password for bob.'; "
      "sleep 3" }, "pw-6", 1, 2, -8, 4, true, "", NULL, 0, 1.5 },
    { "EchoedPasswordKeptOutOfLog", { "bash", "-c", "stty -echo; printf 'Password: '; IFS= read -r l; "
      "echo \"got $l\"; exit 3" }, "Zq-distinctive-Pw-8841", 1, -1, 3, 1 },
    { "TextWithoutPasswordNotAnsweredWarningDropped", { "sh", "-c", "printf 'Warning: no tty ticket\\n42\\n'" },
      "pw-7", 1, -1, 0, 0, false, "42" },
    { "OutputBoundedByItsSize", { "sh", "-c", "printf abcdefghijklmnopqrstuvwxyz0123456789" }, NULL, 1, -1, 0, 0,
      false, "abcdefghijklmnopqrstuvwxyz01234" },
    { "NullVectorRejected", {}, NULL, 1, -1, -1 },
    { "ExitCodeWithinTimeout", { "sh", "-c", "exit 5" }, NULL, 1, 3, 5 },
    { "ReapInLastRoundCountsAsTimeout", { "true" }, NULL, 1, 1, -8 },
    { "TimeoutReturnsWithChildRunning", { "sh", "-c", QUIET "sleep 5" }, NULL, 1, 2, -8, 0, true },
    { "SignalledChildIsMinusTen", { "sh", "-c", "kill -9 $$" }, NULL, 1, -1, -10 },
    { "MissingProgramIs127", { "/nonexistent/kvx-program", "the-arg" }, NULL, 1, -1, 127, 0, false, NULL,
      "ExecuteCmdInteractively: failed to execute cmd: the-arg(No such file or directory).\n", 1 },
    { "UnexecutableProgramIs126", { "/proc/self/status" }, NULL, 1, -1, 126 },
    { "NonBlockingReturnsWithChildRunning", { "sh", "-c", QUIET "sleep 3" }, "pw-8", 0, -1, 0, 0, true },
    { "MasterAboveFdSetSizeIsASelectError", { "true" }, NULL, 1, -1, -4, 0, false, "",
      "ExecuteCmdInteractively: failed to excecute select(9).\n", 1, 0, true },
};

class PtyRun : public ::testing::TestWithParam<ptk::PtyCase> {};
TEST_P(PtyRun, ResultAndStateLeftAsFound) { ptk::CheckPtyCase(GetParam()); }
INSTANTIATE_TEST_SUITE_P(Pty, PtyRun, ::testing::ValuesIn(kRuns), ptk::ByName());

struct CleanCase {
    const char *name, *in;   /* in: null for a null buffer */
    int size, rc;
    const char* out;
};

static const CleanCase kCleans[] = {
    { "LeadingWarningLineDropped", "Warning: locale not set\r\n0\r\n", 64, 0, "0" },
    { "OnlyOneLeadingLineDroppedAnyCase", "ERROR: a\nWarning: b\n7", 64, 0, "Warning: b\n7" },
    { "BlanksBeforeWarningIgnored", "\r\n  Warning: x\r\n5  ", 64, 0, "5" },
    { "WarningWithoutNewlineKept", "  Warning: just this  ", 64, 0, "Warning: just this" },
    { "WarningLaterKept", "1000\r\nWarning: late\r\n", 64, 0, "1000\r\nWarning: late" },
    { "UnterminatedCutToItsSize", "aaaaaaaaaaaa", 8, 0, "aaaaaaa" },
    { "ZeroSizeRejected", "x", 0, -1, "x" },
    { "NullRejected", NULL, 10, -1, "" },
};

static void PrintTo(const CleanCase& c, std::ostream* os) { *os << c.name; }
class CleanOutput : public ::testing::TestWithParam<CleanCase> {};

TEST_P(CleanOutput, ResultWithinTheBuffer)
{
    const CleanCase& c = GetParam();
    char buf[80], orig[80];
    memset(buf, '#', sizeof(buf));
    snprintf(buf, sizeof(buf), "%s", c.in != NULL ? c.in : "");
    memcpy(orig, buf, sizeof(buf));
    EXPECT_EQ(c.rc, ProcessSudoOutput(c.in != NULL ? buf : NULL, c.size));
    EXPECT_STREQ(c.out, buf);
    EXPECT_EQ(0, memcmp(buf + c.size, orig + c.size, sizeof(buf) - c.size));
}

INSTANTIATE_TEST_SUITE_P(SudoOutput, CleanOutput, ::testing::ValuesIn(kCleans), ptk::ByName());
