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

#endif /* VMDETECT_H */
