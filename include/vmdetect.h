/*
 * vmdetect.h - virtual machine and socket probes (source name "vmdetect").
 * The readers of /dev/mem and /proc are thin layers over parsers that take
 * a memory image or a file's text, so the logic is testable anywhere.
 */
#ifndef VMDETECT_H
#define VMDETECT_H

#include <stddef.h>
#include "zel_basic_types.h"

typedef struct dmi_table_info {
    u8* ptr;   /* heap copy of the structure table, freed by free_smbios_table */
    int len;   /* table length in bytes */
    int ne;    /* number of structures */
} dmi_table_info;

int  detect_vm_info(void);
int  detect_vm_by_cpuinfo(void);
int  detect_vm_by_xen(void);
int  detect_vm_by_bios(void);
int  get_smbios_table(dmi_table_info* info);
int  free_smbios_table(dmi_table_info* info);
u8*  next_entry(dmi_table_info* info, u8* p);
int  checksum(const u8* buf, size_t len);
int  get_manufacturer(dmi_table_info* info, u8* mf);
int  get_pv_sockets(void);
int  fetch_cpu_socks(int assume_single_core);
int  is_oracle_uek(void);

/* ---- parsers over bytes (no I/O; safe on arbitrary input) ---- */

/* Location of the structure table named by an SMBIOS 2.x entry point. */
typedef struct smbios_entry {
    u32 addr;   /* physical address of the structure table */
    int len;    /* table length in bytes */
    int ne;     /* number of structures */
} smbios_entry;

/*
 * Scans a copy of the BIOS area (normally 64 KiB from 0xF0000) at every
 * 16-byte boundary for "_SM_" with room for a 32-byte entry point behind it.
 * The first anchor found decides: it must have a length byte of at least 31
 * that fits the image, a zero checksum over that length, "_DMI_" at offset 16
 * and a zero checksum over the 15 bytes from there.  Fills *ep and answers
 * the entry point's offset in the image, or -1.
 */
int  smbios_find_entry(const u8* image, size_t len, smbios_entry* ep);

/*
 * Manufacturer test of the BIOS probe: 1 when the text names a virtual
 * platform (contains "VMware", "Microsoft Corporation" or "Red Hat", or is
 * exactly "Xen"), else 0.  A null text is 0.
 */
int  is_vm_manufacturer(const char* mf);

/*
 * /proc/cpuinfo text, read as lines of at most 1023 bytes: 1 when the first
 * line starting with "flags" that names "hypervisor" exists, else 0.
 */
int  cpuinfo_has_hypervisor(const char* text, size_t len);

/*
 * /proc/cpuinfo text, read as lines of at most 4095 bytes: the number of
 * distinct "physical id" lines, or when there are none the number of
 * distinct "processor" lines.
 */
int  cpuinfo_count_sockets(const char* text, size_t len);

#endif /* VMDETECT_H */
