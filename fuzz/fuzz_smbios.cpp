/*
 * fuzz_smbios.cpp - the SMBIOS parsers on arbitrary memory images.
 *
 * The input is a copy of the BIOS area based at 0xF0000.  When the entry
 * point scan finds a table that the image holds (at the table's address,
 * else right behind the entry point), that table is walked and searched
 * for the manufacturer, cut to the image as a short read would be.  The
 * whole input is also walked as a table of its own.  Tables are exact-size
 * heap copies, so a read past one is caught.
 */
#include <stdlib.h>
#include <string.h>

#include "fuzz_support.h"
#include "vmdetect.h"

#define BIOS_AREA_BASE 0xF0000u
#define EP_ROOM        0x20
#define MF_SIZE        128

/* Walks a table of len bytes at src with ne structures declared. */
static void walk_table(const u8* src, size_t len, int ne)
{
    dmi_table_info info;
    u8 mf[MF_SIZE];
    u8* p;
    int steps = 0;

    if (len == 0)
        return;
    info.ptr = (u8*)malloc(len);
    FUZZ_CHECK(info.ptr != NULL);
    memcpy(info.ptr, src, len);
    info.len = (int)len;
    info.ne = ne;

    for (p = info.ptr; p != NULL && steps < ne; steps++) {
        u8* next = next_entry(&info, p);
        FUZZ_CHECK(next == NULL || (next > p && next <= info.ptr + info.len));
        p = next;
    }

    memset(mf, 0xA5, sizeof(mf));
    if (get_manufacturer(&info, mf) == 0) {
        FUZZ_CHECK(memchr(mf, 0, sizeof(mf)) != NULL);
        is_vm_manufacturer((const char*)mf);
    }
    free_smbios_table(&info);
    FUZZ_CHECK(info.ptr == NULL);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    smbios_entry ep;
    int off;

    memset(&ep, 0, sizeof(ep));
    off = smbios_find_entry(data, size, &ep);
    FUZZ_CHECK(off >= -1);
    if (off >= 0) {
        size_t at = (size_t)off + EP_ROOM;

        FUZZ_CHECK((size_t)off % 16 == 0 && (size_t)off + EP_ROOM <= size);
        FUZZ_CHECK(memcmp(data + off, "_SM_", 4) == 0);
        if (ep.addr >= BIOS_AREA_BASE && ep.addr - BIOS_AREA_BASE < size)
            at = ep.addr - BIOS_AREA_BASE;
        if (ep.len > 0 && at < size) {
            size_t len = size - at < (size_t)ep.len ? size - at : (size_t)ep.len;
            walk_table(data + at, len, ep.ne);
        }
    }
    walk_table(data, size > 0xFFFF ? 0xFFFF : size, 0xFFFF);
    return 0;
}
