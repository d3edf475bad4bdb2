/* cpic_script: a CPI-C program driven by commands on stdin, one call per
 * line, for the end-to-end tests. Each call prints one line: the call's
 * name, its return code by name, and its outputs as key=value.
 *
 * Conversations are named by the script (any word); integer arguments are
 * numbers or the CPI-C constant names. Data arguments: a word of text,
 * "-" for none, "x:HEX" for bytes in hex, "n:COUNT" for COUNT bytes.
 *
 *   CMINIT c [SYMDEST]   CMINIC c   CMACCP c   CMACCI c   CMALLC c
 *   CMSTPN/CMSPLN/CMSMN/CMSLLN/CMSCSU/CMSCSP/XCSCSU/XCSCSP/CMSLD c TEXT
 *   CMSCT/CMSSL/CMSDT/CMSST/CMSRT/CMSPTR/CMSED/CMSF/CMSRC/CMSPM/CMSCST/
 *   XCSCST c VALUE
 *   CMSEND c DATA        CMRCV c LENGTH        CMCFM c   CMCFMD c
 *   CMFLUS c   CMPTR c   CMRTS c   CMSERR c   CMTRTS c   CMDEAL c
 *   CMCANC c   CMWAIT    CMECS c   CMECT c   CMESL c   CMEPLN c
 *   CMEMN c   CMETPN c   CMESUI c  CMECST c  CMELLN c
 *   XCMSSI NAME PARTNER TPNAME MODE SECTYPE USER PASSWORD
 *   XCMDSI NAME   CMSLTP NAME   CMRLTP NAME   CMTERM [TYPE]   CMEMBS
 *   ECHO TEXT   EXIT [STATUS]
 *
 * The loss of the node is printed as "event 0x8001".
 *
 * Receive outputs of a non-blocking CMRCV are kept with the conversation
 * and printed by the CMWAIT that collects the call. */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"
#include "snanode/node.h"

#define MAX_CONVS 32
#define MAX_LINE 70000

struct conv {
  char name[32];
  CONVERSATION_ID id;
  int used;
  char last_call[8];
  unsigned char send_buffer[CM_MAXIMUM_BUFFER_SIZE];
  unsigned char receive_buffer[CM_MAXIMUM_BUFFER_SIZE];
  CM_INT32 send_length, requested, data_received, received_length, status_received, rts,
      return_code;
};

static struct conv convs[MAX_CONVS];

struct named {
  const char *name;
  int value;
};

static const struct named return_codes[] = {
    {"CM_OK", CM_OK},
    {"CM_ALLOCATE_FAILURE_NO_RETRY", CM_ALLOCATE_FAILURE_NO_RETRY},
    {"CM_ALLOCATE_FAILURE_RETRY", CM_ALLOCATE_FAILURE_RETRY},
    {"CM_CONVERSATION_TYPE_MISMATCH", CM_CONVERSATION_TYPE_MISMATCH},
    {"CM_PIP_NOT_SPECIFIED_CORRECTLY", CM_PIP_NOT_SPECIFIED_CORRECTLY},
    {"CM_SECURITY_NOT_VALID", CM_SECURITY_NOT_VALID},
    {"CM_SYNC_LVL_NOT_SUPPORTED_LU", CM_SYNC_LVL_NOT_SUPPORTED_LU},
    {"CM_SYNC_LVL_NOT_SUPPORTED_PGM", CM_SYNC_LVL_NOT_SUPPORTED_PGM},
    {"CM_TPN_NOT_RECOGNIZED", CM_TPN_NOT_RECOGNIZED},
    {"CM_TP_NOT_AVAILABLE_NO_RETRY", CM_TP_NOT_AVAILABLE_NO_RETRY},
    {"CM_TP_NOT_AVAILABLE_RETRY", CM_TP_NOT_AVAILABLE_RETRY},
    {"CM_DEALLOCATED_ABEND", CM_DEALLOCATED_ABEND},
    {"CM_DEALLOCATED_NORMAL", CM_DEALLOCATED_NORMAL},
    {"CM_PARAMETER_ERROR", CM_PARAMETER_ERROR},
    {"CM_PRODUCT_SPECIFIC_ERROR", CM_PRODUCT_SPECIFIC_ERROR},
    {"CM_PROGRAM_ERROR_NO_TRUNC", CM_PROGRAM_ERROR_NO_TRUNC},
    {"CM_PROGRAM_ERROR_PURGING", CM_PROGRAM_ERROR_PURGING},
    {"CM_PROGRAM_ERROR_TRUNC", CM_PROGRAM_ERROR_TRUNC},
    {"CM_PROGRAM_PARAMETER_CHECK", CM_PROGRAM_PARAMETER_CHECK},
    {"CM_PROGRAM_STATE_CHECK", CM_PROGRAM_STATE_CHECK},
    {"CM_RESOURCE_FAILURE_NO_RETRY", CM_RESOURCE_FAILURE_NO_RETRY},
    {"CM_RESOURCE_FAILURE_RETRY", CM_RESOURCE_FAILURE_RETRY},
    {"CM_UNSUCCESSFUL", CM_UNSUCCESSFUL},
    {"CM_DEALLOCATED_ABEND_SVC", CM_DEALLOCATED_ABEND_SVC},
    {"CM_DEALLOCATED_ABEND_TIMER", CM_DEALLOCATED_ABEND_TIMER},
    {"CM_SVC_ERROR_NO_TRUNC", CM_SVC_ERROR_NO_TRUNC},
    {"CM_SVC_ERROR_PURGING", CM_SVC_ERROR_PURGING},
    {"CM_SVC_ERROR_TRUNC", CM_SVC_ERROR_TRUNC},
    {"CM_OPERATION_INCOMPLETE", CM_OPERATION_INCOMPLETE},
    {"CM_SYSTEM_EVENT", CM_SYSTEM_EVENT},
    {"CM_OPERATION_NOT_ACCEPTED", CM_OPERATION_NOT_ACCEPTED},
    {"CM_CONVERSATION_ENDING", CM_CONVERSATION_ENDING},
    {"CM_BUFFER_TOO_SMALL", CM_BUFFER_TOO_SMALL},
    {"CM_CALL_NOT_SUPPORTED", CM_CALL_NOT_SUPPORTED},
    {"CM_PARM_VALUE_NOT_SUPPORTED", CM_PARM_VALUE_NOT_SUPPORTED},
    {NULL, 0}};

/* Values accepted by name in integer arguments. */
static const struct named constants[] = {
    {"CM_BASIC_CONVERSATION", CM_BASIC_CONVERSATION},
    {"CM_MAPPED_CONVERSATION", CM_MAPPED_CONVERSATION},
    {"CM_NONE", CM_NONE},
    {"CM_CONFIRM", CM_CONFIRM},
    {"CM_DEALLOCATE_SYNC_LEVEL", CM_DEALLOCATE_SYNC_LEVEL},
    {"CM_DEALLOCATE_FLUSH", CM_DEALLOCATE_FLUSH},
    {"CM_DEALLOCATE_CONFIRM", CM_DEALLOCATE_CONFIRM},
    {"CM_DEALLOCATE_ABEND", CM_DEALLOCATE_ABEND},
    {"CM_BUFFER_DATA", CM_BUFFER_DATA},
    {"CM_SEND_AND_FLUSH", CM_SEND_AND_FLUSH},
    {"CM_SEND_AND_CONFIRM", CM_SEND_AND_CONFIRM},
    {"CM_SEND_AND_PREP_TO_RECEIVE", CM_SEND_AND_PREP_TO_RECEIVE},
    {"CM_SEND_AND_DEALLOCATE", CM_SEND_AND_DEALLOCATE},
    {"CM_RECEIVE_AND_WAIT", CM_RECEIVE_AND_WAIT},
    {"CM_RECEIVE_IMMEDIATE", CM_RECEIVE_IMMEDIATE},
    {"CM_PREP_TO_RECEIVE_SYNC_LEVEL", CM_PREP_TO_RECEIVE_SYNC_LEVEL},
    {"CM_PREP_TO_RECEIVE_FLUSH", CM_PREP_TO_RECEIVE_FLUSH},
    {"CM_PREP_TO_RECEIVE_CONFIRM", CM_PREP_TO_RECEIVE_CONFIRM},
    {"CM_RECEIVE_ERROR", CM_RECEIVE_ERROR},
    {"CM_SEND_ERROR", CM_SEND_ERROR},
    {"CM_FILL_LL", CM_FILL_LL},
    {"CM_FILL_BUFFER", CM_FILL_BUFFER},
    {"CM_WHEN_SESSION_ALLOCATED", CM_WHEN_SESSION_ALLOCATED},
    {"CM_IMMEDIATE", CM_IMMEDIATE},
    {"CM_BLOCKING", CM_BLOCKING},
    {"CM_NON_BLOCKING", CM_NON_BLOCKING},
    {"CM_SECURITY_NONE", CM_SECURITY_NONE},
    {"CM_SECURITY_SAME", CM_SECURITY_SAME},
    {"CM_SECURITY_PROGRAM", CM_SECURITY_PROGRAM},
    {"CM_SECURITY_PROGRAM_STRONG", CM_SECURITY_PROGRAM_STRONG},
    {"CM_HARD", CM_HARD},
    {"CM_SOFT", CM_SOFT},
    {NULL, 0}};

static const struct named states[] = {
    {"CM_INITIALIZE_STATE", CM_INITIALIZE_STATE},
    {"CM_SEND_STATE", CM_SEND_STATE},
    {"CM_RECEIVE_STATE", CM_RECEIVE_STATE},
    {"CM_SEND_PENDING_STATE", CM_SEND_PENDING_STATE},
    {"CM_CONFIRM_STATE", CM_CONFIRM_STATE},
    {"CM_CONFIRM_SEND_STATE", CM_CONFIRM_SEND_STATE},
    {"CM_CONFIRM_DEALLOCATE_STATE", CM_CONFIRM_DEALLOCATE_STATE},
    {"CM_INITIALIZE_INCOMING_STATE", CM_INITIALIZE_INCOMING_STATE},
    {NULL, 0}};

static const struct named data_received_names[] = {
    {"CM_NO_DATA_RECEIVED", CM_NO_DATA_RECEIVED},
    {"CM_DATA_RECEIVED", CM_DATA_RECEIVED},
    {"CM_COMPLETE_DATA_RECEIVED", CM_COMPLETE_DATA_RECEIVED},
    {"CM_INCOMPLETE_DATA_RECEIVED", CM_INCOMPLETE_DATA_RECEIVED},
    {NULL, 0}};

static const struct named status_names[] = {
    {"CM_NO_STATUS_RECEIVED", CM_NO_STATUS_RECEIVED},
    {"CM_SEND_RECEIVED", CM_SEND_RECEIVED},
    {"CM_CONFIRM_RECEIVED", CM_CONFIRM_RECEIVED},
    {"CM_CONFIRM_SEND_RECEIVED", CM_CONFIRM_SEND_RECEIVED},
    {"CM_CONFIRM_DEALLOC_RECEIVED", CM_CONFIRM_DEALLOC_RECEIVED},
    {NULL, 0}};

static const struct named rts_names[] = {
    {"CM_REQ_TO_SEND_NOT_RECEIVED", CM_REQ_TO_SEND_NOT_RECEIVED},
    {"CM_REQ_TO_SEND_RECEIVED", CM_REQ_TO_SEND_RECEIVED},
    {NULL, 0}};

static char number_text[16][24];
static int number_next;

static const char *name_of(const struct named *table, int value) {
  char *t;
  for (; table->name != NULL; ++table) {
    if (table->value == value) return table->name;
  }
  t = number_text[number_next++ % 16];
  snprintf(t, sizeof number_text[0], "%d", value);
  return t;
}

static int value_of(const char *word, int *out) {
  const struct named *t;
  char *end = NULL;
  long v;
  if (word == NULL) return 0;
  for (t = constants; t->name != NULL; ++t) {
    if (strcmp(t->name, word) == 0) {
      *out = t->value;
      return 1;
    }
  }
  v = strtol(word, &end, 0);
  if (end == word || *end != '\0') return 0;
  *out = (int)v;
  return 1;
}

/* Output: each result is composed in a buffer and written as one line
 * under the stdio lock, so that the node-lost event, printed from the
 * runtime's thread, never lands inside another line. */
static char line_buf[2 * CM_MAXIMUM_BUFFER_SIZE + 1024];
static size_t line_len;

static void add(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static void add(const char *fmt, ...) {
  va_list ap;
  int n;
  if (line_len >= sizeof line_buf) return;
  va_start(ap, fmt);
  n = vsnprintf(line_buf + line_len, sizeof line_buf - line_len, fmt, ap);
  va_end(ap);
  if (n > 0) line_len += (size_t)n;
  if (line_len >= sizeof line_buf) line_len = sizeof line_buf - 1;
}

static void emit_line(const char *text) {
  flockfile(stdout);
  fputs(text, stdout);
  fflush(stdout);
  funlockfile(stdout);
}

/* Finishes the line begun with add(). */
static void out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static void out(const char *fmt, ...) {
  va_list ap;
  int n;
  va_start(ap, fmt);
  n = vsnprintf(line_buf + line_len, sizeof line_buf - line_len, fmt, ap);
  va_end(ap);
  (void)n;
  emit_line(line_buf);
  line_len = 0;
  line_buf[0] = '\0';
}

static int path_event(void *path, VPM_PATH_EVENT *event) {
  char text[40];
  (void)path;
  snprintf(text, sizeof text, "event 0x%04X\n", event->code);
  emit_line(text);
  return 0;
}

static void hex_print(const unsigned char *p, CM_INT32 n) {
  CM_INT32 i;
  for (i = 0; i < n; ++i) add("%02X", p[i]);
}

static struct conv *find(const char *name, int create) {
  int i;
  if (name == NULL) return NULL;
  for (i = 0; i < MAX_CONVS; ++i) {
    if (convs[i].used && strcmp(convs[i].name, name) == 0) return &convs[i];
  }
  if (!create) return NULL;
  for (i = 0; i < MAX_CONVS; ++i) {
    if (!convs[i].used) {
      memset(&convs[i], 0, sizeof convs[i]);
      convs[i].used = 1;
      snprintf(convs[i].name, sizeof convs[i].name, "%s", name);
      return &convs[i];
    }
  }
  return NULL;
}

static struct conv *find_by_id(const unsigned char *id) {
  int i;
  for (i = 0; i < MAX_CONVS; ++i) {
    if (convs[i].used && memcmp(convs[i].id, id, 8) == 0) return &convs[i];
  }
  return NULL;
}

/* Decodes a data argument into buf; returns the length, -1 if malformed. */
static CM_INT32 data_of(const char *arg, unsigned char *buf) {
  CM_INT32 n = 0;
  if (arg == NULL || strcmp(arg, "-") == 0) return 0;
  if (strncmp(arg, "x:", 2) == 0) {
    const char *p = arg + 2;
    while (p[0] && p[1] && n < CM_MAXIMUM_BUFFER_SIZE) {
      unsigned v;
      if (sscanf(p, "%2x", &v) != 1) return -1;
      buf[n++] = (unsigned char)v;
      p += 2;
    }
    return *p ? -1 : n;
  }
  if (strncmp(arg, "n:", 2) == 0) {
    long count = strtol(arg + 2, NULL, 10);
    if (count < 0 || count > CM_MAXIMUM_BUFFER_SIZE) return -1;
    for (n = 0; n < count; ++n) buf[n] = (unsigned char)('a' + n % 26);
    return n;
  }
  n = (CM_INT32)strlen(arg);
  memcpy(buf, arg, (size_t)n);
  return n;
}

static void print_receive(const struct conv *c) {
  add(" dr=%s len=%d data=", name_of(data_received_names, c->data_received), (int)c->received_length);
  if (c->received_length > 0 && c->received_length <= CM_MAXIMUM_BUFFER_SIZE) {
    hex_print(c->receive_buffer, c->received_length);
  }
  add(" st=%s rts=%s", name_of(status_names, c->status_received), name_of(rts_names, c->rts));
}

/* Padded 8-byte name from a word. */
static void pad8(unsigned char *dst, const char *word) {
  size_t n = word ? strlen(word) : 0;
  memset(dst, ' ', 8);
  memcpy(dst, word, n > 8 ? 8 : n);
}

static void text_field(const char *key, const unsigned char *p, CM_INT32 n) {
  add(" %s=%.*s", key, (int)n, (const char *)p);
}

typedef void (*setter_text)(unsigned char *, unsigned char *, CM_INT32 *, CM_INT32 *);
typedef void (*setter_int)(unsigned char *, CM_INT32 *, CM_INT32 *);
typedef void (*extract_text)(unsigned char *, unsigned char *, CM_INT32 *, CM_INT32 *);
typedef void (*extract_int)(unsigned char *, CM_INT32 *, CM_INT32 *);

static const struct {
  const char *name;
  setter_text fn;
} text_setters[] = {{"CMSTPN", cmstpn}, {"CMSPLN", cmspln}, {"CMSMN", cmsmn},
                    {"CMSLLN", cmslln}, {"CMSCSU", cmscsu}, {"CMSCSP", cmscsp},
                    {"XCSCSU", xcscsu}, {"XCSCSP", xcscsp}, {"CMSLD", cmsld},
                    {NULL, NULL}};

static const struct {
  const char *name;
  setter_int fn;
} int_setters[] = {{"CMSCT", cmsct},   {"CMSSL", cmssl},   {"CMSDT", cmsdt}, {"CMSST", cmsst},
                   {"CMSRT", cmsrt},   {"CMSPTR", cmsptr}, {"CMSED", cmsed}, {"CMSF", cmsf},
                   {"CMSRC", cmsrc},   {"CMSPM", cmspm},   {"CMSCST", cmscst},
                   {"XCSCST", xcscst}, {NULL, NULL}};

static const struct {
  const char *name;
  extract_text fn;
  int size;
} text_extracts[] = {{"CMEPLN", cmepln, 17}, {"CMEMN", cmemn, 8}, {"CMETPN", cmetpn, 64},
                     {"CMESUI", cmesui, 10}, {"CMELLN", cmelln, 8}, {NULL, NULL, 0}};

static const struct {
  const char *name;
  extract_int fn;
} int_extracts[] = {{"CMECT", cmect}, {"CMESL", cmesl}, {"CMECST", cmecst}, {NULL, NULL}};

static void run(char *line) {
  char *words[10];
  int count = 0, i;
  char *save = NULL, *w;
  CM_INT32 rc = -1;
  struct conv *c;
  const char *call;

  for (w = strtok_r(line, " \t\r\n", &save); w != NULL && count < 10; w = strtok_r(NULL, " \t\r\n", &save)) {
    words[count++] = w;
  }
  if (count == 0 || words[0][0] == '#') return;
  call = words[0];

  if (strcmp(call, "ECHO") == 0) {
    out("ECHO %s\n", count > 1 ? words[1] : "");
    return;
  }
  if (strcmp(call, "EXIT") == 0) {
    exit(count > 1 ? atoi(words[1]) : 0);
  }
  if (strcmp(call, "CMWAIT") == 0) {
    CONVERSATION_ID id;
    CM_INT32 conv_rc = -1;
    memset(id, 0, sizeof id);
    cmwait(id, &conv_rc, &rc);
    c = find_by_id(id);
    add("CMWAIT %s conv=%s crc=%s", name_of(return_codes, rc), c ? c->name : "?",
           name_of(return_codes, conv_rc));
    if (rc == CM_OK && c != NULL) {
      c->return_code = conv_rc;
      add(" op=%s", c->last_call);
      if (strcmp(c->last_call, "CMRCV") == 0) print_receive(c);
    }
    out("\n");
    return;
  }
  if (strcmp(call, "XCMSSI") == 0) {
    XC_SIDE_INFO_ENTRY e;
    CM_INT32 key = 0, length = (CM_INT32)sizeof e;
    int sec = 0;
    if (count < 8 || !value_of(words[5], &sec)) {
      out("error usage: XCMSSI NAME PARTNER TPNAME MODE SECTYPE USER PASSWORD\n");
      return;
    }
    memset(&e, ' ', sizeof e);
    pad8(e.sym_dest_name, words[1]);
    memset(e.partner_LU_name, ' ', 17);
    memcpy(e.partner_LU_name, words[2], strlen(words[2]) > 17 ? 17 : strlen(words[2]));
    memset(e.reserved, 0, sizeof e.reserved);
    e.TP_name_type = XC_APPLICATION_TP;
    memset(e.TP_name, ' ', 64);
    memcpy(e.TP_name, words[3], strlen(words[3]) > 64 ? 64 : strlen(words[3]));
    pad8(e.mode_name, strcmp(words[4], "-") == 0 ? "" : words[4]);
    e.conversation_security_type = sec;
    pad8(e.security_user_ID, strcmp(words[6], "-") == 0 ? "" : words[6]);
    pad8(e.security_password, strcmp(words[7], "-") == 0 ? "" : words[7]);
    xcmssi(&key, &e, &length, &rc);
    out("XCMSSI %s\n", name_of(return_codes, rc));
    return;
  }
  if (strcmp(call, "XCMDSI") == 0 && count > 1) {
    unsigned char name[8];
    CM_INT32 key = 0;
    pad8(name, words[1]);
    xcmdsi(&key, name, &rc);
    out("XCMDSI %s\n", name_of(return_codes, rc));
    return;
  }
  if ((strcmp(call, "CMSLTP") == 0 || strcmp(call, "CMRLTP") == 0) && count > 1) {
    CM_INT32 length = (CM_INT32)strlen(words[1]);
    if (call[2] == 'S') {
      cmsltp((unsigned char *)words[1], &length, &rc);
    } else {
      cmrltp((unsigned char *)words[1], &length, &rc);
    }
    out("%s %s\n", call, name_of(return_codes, rc));
    return;
  }
  if (strcmp(call, "CMTERM") == 0) {
    int type = CM_HARD;
    CM_INT32 t;
    if (count > 1 && !value_of(words[1], &type)) type = CM_HARD;
    t = type;
    cmterm(&t, &rc);
    out("CMTERM %s\n", name_of(return_codes, rc));
    return;
  }
  if (strcmp(call, "CMEMBS") == 0) {
    CM_INT32 size = 0;
    cmembs(&size, &rc);
    out("CMEMBS %s size=%d\n", name_of(return_codes, rc), (int)size);
    return;
  }

  if (count < 2) {
    out("error %s needs a conversation\n", call);
    return;
  }
  c = find(words[1], strcmp(call, "CMINIT") == 0 || strcmp(call, "CMINIC") == 0 ||
                         strcmp(call, "CMACCP") == 0);
  if (c == NULL) {
    out("error unknown conversation %s\n", words[1]);
    return;
  }
  snprintf(c->last_call, sizeof c->last_call, "%s", call);

  if (strcmp(call, "CMINIT") == 0) {
    unsigned char sym[8];
    pad8(sym, count > 2 ? words[2] : "");
    cminit(c->id, sym, &rc);
    out("CMINIT %s\n", name_of(return_codes, rc));
    return;
  }
  if (strcmp(call, "CMINIC") == 0) {
    cminic(c->id, &rc);
    out("CMINIC %s\n", name_of(return_codes, rc));
    return;
  }
  if (strcmp(call, "CMACCP") == 0) {
    cmaccp(c->id, &rc);
    out("CMACCP %s\n", name_of(return_codes, rc));
    return;
  }
  for (i = 0; text_setters[i].name != NULL; ++i) {
    if (strcmp(call, text_setters[i].name) == 0) {
      unsigned char text[600];
      CM_INT32 length = count > 2 ? data_of(words[2], text) : 0;
      text_setters[i].fn(c->id, text, &length, &rc);
      /* The program's own copy of a password goes at once; the password
       * tests look for any other copy in this process. */
      explicit_bzero(text, sizeof text);
      out("%s %s\n", call, name_of(return_codes, rc));
      return;
    }
  }
  for (i = 0; int_setters[i].name != NULL; ++i) {
    if (strcmp(call, int_setters[i].name) == 0) {
      int v = 0;
      CM_INT32 value;
      if (count < 3 || !value_of(words[2], &v)) {
        out("error %s needs a value\n", call);
        return;
      }
      value = v;
      int_setters[i].fn(c->id, &value, &rc);
      out("%s %s\n", call, name_of(return_codes, rc));
      return;
    }
  }
  for (i = 0; text_extracts[i].name != NULL; ++i) {
    if (strcmp(call, text_extracts[i].name) == 0) {
      unsigned char text[80];
      CM_INT32 length = 0;
      memset(text, 0, sizeof text);
      text_extracts[i].fn(c->id, text, &length, &rc);
      add("%s %s", call, name_of(return_codes, rc));
      if (rc == CM_OK) text_field("value", text, length > 0 && length <= 64 ? length : 0);
      out("\n");
      return;
    }
  }
  for (i = 0; int_extracts[i].name != NULL; ++i) {
    if (strcmp(call, int_extracts[i].name) == 0) {
      CM_INT32 value = -1;
      int_extracts[i].fn(c->id, &value, &rc);
      out("%s %s value=%d\n", call, name_of(return_codes, rc), (int)value);
      return;
    }
  }
  if (strcmp(call, "CMECS") == 0) {
    CM_INT32 state = -1;
    cmecs(c->id, &state, &rc);
    out("CMECS %s state=%s\n", name_of(return_codes, rc), name_of(states, state));
    return;
  }
  if (strcmp(call, "CMACCI") == 0) {
    cmacci(c->id, &rc);
  } else if (strcmp(call, "CMALLC") == 0) {
    cmallc(c->id, &rc);
  } else if (strcmp(call, "CMSEND") == 0) {
    c->send_length = data_of(count > 2 ? words[2] : "-", c->send_buffer);
    if (c->send_length < 0) {
      out("error bad data\n");
      return;
    }
    c->rts = -1;
    cmsend(c->id, c->send_buffer, &c->send_length, &c->rts, &rc);
    out("CMSEND %s rts=%s\n", name_of(return_codes, rc), name_of(rts_names, c->rts));
    return;
  } else if (strcmp(call, "CMRCV") == 0) {
    c->requested = count > 2 ? (CM_INT32)strtol(words[2], NULL, 0) : 100;
    c->data_received = -1;
    c->received_length = -1;
    c->status_received = -1;
    c->rts = -1;
    cmrcv(c->id, c->receive_buffer, &c->requested, &c->data_received, &c->received_length,
          &c->status_received, &c->rts, &rc);
    add("CMRCV %s", name_of(return_codes, rc));
    if (rc != CM_OPERATION_INCOMPLETE) print_receive(c);
    out("\n");
    return;
  } else if (strcmp(call, "CMCFM") == 0 || strcmp(call, "CMSERR") == 0 ||
             strcmp(call, "CMTRTS") == 0) {
    c->rts = -1;
    if (call[2] == 'C') {
      cmcfm(c->id, &c->rts, &rc);
    } else if (call[2] == 'S') {
      cmserr(c->id, &c->rts, &rc);
    } else {
      cmtrts(c->id, &c->rts, &rc);
    }
    out("%s %s rts=%s\n", call, name_of(return_codes, rc), name_of(rts_names, c->rts));
    return;
  } else if (strcmp(call, "CMCFMD") == 0) {
    cmcfmd(c->id, &rc);
  } else if (strcmp(call, "CMFLUS") == 0) {
    cmflus(c->id, &rc);
  } else if (strcmp(call, "CMPTR") == 0) {
    cmptr(c->id, &rc);
  } else if (strcmp(call, "CMRTS") == 0) {
    cmrts(c->id, &rc);
  } else if (strcmp(call, "CMDEAL") == 0) {
    cmdeal(c->id, &rc);
  } else if (strcmp(call, "CMCANC") == 0) {
    cmcanc(c->id, &rc);
  } else {
    out("error unknown call %s\n", call);
    return;
  }
  out("%s %s\n", call, name_of(return_codes, rc));
}

int main(void) {
  static char line[MAX_LINE];
  uint32_t path_user = 0;
  setvbuf(stdout, NULL, _IOFBF, 1 << 16);
  /* The event comes on the runtime's thread under the process-wide lock,
   * with the library's own; a call made after it waits for that lock, so
   * the library has dropped its state by then. */
  vpm_init_path_user(NULL, NULL, path_event, NULL, &path_user);
  out("ready pid=%d\n", (int)getpid());
  while (fgets(line, sizeof line, stdin) != NULL) run(line);
  return 0;
}
