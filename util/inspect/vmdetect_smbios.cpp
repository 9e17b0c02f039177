/*
 * vmdetect_smbios.cpp - the SMBIOS side of the virtual machine probes: the
 * entry point scan over a copy of the BIOS area, the structure walk over a
 * copy of the table, the manufacturer tests, and the thin reader that copies
 * both out of /dev/mem.
 *
 * Every parser here works on a buffer and its length and never reads past
 * it, whatever the bytes are: the BIOS area and the table come from firmware.
 */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "vmdetect.h"

#define BIOS_AREA_BASE   0xF0000
#define BIOS_AREA_SIZE   0x10000
#define EP_ROOM          0x20      /* bytes an entry point may need */
#define EP_MIN_LEN       31
#define EP_DMI_OFF       16
#define EP_DMI_LEN       15
#define MANUFACTURER_MAX 128

/* ---- bytes ---- */

static u16 le16(const u8* p)
{
    return (u16)(p[0] | (p[1] << 8));
}

static u32 le32(const u8* p)
{
    return (u32)p[0] | ((u32)p[1] << 8) | ((u32)p[2] << 16) | ((u32)p[3] << 24);
}

/* 1 if the len bytes sum to 0 modulo 256, else 0. */
int checksum(const u8* buf, size_t len)
{
    u8 sum = 0;

    for (size_t i = 0; i < len; i++)
        sum = (u8)(sum + buf[i]);
    return sum == 0;
}

/* ---- entry point ---- */

static int entry_point_valid(const u8* ep, size_t room)
{
    size_t eplen = ep[5];

    if (eplen < EP_MIN_LEN)
        return 0;
    if (eplen > room)   /* a length byte beyond the image is not read through */
        return 0;
    if (!checksum(ep, eplen))
        return 0;
    if (memcmp(ep + EP_DMI_OFF, "_DMI_", 5) != 0)
        return 0;
    return checksum(ep + EP_DMI_OFF, EP_DMI_LEN);
}

/* See vmdetect.h: offset of the entry point in the image, or -1. */
int smbios_find_entry(const u8* image, size_t len, smbios_entry* ep)
{
    size_t off;

    if (image == NULL || ep == NULL || len < EP_ROOM)
        return -1;
    for (off = 0; off <= len - EP_ROOM; off += 16) {
        if (memcmp(image + off, "_SM_", 4) == 0)
            break;
    }
    if (off > len - EP_ROOM)
        return -1;
    if (!entry_point_valid(image + off, len - off))
        return -1;

    ep->len = le16(image + off + 0x16);
    ep->addr = le32(image + off + 0x18);
    ep->ne = le16(image + off + 0x1C);
    return (int)off;
}

/* ---- /dev/mem ---- */

/*
 * Copies len bytes of physical memory from phys into dst through a mapping
 * of /dev/mem rounded down to the page.  0, or -1 when the device cannot be
 * opened or mapped.
 */
static int copy_physical(u32 phys, size_t len, u8* dst)
{
    long page = sysconf(_SC_PAGESIZE);
    off_t base;
    size_t delta;
    void* map;
    int fd;

    if (page <= 0)
        page = 4096;
    base = (off_t)phys - ((off_t)phys % page);
    delta = (size_t)((off_t)phys - base);

    fd = open("/dev/mem", O_RDONLY);
    if (fd < 0)
        return -1;
    map = mmap(NULL, len + delta, PROT_READ, MAP_SHARED, fd, base);
    if (map == MAP_FAILED) {
        close(fd);
        return -1;
    }
    memcpy(dst, (u8*)map + delta, len);
    munmap(map, len + delta);
    close(fd);
    return 0;
}

/*
 * Reads the SMBIOS structure table out of physical memory (root only).
 * 0 with info->ptr a heap copy of info->len bytes (release it with
 * free_smbios_table); -1 when there is no readable table, with nothing
 * left allocated.
 */
int get_smbios_table(dmi_table_info* info)
{
    smbios_entry ep;
    u8* area;
    u8* table;
    int off;

    if (info == NULL)
        return -1;
    info->ptr = NULL;
    info->len = 0;
    info->ne = 0;

    area = (u8*)malloc(BIOS_AREA_SIZE);
    if (area == NULL)
        return -1;
    /* an area that cannot be mapped is a missing table */
    if (copy_physical(BIOS_AREA_BASE, BIOS_AREA_SIZE, area) != 0) {
        free(area);
        return -1;
    }
    off = smbios_find_entry(area, BIOS_AREA_SIZE, &ep);
    free(area);
    if (off < 0 || ep.len <= 0)
        return -1;

    table = (u8*)malloc((size_t)ep.len);
    if (table == NULL)
        return -1;
    if (copy_physical(ep.addr, (size_t)ep.len, table) != 0) {
        free(table);
        return -1;
    }
    info->ptr = table;
    info->len = ep.len;
    info->ne = ep.ne;
    return 0;
}

/* Releases the table copy of get_smbios_table; 0. */
int free_smbios_table(dmi_table_info* info)
{
    if (info != NULL) {
        free(info->ptr);
        info->ptr = NULL;
    }
    return 0;
}

/* ---- structure walk ---- */

static int in_table(const dmi_table_info* info, const u8* p, size_t need)
{
    const u8* end = info->ptr + info->len;

    return p >= info->ptr && p < end && (size_t)(end - p) >= need;
}

/*
 * The structure after p: past the formatted area (length at offset 1) and
 * the string set, which ends with two NUL bytes.  Null when p is not inside
 * the table or the string set runs to the table's end.
 */
u8* next_entry(dmi_table_info* info, u8* p)
{
    const u8* end;
    const u8* q;

    if (info == NULL || info->ptr == NULL || info->len <= 0 || !in_table(info, p, 2))
        return NULL;
    end = info->ptr + info->len;
    if ((size_t)(end - p) < (size_t)p[1] + 2)
        return NULL;
    for (q = p + p[1]; q + 1 < end; q++) {
        if (q[0] == 0 && q[1] == 0)
            return (u8*)q + 2;
    }
    return NULL;
}

/*
 * Copies string number num (1 = first) of the string set at s into mf,
 * at most 127 characters plus the terminator.  0, or -1 when the table
 * ends before that string.
 */
static int copy_dmi_string(const dmi_table_info* info, const u8* s, int num, u8* mf)
{
    const u8* end = info->ptr + info->len;
    size_t n = 0;

    for (int i = 0; i < num - 1; i++) {
        const u8* nul = (const u8*)memchr(s, 0, (size_t)(end - s));
        if (nul == NULL || nul + 1 >= end)
            return -1;
        s = nul + 1;
    }
    while (s + n < end && s[n] != 0 && n < MANUFACTURER_MAX - 1) {
        mf[n] = s[n];
        n++;
    }
    mf[n] = 0;
    return 0;
}

/*
 * Manufacturer of the System Information structure (type 1) into mf, which
 * must hold 128 bytes.  Structures are counted from 1 and the walk gives up
 * when the count reaches info->ne, so a type-1 structure that is the last
 * one of the table is not found.  0, or -1 when none was found.
 */
int get_manufacturer(dmi_table_info* info, u8* mf)
{
    u8* p;

    if (info == NULL || info->ptr == NULL || info->len <= 0 || mf == NULL)
        return -1;
    p = info->ptr;
    for (int i = 1; i < info->ne; i++) {
        if (!in_table(info, p, 1))
            return -1;
        if (p[0] == 1) {
            if (!in_table(info, p, 5) || !in_table(info, p + p[1], 1))
                return -1;
            return copy_dmi_string(info, p + p[1], p[4], mf);
        }
        p = next_entry(info, p);
        if (p == NULL)
            return -1;
    }
    return -1;
}

/* ---- manufacturer table ---- */

enum vendor_match { VENDOR_CONTAINS, VENDOR_EQUALS };

static const struct {
    enum vendor_match how;
    const char* text;
} vm_vendors[] = {
    { VENDOR_CONTAINS, "VMware" },
    { VENDOR_EQUALS,   "Xen" },
    { VENDOR_CONTAINS, "Microsoft Corporation" },
    { VENDOR_CONTAINS, "Red Hat" },
};

/* See vmdetect.h: 1 for a virtual platform's manufacturer, else 0. */
int is_vm_manufacturer(const char* mf)
{
    if (mf == NULL)
        return 0;
    for (size_t i = 0; i < sizeof(vm_vendors) / sizeof(vm_vendors[0]); i++) {
        if (vm_vendors[i].how == VENDOR_EQUALS ? strcmp(mf, vm_vendors[i].text) == 0
                                               : strstr(mf, vm_vendors[i].text) != NULL)
            return 1;
    }
    return 0;
}
