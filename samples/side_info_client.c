/* side_info_client: side information defined by the program itself.
 *
 * A symbolic destination name stands for a partner LU, a mode and a TP
 * name, so that a program can say CMINIT(conv, "ECHODEST") instead of
 * setting each of them. Usually the node's configuration defines these
 * names ([[side_info]]); this program defines one for itself at run time:
 *   XCMSSI  defines ECHODEST (for this process only),
 *   XCMESI  reads the definition back,
 *   CMINIT  starts a conversation from the name; the conversation takes
 *           its partner LU, mode and TP name from the definition,
 *   XCMDSI  deletes the name again; a later CMINIT with it is refused.
 * The conversation sends one message to echo_server and prints the answer.
 *
 *   side_info_client [TPNAME [PARTNER_LU]]   defaults ECHOSRV, LOCAL
 * The partner LU is an LU alias known to the node, or a network-qualified
 * name such as NETWORK.LOCAL. LOCAL is the alias of the one LU of a node
 * that has no configuration file; the conversation goes from it to itself. */
#include <stdio.h>
#include <string.h>

#include "cpic.h"
#include "cpic_names.h"

static int failed(const char *call, CM_INT32 rc) {
  printf("client: %s failed: %s\n", call, return_code_name(rc));
  return 1;
}

/* Side information fields are blank-padded, not zero-terminated. */
static void set_field(unsigned char *field, size_t size, const char *text) {
  size_t length = strlen(text);
  if (length > size) length = size;
  memset(field, ' ', size);
  memcpy(field, text, length);
}

/* Prints a blank-padded field without its padding. */
static void print_field(const char *what, const unsigned char *field, int size) {
  while (size > 0 && field[size - 1] == ' ') size--;
  printf("client:   %-14s %.*s\n", what, size, (const char *)field);
}

int main(int argc, char **argv) {
  unsigned char sym_dest_name[8];
  XC_SIDE_INFO_ENTRY entry, read_back;
  CM_INT32 key = 0; /* not used by this node; CPI-C reserves it */
  CM_INT32 entry_length = sizeof entry;
  CONVERSATION_ID conv, refused;
  unsigned char text[65];
  unsigned char message[] = "through a symbolic destination";
  unsigned char buffer[512];
  CM_INT32 rc, length, requested, received = 0;
  CM_INT32 data_received, status_received, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;

  setvbuf(stdout, NULL, _IOLBF, 0);
  set_field(sym_dest_name, sizeof sym_dest_name, "ECHODEST");

  /* 1. Define ECHODEST. Every text field is ASCII, padded with blanks. */
  memset(&entry, 0, sizeof entry);
  memcpy(entry.sym_dest_name, sym_dest_name, sizeof entry.sym_dest_name);
  set_field(entry.partner_LU_name, sizeof entry.partner_LU_name, argc > 2 ? argv[2] : "LOCAL");
  entry.TP_name_type = XC_APPLICATION_TP;
  set_field(entry.TP_name, sizeof entry.TP_name, argc > 1 ? argv[1] : "ECHOSRV");
  set_field(entry.mode_name, sizeof entry.mode_name, "#INTER");
  entry.conversation_security_type = XC_SECURITY_NONE;
  set_field(entry.security_user_ID, sizeof entry.security_user_ID, "");
  set_field(entry.security_password, sizeof entry.security_password, "");
  XCMSSI(&key, &entry, &entry_length, &rc);
  if (rc != CM_OK) return failed("XCMSSI", rc);
  printf("client: XCMSSI defined ECHODEST\n");

  /* 2. Read it back. A password would never be returned. */
  memset(&read_back, 0, sizeof read_back);
  XCMESI(&key, sym_dest_name, &read_back, &entry_length, &rc);
  if (rc != CM_OK) return failed("XCMESI", rc);
  printf("client: XCMESI read ECHODEST back:\n");
  print_field("partner LU", read_back.partner_LU_name, sizeof read_back.partner_LU_name);
  print_field("mode", read_back.mode_name, sizeof read_back.mode_name);
  print_field("TP name", read_back.TP_name, sizeof read_back.TP_name);

  /* 3. A conversation from the name: no CMSPLN, CMSMN or CMSTPN needed.
   * Extract_TP_Name shows what the conversation took from the entry. */
  CMINIT(conv, sym_dest_name, &rc);
  if (rc != CM_OK) return failed("CMINIT", rc);
  length = 0;
  CMETPN(conv, text, &length, &rc);
  if (rc != CM_OK) return failed("CMETPN", rc);
  printf("client: CMINIT with ECHODEST, the conversation's TP name is %.*s\n", (int)length, (char *)text);
  CMALLC(conv, &rc);
  if (rc != CM_OK) return failed("CMALLC", rc);
  CMSST(conv, &send_type, &rc);
  if (rc != CM_OK) return failed("CMSST", rc);
  length = (CM_INT32)strlen((char *)message);
  CMSEND(conv, message, &length, &rts, &rc);
  if (rc != CM_OK) return failed("CMSEND", rc);
  printf("client: sent \"%s\"\n", (char *)message);
  requested = sizeof buffer - 1;
  CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
  if (rc != CM_OK) return failed("CMRCV", rc);
  buffer[received] = 0;
  printf("client: received \"%s\", %s\n", (char *)buffer, status_received_name(status_received));
  CMDEAL(conv, &rc);
  if (rc != CM_OK) return failed("CMDEAL", rc);
  printf("client: conversation ended\n");

  /* 4. Delete the name. It was this process's own, so it is gone for
   * this process; the node's own side information is never changed. */
  XCMDSI(&key, sym_dest_name, &rc);
  if (rc != CM_OK) return failed("XCMDSI", rc);
  printf("client: XCMDSI deleted ECHODEST\n");
  CMINIT(refused, sym_dest_name, &rc);
  printf("client: CMINIT with ECHODEST now returns %s\n", return_code_name(rc));
  if (rc != CM_PROGRAM_PARAMETER_CHECK) return 1;
  return 0;
}
