/*
 * ea_svc.cpp - the ping procedure and the account check (source name
 * "ea_svc").
 */
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "ea_svc.h"
#include "zelfunc.h"
#include "zellog.h"

#define SRC "ea_svc"

/*
 * Procedure 1: echoes the request text and stamps the agent's clock.
 * res->msg is the 1024-byte buffer of the result codec; the echo is cut to
 * 1023 bytes.  Returns 0, or -1 when there is no result buffer.
 */
int ping_svc(PINGargs* args, PINGres* res)
{
    if (res == NULL || res->msg == NULL)
        return -1;
    /* A request without a string "str" decodes to no record: echo "". */
    const char* text = (args != NULL && args->msg != NULL) ? args->msg : "";
    exstrncpy(res->msg, text, EA_PING_MSG_SIZE);
    res->msg_len = (int)strlen(res->msg) + 1;
    res->stamp = (int32_t)time(NULL);
    return 0;
}

/*
 * How commands for the account user/pwd must run: 0 the agent is root,
 * 1 the account reaches root (use SuperExecuteCmd), 7002 the account is not
 * root, 7003/7013 credentials rejected (su / sudo way), 7012 no sudo, -1
 * any other failure, a negative uid when geteuid fails.  Runs su or sudo
 * on every call; nothing is cached.
 */
int check_root_account(const char* user, const char* pwd)
{
    int uid = (int)geteuid();
    if (uid == 0)
        return 0;
    if (uid < 0) {
        ZELLogFunction(0, SRC, 135, "%s: failed to geteuid %d.\n", __func__, uid);
        return uid;
    }

    int rootUid = -1;
    int rc = CheckRootUser(user, pwd, &rootUid);
    if (rc == 0) {
        if (rootUid == 0)
            return 1;
        return rootUid > 0 ? 7002 : -1;
    }

    ZELLogFunction(0, SRC, 122, "%s: failed to CheckRootUser %d.\n", __func__, rc);
    int named = user != NULL && user[0] != '\0';
    if (rc == 125 || rc == 1)
        return named ? 7003 : 7013;
    if (rc == 127)
        return named ? -1 : 7012;
    return -1;
}
