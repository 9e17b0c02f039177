/*
 * fuzz_support.h - what every fuzz target shares: a private log directory
 * set up before the first input (fuzz_support.cpp), and the check that ends
 * a run when a parser breaks its own contract.
 */
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

/* Stops the run with a report naming the broken property; libFuzzer saves
 * the input as a crash artifact, like any sanitizer finding. */
#define FUZZ_CHECK(cond) \
    do { \
        if (!(cond)) { \
            fprintf(stderr, "==%d== FUZZ CHECK FAILED at %s:%d: %s\n", (int)getpid(), __FILE__, \
                    __LINE__, #cond); \
            abort(); \
        } \
    } while (0)

#endif /* FUZZ_SUPPORT_H */
