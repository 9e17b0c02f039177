/*
 * fuzz_cpuinfo.cpp - the /proc/cpuinfo parsers on arbitrary text: the
 * hypervisor flag and the socket count.  libFuzzer hands over an
 * exact-size heap copy, so a read past the text is caught.
 */
#include "fuzz_support.h"
#include "vmdetect.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = (const char*)data;
    int flag, socks;

    flag = cpuinfo_has_hypervisor(text, size);
    FUZZ_CHECK(flag == 0 || flag == 1);
    socks = cpuinfo_count_sockets(text, size);
    /* every counted line holds at least "processor" */
    FUZZ_CHECK(socks >= 0 && (size_t)socks <= size / 9);
    return 0;
}
