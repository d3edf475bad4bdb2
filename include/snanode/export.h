/* The one export macro of the product's shared libraries.
 *
 * Everything is built with hidden visibility; only what is marked with
 * SNA_EXPORT reaches the dynamic symbol table, so the exported surface is
 * exactly the declared contract. */
#ifndef SNANODE_EXPORT_H
#define SNANODE_EXPORT_H

#if defined(__GNUC__)
#define SNA_EXPORT __attribute__((visibility("default")))
#else
#define SNA_EXPORT
#endif

#endif
