/*
 * zelsvciobackend.cpp - file I/O redirection layer.
 *
 * Call sites guard each wrapped call with zelsvc_enabled() and take the
 * local call otherwise.  This agent never enables the layer and never loads
 * the remote I/O client library (it is not part of this system: no dlopen,
 * no client object), so zelsvc_enabled() is false, no client is ever
 * connected, and every wrapper traces the broken connection and returns -1
 * (null for pointer results) without forwarding anything.
 */
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "zellog.h"
#include "zelsvciobackend.h"

#define RPC_SOURCE "zelsvciobackend"

static bool __zelsvc_enabled = false;   /* set only by an enabling call */

/* False in this agent: every guarded call site takes the local call. */
bool zelsvc_enabled(void)
{
    return __zelsvc_enabled;
}

/* True when a remote client exists and is connected: never here. */
bool zelsvc_connected(void)
{
    bool connected = false;

    ZELLogFunction(6, RPC_SOURCE, __LINE__, "[RPC] Connected? %s\n", connected ? "yes" : "no");
    return connected;
}

/*
 * Traces one wrapped call with the caller's line, source and function.
 * True when it may be forwarded; false (logged at level 0) without a
 * connected client.
 */
bool _rpctrace(int line, const char* file, const char* function, const char* call)
{
    if (zelsvc_connected()) {
        ZELLogFunction(5, RPC_SOURCE, __LINE__, "[RPC %4d:%s %s] INFO: invoking rpc %s.\n",
                       line, file, function, call);
        return true;
    }
    ZELLogFunction(0, RPC_SOURCE, __LINE__,
                   "[RPC %4d:%s %s] RPC connection broken or not ready while invoking %s!\n",
                   line, file, function, call);
    return false;
}

/*
 * The wrappers: trace, then -1 (or null).  With no client there is nothing
 * to forward to, whatever _rpctrace answers.
 */
#define RPC_FAIL(call, failure)                          \
    do {                                                 \
        _rpctrace(line, file, function, call);           \
        return failure;                                  \
    } while (0)

int _zswrap__errno(int line, const char* file, const char* function)
{
    RPC_FAIL("_errno", -1);
}

int _zswrap_open(int line, const char* file, const char* function, const char* path, int flags,
                 mode_t mode)
{
    RPC_FAIL("open", -1);
}

int _zswrap_close(int line, const char* file, const char* function, int fd)
{
    RPC_FAIL("close", -1);
}

ssize_t _zswrap_read(int line, const char* file, const char* function, int fd, void* buf,
                     size_t count)
{
    RPC_FAIL("read", -1);
}

ssize_t _zswrap_write(int line, const char* file, const char* function, int fd, const void* buf,
                      size_t count)
{
    RPC_FAIL("write", -1);
}

int _zswrap_stat(int line, const char* file, const char* function, const char* path,
                 struct stat* statbuf)
{
    RPC_FAIL("stat", -1);
}

int _zswrap_fstat(int line, const char* file, const char* function, int fd, struct stat* statbuf)
{
    RPC_FAIL("fstat", -1);
}

int _zswrap_access(int line, const char* file, const char* function, const char* path, int mode)
{
    RPC_FAIL("access", -1);
}

int _zswrap_unlink(int line, const char* file, const char* function, const char* path)
{
    RPC_FAIL("unlink", -1);
}

FILE* _zswrap_fopen(int line, const char* file, const char* function, const char* path,
                    const char* mode)
{
    RPC_FAIL("fopen", (FILE*)NULL);
}

char* _zswrap_getenv(int line, const char* file, const char* function, const char* name)
{
    RPC_FAIL("getenv", (char*)NULL);
}

int _zswrap_ExecuteCmd(int line, const char* file, const char* function, const char* cmd)
{
    RPC_FAIL("ExecuteCmd", -1);
}
