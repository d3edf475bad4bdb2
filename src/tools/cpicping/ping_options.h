/* The command line of cpicping, parsed and checked before any call that
 * needs the node, so that a mistyped option never starts a conversation. */
#ifndef SNA_TOOLS_PING_OPTIONS_H
#define SNA_TOOLS_PING_OPTIONS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PING_DEFAULT_TP_NAME "CPICPINGD"
#define PING_DEFAULT_MODE "#INTER"
#define PING_MAX_SIZE 32767L
#define PING_MAX_ITERATIONS 1000000L
#define PING_MAX_CONSECUTIVE 100000L

struct ping_options {
  char destination[18];   /* symbolic destination or partner LU, 1-17 */
  char tp_name[65];       /* 1-64 */
  int tp_name_given;
  char mode[9];           /* 0-8; empty is the blank mode */
  int mode_given;
  long iterations;
  long consecutive;
  long size;
  int security;           /* CM_SECURITY_NONE, _SAME or _PROGRAM */
  int security_given;
  char user_id[11];       /* 1-10 when security is program */
  char password[11];
  int quiet;
  int help;               /* -h or --help: print the usage and stop */
};

/* Fills *options from argv[1..argc-1]. Returns 0, or -1 with a message
 * (no trailing new line) in error. */
int ping_parse_options(int argc, char *const *argv, struct ping_options *options,
                       char *error, size_t error_size);

/* The usage text, for --help and after an argument error. */
extern const char ping_usage[];

#ifdef __cplusplus
}
#endif

#endif
