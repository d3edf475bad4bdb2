/* initialize_conversations: the first steps of every CPI-C program.
 *
 * Makes an outgoing conversation with Initialize_Conversation (CMINIT) and
 * an incoming one with Initialize_For_Incoming (CMINIC), prints their
 * conversation IDs and characteristics, and asks the library its largest
 * buffer (CMEMBS). None of these calls talks to the partner, so this runs
 * on a machine with no node configured. */
#include <stdio.h>
#include <string.h>

#include "cpic.h"

static void print_id(const char *what, const unsigned char *id) {
  int i;
  printf("%-28s conversation ID ", what);
  for (i = 0; i < 8; i++) printf("%02X", id[i]);
  printf("\n");
}

/* One characteristic, or why the library would not give it. */
static void show(const char *what, CM_INT32 rc, CM_INT32 value, const char *name) {
  if (rc == CM_OK) {
    printf("    %-19s %d %s\n", what, (int)value, name);
  } else {
    printf("    %-19s not in this state (return code %d)\n", what, (int)rc);
  }
}

/* The characteristics a new conversation starts with. */
static void print_characteristics(unsigned char *id) {
  CM_INT32 rc, value = 0;
  CMECS(id, &value, &rc);
  show("conversation state", rc, value,
       value == CM_INITIALIZE_STATE            ? "(CM_INITIALIZE_STATE)"
       : value == CM_INITIALIZE_INCOMING_STATE ? "(CM_INITIALIZE_INCOMING_STATE)"
                                               : "");
  CMECT(id, &value, &rc);
  show("conversation type", rc, value, value == CM_MAPPED_CONVERSATION ? "(CM_MAPPED_CONVERSATION)" : "");
  CMESL(id, &value, &rc);
  show("sync level", rc, value, value == CM_NONE ? "(CM_NONE)" : "");
}

int main(void) {
  CONVERSATION_ID outgoing, incoming, unknown;
  unsigned char no_destination[8];
  unsigned char text[] = "Hello, partner";
  CM_INT32 rc, size, length = (CM_INT32)strlen((char *)text);

  /* Eight blanks: no side information; the program sets the partner's
   * names itself before allocating. */
  memset(no_destination, ' ', sizeof no_destination);
  CMINIT(outgoing, no_destination, &rc);
  if (rc != CM_OK) {
    printf("CMINIT failed: return code %d\n", (int)rc);
    return 1;
  }
  print_id("CMINIT (no destination):", outgoing);
  print_characteristics(outgoing);

  CMINIC(incoming, &rc);
  if (rc != CM_OK) {
    printf("CMINIC failed: return code %d\n", (int)rc);
    return 1;
  }
  print_id("CMINIC:", incoming);
  print_characteristics(incoming);

  /* A symbolic destination name the node does not know is refused with a
   * parameter check, and no conversation is made. */
  CMINIT(unknown, (unsigned char *)"NOSUCH  ", &rc);
  printf("%-28s return code %d (CM_PROGRAM_PARAMETER_CHECK is %d)\n", "CMINIT \"NOSUCH\":", (int)rc,
         CM_PROGRAM_PARAMETER_CHECK);

  CMEMBS(&size, &rc);
  printf("%-28s %d bytes\n", "CMEMBS maximum buffer:", (int)size);

  /* Data for an EBCDIC partner is converted by the program itself. */
  CMCNVO(text, &length, &rc);
  printf("%-28s %02X %02X %02X ... (rc %d)\n", "CMCNVO \"Hello...\":", text[0], text[1], text[2], (int)rc);
  return 0;
}
