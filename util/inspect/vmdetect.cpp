/*
 * vmdetect.cpp - is this node a virtual machine, how many processor sockets
 * does it have, does it run an Oracle UEK kernel.
 *
 * One small probe per source of evidence (CPU flags, Xen, SMBIOS), each
 * answering early; the /proc readers only load the file and hand its text
 * to a parser that works on bytes.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <set>
#include <string>

#include "vmdetect.h"
#include "zelfunc.h"
#include "zellog.h"

#define CPUINFO_PATH     "/proc/cpuinfo"
#define XEN_DIR          "/proc/xen"
#define XEN_CONTROL_CMD  "grep -q \"control_d\" /proc/xen/capabilities"
#define UEK_CMD          "uname -r | grep -iq uek"
#define FLAGS_LINE_MAX   1024
#define SOCKS_LINE_MAX   4096

/* ---- cpuinfo text ---- */

/*
 * Next line of text from *pos the way fgets with a buffer of max bytes
 * reads it: up to and including '\n', at most max-1 bytes.  Copies it into
 * line (max bytes, terminated) and advances *pos; 0 at the end of the text.
 */
static int next_line(const char* text, size_t len, size_t* pos, char* line, size_t max)
{
    size_t n = 0;

    if (*pos >= len)
        return 0;
    while (*pos + n < len && n < max - 1) {
        line[n] = text[*pos + n];
        n++;
        if (line[n - 1] == '\n')
            break;
    }
    line[n] = '\0';
    *pos += n;
    return 1;
}

/* See vmdetect.h: 1 when a "flags" line names "hypervisor". */
int cpuinfo_has_hypervisor(const char* text, size_t len)
{
    char line[FLAGS_LINE_MAX];
    size_t pos = 0;

    if (text == NULL)
        return 0;
    while (next_line(text, len, &pos, line, sizeof(line))) {
        if (strncmp(line, "flags", 5) == 0 && strstr(line, "hypervisor") != NULL)
            return 1;
    }
    return 0;
}

/* See vmdetect.h: distinct "physical id" lines, else distinct "processor" lines. */
int cpuinfo_count_sockets(const char* text, size_t len)
{
    std::set<std::string> processors, physical_ids;
    char* line;
    size_t pos = 0;

    if (text == NULL)
        return 0;
    line = (char*)malloc(SOCKS_LINE_MAX);
    if (line == NULL)
        return 0;
    while (next_line(text, len, &pos, line, SOCKS_LINE_MAX)) {
        if (strncmp(line, "processor", 9) == 0)
            processors.insert(line);
        else if (strncmp(line, "physical id", 11) == 0)
            physical_ids.insert(line);
    }
    free(line);
    if (!physical_ids.empty())
        return (int)physical_ids.size();
    return (int)processors.size();
}

/*
 * Whole contents of a /proc file into a heap buffer (caller frees).
 * 0; -1 when it cannot be opened; -2 when reading fails (errno kept).
 */
static int load_proc_file(const char* path, char** text, size_t* len)
{
    size_t cap = 16384, n = 0;
    char* buf;
    FILE* fp;

    *text = NULL;
    *len = 0;
    fp = fopen(path, "r");
    if (fp == NULL)
        return -1;
    buf = (char*)malloc(cap);
    while (buf != NULL) {
        n += fread(buf + n, 1, cap - n, fp);
        if (n < cap)
            break;
        char* bigger = (char*)realloc(buf, cap * 2);
        if (bigger == NULL) {
            free(buf);
            buf = NULL;
            break;
        }
        buf = bigger;
        cap *= 2;
    }
    if (buf == NULL || ferror(fp)) {
        int err = buf == NULL ? ENOMEM : errno;
        free(buf);
        fclose(fp);
        errno = err;
        return -2;
    }
    fclose(fp);
    *text = buf;
    *len = n;
    return 0;
}

/* ---- probes ---- */

/*
 * Runs a grep-style probe command quietly and answers its status; a status
 * other than 0 (match) and 1 (no match) is logged at the given level.
 */
static int run_probe_cmd(const char* fn, const char* cmd, int level)
{
    int status = ExecuteCmdSilently(cmd);

    if (status != 0 && status != 1)
        ZELLogFunction(level, "vmdetect", __LINE__, "%s: command (%s) returns %d.\n", fn, cmd, status);
    return status;
}

/*
 * CPU flags: 1 when /proc/cpuinfo shows the "hypervisor" flag, unless the
 * node has /proc/xen and is not a Xen control domain (a Xen guest is left
 * to detect_vm_by_xen).  0 otherwise or when cpuinfo cannot be read.
 */
int detect_vm_by_cpuinfo(void)
{
    char* text;
    size_t len;
    int result;

    if (load_proc_file(CPUINFO_PATH, &text, &len) != 0)
        return 0;
    result = cpuinfo_has_hypervisor(text, len);
    free(text);

    if (result == 1 && access(XEN_DIR, R_OK) == 0 &&
        run_probe_cmd("detect_vm_by_cpuinfo", XEN_CONTROL_CMD, 3) != 0)
        result = 0;
    return result;
}

/* Xen: 1 for a Xen guest (/proc/xen without "control_d"), else 0. */
int detect_vm_by_xen(void)
{
    if (access(XEN_DIR, R_OK) != 0)
        return 0;
    return run_probe_cmd("detect_vm_by_xen", XEN_CONTROL_CMD, 3) == 0 ? 0 : 1;
}

/* SMBIOS: 1 when the system manufacturer is a virtual platform's, else 0. */
int detect_vm_by_bios(void)
{
    dmi_table_info info;
    u8 mf[128];
    int found;

    if (get_smbios_table(&info) != 0)
        return 0;
    memset(mf, 0, sizeof(mf));
    found = get_manufacturer(&info, mf) == 0;
    free_smbios_table(&info);
    return found ? is_vm_manufacturer((const char*)mf) : 0;
}

/* 1 when the CPU flags, Xen or SMBIOS say virtual machine (in that order), else 0. */
int detect_vm_info(void)
{
    static int (*const probes[])(void) = {
        detect_vm_by_cpuinfo, detect_vm_by_xen, detect_vm_by_bios,
    };

    for (size_t i = 0; i < sizeof(probes) / sizeof(probes[0]); i++) {
        if (probes[i]() == 1)
            return 1;
    }
    return 0;
}

/* ---- sockets and kernel ---- */

/*
 * Processor sockets from a shell pipeline over /proc/cpuinfo: distinct
 * "physical id" lines, or with assume_single_core distinct "processor"
 * lines.  0 when the pipeline fails or prints nothing.
 */
int fetch_cpu_socks(int assume_single_core)
{
    const char* cmd = assume_single_core == 0
        ? "cat /proc/cpuinfo | grep 'physical id' | sort | uniq | wc -l"
        : "cat /proc/cpuinfo | grep 'processor' | sort | uniq | wc -l";
    char out[4096];

    return zel_shell_capture(cmd, out, sizeof(out), NULL) <= 0 ? 0 : atoi(out);
}

/*
 * Processor sockets: distinct "physical id" lines of /proc/cpuinfo, or
 * distinct "processor" lines when there are none.  When cpuinfo cannot be
 * read, the shell pipelines of fetch_cpu_socks answer instead.
 */
int get_pv_sockets(void)
{
    char* text;
    size_t len;
    int rc, socks, err;

    rc = load_proc_file(CPUINFO_PATH, &text, &len);
    if (rc == 0) {
        socks = cpuinfo_count_sockets(text, len);
        free(text);
        return socks;
    }
    err = errno;
    if (rc == -1)
        ZELLogFunction(0, "vmdetect", __LINE__, "%s: fopen(%s) failed: %s[%d].\n",
                       "get_pv_sockets", CPUINFO_PATH, strerror(err), err);
    else
        ZELLogFunction(0, "vmdetect", __LINE__, "%s: fgets(%s) failed: %s[%d].\n",
                       "get_pv_sockets", CPUINFO_PATH, strerror(err), err);
    socks = fetch_cpu_socks(0);
    if (socks == 0)
        socks = fetch_cpu_socks(1);
    return socks;
}

/* 1 when "uname -r" names a UEK kernel, else 0 (an odd status is logged). */
int is_oracle_uek(void)
{
    return run_probe_cmd("is_oracle_uek", UEK_CMD, 0) == 0 ? 1 : 0;
}
