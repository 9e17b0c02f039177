/*
 * test_runtime_envdump.cpp - preload shim for the start-up tests.
 *
 * Loaded with LD_PRELOAD into kvx_ea: takes the dump path from
 * KVXT_ENVDUMP and removes both variables at load time (so the agent's
 * children inherit neither), then, when the process exits, writes the
 * start-up variables as the agent left them, one "NAME=value" (or
 * "NAME unset") per line.
 */
#include <stdio.h>
#include <stdlib.h>

static char g_dump_path[4096];

__attribute__((constructor)) static void envdump_load(void)
{
    const char* path = getenv("KVXT_ENVDUMP");
    if (path != NULL)
        snprintf(g_dump_path, sizeof(g_dump_path), "%s", path);
    unsetenv("KVXT_ENVDUMP");
    unsetenv("LD_PRELOAD");
}

__attribute__((destructor)) static void envdump_exit(void)
{
    static const char* names[] = {"TARGET_BOOTSTRAP_DIR", "TARGET_WORK_DIR", "ZEL_ROOT_PATH"};
    if (g_dump_path[0] == '\0')
        return;
    FILE* fp = fopen(g_dump_path, "w");
    if (fp == NULL)
        return;
    for (const char* name : names) {
        const char* value = getenv(name);
        if (value != NULL)
            fprintf(fp, "%s=%s\n", name, value);
        else
            fprintf(fp, "%s unset\n", name);
    }
    fclose(fp);
}
