/* initialize_conversations: the first steps of every CPI-C program.
 *
 * Makes an outgoing conversation with Initialize_Conversation (CMINIT) and
 * an incoming one with Initialize_For_Incoming (CMINIC), prints their
 * conversation IDs, and asks the library its largest buffer (CMEMBS). None
 * of these calls talks to the partner, so this runs on a machine with no
 * node configured. */
#include <stdio.h>
#include <string.h>

#include "cpic.h"

static void print_id(const char *what, const unsigned char *id) {
  int i;
  printf("%-28s conversation ID ", what);
  for (i = 0; i < 8; i++) printf("%02X", id[i]);
  printf("\n");
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

  CMINIC(incoming, &rc);
  if (rc != CM_OK) {
    printf("CMINIC failed: return code %d\n", (int)rc);
    return 1;
  }
  print_id("CMINIC:", incoming);

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
