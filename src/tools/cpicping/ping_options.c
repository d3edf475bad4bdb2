/* cpicping's command line. Options may come before or after the
 * destination; "--" ends them. A value may follow its option letter
 * directly ("-i10") or as the next argument ("-i 10"). */
#include "ping_options.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpic.h"

const char ping_usage[] =
    "usage: cpicping [options] DESTINATION\n"
    "  DESTINATION     symbolic destination name, or partner LU (NET.LU or alias)\n"
    "  -t TPNAME       partner TP name (default " PING_DEFAULT_TP_NAME ")\n"
    "  -m MODE         mode name (default " PING_DEFAULT_MODE ")\n"
    "  -i ITERATIONS   round trips (default 4)\n"
    "  -c CONSECUTIVE  buffers sent per round trip (default 1)\n"
    "  -s SIZE         bytes per buffer, 0-32767 (default 100)\n"
    "  -y TYPE         conversation security: none, same or program\n"
    "  -u USER         user ID for security program (implies -y program)\n"
    "  -p PASSWORD     password for security program (implies -y program)\n"
    "  -q              quiet: print the summary only\n"
    "  -h, --help      print this text\n";

static int fail(char *error, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(error, size, format, args);
  va_end(args);
  return -1;
}

static int parse_number(const char *text, long low, long high, long *out) {
  char *end = NULL;
  long value;
  if (*text == '\0' || *text == ' ' || *text == '+') return -1;
  errno = 0;
  value = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return -1;
  *out = value;
  return 0;
}

static int copy_text(char *destination, size_t capacity, const char *text, size_t min_length) {
  size_t length = strlen(text);
  if (length < min_length || length >= capacity) return -1;
  memcpy(destination, text, length + 1);
  return 0;
}

int ping_parse_options(int argc, char *const *argv, struct ping_options *o, char *error,
                       size_t error_size) {
  int i, options_ended = 0, destination_given = 0;
  memset(o, 0, sizeof *o);
  strcpy(o->tp_name, PING_DEFAULT_TP_NAME);
  strcpy(o->mode, PING_DEFAULT_MODE);
  o->iterations = 4;
  o->consecutive = 1;
  o->size = 100;
  o->security = CM_SECURITY_NONE;

  for (i = 1; i < argc; i++) {
    const char *arg = argv[i];
    const char *value;
    char letter;
    if (options_ended || arg[0] != '-' || arg[1] == '\0') {
      if (destination_given) return fail(error, error_size, "more than one destination: %s", arg);
      if (copy_text(o->destination, sizeof o->destination, arg, 1) != 0)
        return fail(error, error_size, "destination must have 1 to 17 characters: %s", arg);
      destination_given = 1;
      continue;
    }
    if (strcmp(arg, "--") == 0) {
      options_ended = 1;
      continue;
    }
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      o->help = 1;
      return 0;
    }
    if (arg[1] == '-') return fail(error, error_size, "unknown option: %s", arg);
    letter = arg[1];
    if (letter == 'q') {
      if (arg[2] != '\0') return fail(error, error_size, "unknown option: %s", arg);
      o->quiet = 1;
      continue;
    }
    if (strchr("tmicsyup", letter) == NULL) return fail(error, error_size, "unknown option: %s", arg);
    if (arg[2] != '\0') {
      value = arg + 2;
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      return fail(error, error_size, "option -%c needs a value", letter);
    }
    switch (letter) {
      case 't':
        if (copy_text(o->tp_name, sizeof o->tp_name, value, 1) != 0)
          return fail(error, error_size, "TP name must have 1 to 64 characters: %s", value);
        o->tp_name_given = 1;
        break;
      case 'm':
        if (copy_text(o->mode, sizeof o->mode, value, 0) != 0)
          return fail(error, error_size, "mode name must have at most 8 characters: %s", value);
        o->mode_given = 1;
        break;
      case 'i':
        if (parse_number(value, 1, PING_MAX_ITERATIONS, &o->iterations) != 0)
          return fail(error, error_size, "iterations must be a number from 1 to %ld: %s",
                      PING_MAX_ITERATIONS, value);
        break;
      case 'c':
        if (parse_number(value, 1, PING_MAX_CONSECUTIVE, &o->consecutive) != 0)
          return fail(error, error_size, "consecutive sends must be a number from 1 to %ld: %s",
                      PING_MAX_CONSECUTIVE, value);
        break;
      case 's':
        if (parse_number(value, 0, PING_MAX_SIZE, &o->size) != 0)
          return fail(error, error_size, "size must be a number from 0 to %ld: %s", PING_MAX_SIZE,
                      value);
        break;
      case 'y':
        if (strcmp(value, "none") == 0) {
          o->security = CM_SECURITY_NONE;
        } else if (strcmp(value, "same") == 0) {
          o->security = CM_SECURITY_SAME;
        } else if (strcmp(value, "program") == 0) {
          o->security = CM_SECURITY_PROGRAM;
        } else {
          return fail(error, error_size, "security type must be none, same or program: %s", value);
        }
        o->security_given = 1;
        break;
      case 'u':
        if (copy_text(o->user_id, sizeof o->user_id, value, 1) != 0)
          return fail(error, error_size, "user ID must have 1 to 10 characters: %s", value);
        break;
      case 'p':
        if (copy_text(o->password, sizeof o->password, value, 1) != 0)
          return fail(error, error_size, "password must have 1 to 10 characters");
        break;
    }
  }

  if (!destination_given) return fail(error, error_size, "no destination given");
  if (o->user_id[0] != '\0' || o->password[0] != '\0') {
    if (!o->security_given) {
      o->security = CM_SECURITY_PROGRAM;
    } else if (o->security != CM_SECURITY_PROGRAM) {
      return fail(error, error_size, "-u and -p go with -y program only");
    }
  }
  if (o->security == CM_SECURITY_PROGRAM && (o->user_id[0] == '\0' || o->password[0] == '\0'))
    return fail(error, error_size, "security program needs both -u USER and -p PASSWORD");
  return 0;
}
