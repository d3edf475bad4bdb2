/* cpic_print.h - formatted print routines exported by the CPI-C library
 * for the node's other components.
 *
 * nb_fprintf, nb_printf and nb_sprintf are thin wrappers over the C
 * library's formatted output. t_sprintf and t_print_args are a small
 * formatter of their own: conversions % c s d i w u o x X p, the flags
 * "#", "-", "0", ".", "*", "l" and "L", an optional output limit, and
 * misuse reported through v0_assert with the file name "svmcspnt".
 *
 * Arguments are machine words (t_print_word): 32 bits on i386; on x86_64
 * pointer-sized so that "%s" and "%p" can carry a pointer. Numeric
 * conversions other than "%p" use the low 32 bits of their word. */
#ifndef CPIC_PRINT_H
#define CPIC_PRINT_H

#include <stdint.h>
#include <stdio.h>

#include "snanode/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uintptr_t t_print_word;

SNA_EXPORT int nb_fprintf(FILE *stream, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
SNA_EXPORT int nb_printf(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
SNA_EXPORT int nb_sprintf(char *destination, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Unbounded formatting of the variable arguments, one word each. Returns
 * the number of characters written, the terminating NUL not counted. */
SNA_EXPORT int t_sprintf(char *destination, const char *format, ...);

/* Formats the words at args into destination. limit 0 is unbounded;
 * otherwise the output is cut with a new line and NUL as soon as more than
 * limit - 20 characters have been written. Returns the number of
 * characters written (a cutting new line included, the NUL not). */
SNA_EXPORT int t_print_args(char *destination, uint32_t limit,
                            const char *format, const t_print_word *args);

#ifdef __cplusplus
}
#endif

#endif
