/* secure_client: conversation security with a user ID and a password.
 *
 * A TP can be defined in the node's configuration with
 * security_required = true: the node then lets a conversation reach it
 * only with a user ID the node has verified. With security type
 * CM_SECURITY_PROGRAM the program itself supplies the user ID (CMSCSU)
 * and password (CMSCSP); the node checks the pair against its
 * [[security_user]] entries. This program tries three times:
 *   1. no security at all (CM_SECURITY_NONE),
 *   2. the right user ID with a wrong password,
 *   3. the right user ID and password.
 * The first two are refused with CM_SECURITY_NOT_VALID, the third reaches
 * echo_server. Notice when the refusal arrives: not from Allocate, which
 * only reserves a session, but from the first call that waits for the
 * partner (here the Receive after the message is sent).
 *
 *   secure_client USER_ID PASSWORD [TPNAME]     default TP name SECURESRV */
#include <stdio.h>
#include <string.h>

#include "cpic.h"
#include "cpic_names.h"

/* Says which call failed and how, and hands its return code on. Nothing
 * is left to clean up: before Allocate the conversation holds nothing at
 * the node, and a refused allocation has ended it already. */
static CM_INT32 failed(const char *call, CM_INT32 rc) {
  printf("client:   %s returned %s\n", call, return_code_name(rc));
  return rc;
}

/* One attempt: allocate with the given security, send a message, receive
 * the answer, deallocate. Returns the first return code that was not
 * CM_OK, or CM_OK. */
static CM_INT32 attempt(const char *what, unsigned char *tp_name, CM_INT32 security_type,
                        const char *user_id, const char *password) {
  unsigned char blank_destination[8];
  unsigned char mode[] = "#INTER";
  unsigned char message[] = "a message for a secured TP";
  unsigned char buffer[512];
  CONVERSATION_ID conv;
  CM_INT32 rc, length, mode_length = 6, requested, received = 0;
  CM_INT32 data_received, status_received, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;

  printf("client: attempt with %s\n", what);
  memset(blank_destination, ' ', sizeof blank_destination);
  CMINIT(conv, blank_destination, &rc);
  if (rc != CM_OK) return failed("CMINIT", rc);
  length = (CM_INT32)strlen((char *)tp_name);
  CMSTPN(conv, tp_name, &length, &rc);
  if (rc != CM_OK) return failed("CMSTPN", rc);
  CMSMN(conv, mode, &mode_length, &rc);
  if (rc != CM_OK) return failed("CMSMN", rc);

  /* The security type first: a user ID may only be set for types SAME,
   * PROGRAM and PROGRAM_STRONG, a password only for the last two. */
  CMSCST(conv, &security_type, &rc);
  if (rc != CM_OK) return failed("CMSCST", rc);
  if (security_type == CM_SECURITY_PROGRAM) {
    length = (CM_INT32)strlen(user_id);
    CMSCSU(conv, (unsigned char *)user_id, &length, &rc);
    if (rc != CM_OK) return failed("CMSCSU", rc);
    length = (CM_INT32)strlen(password);
    CMSCSP(conv, (unsigned char *)password, &length, &rc);
    if (rc != CM_OK) return failed("CMSCSP", rc);
  }

  CMALLC(conv, &rc);
  if (rc != CM_OK) return failed("CMALLC", rc);
  CMSST(conv, &send_type, &rc);
  if (rc != CM_OK) return failed("CMSST", rc);
  length = (CM_INT32)strlen((char *)message);
  CMSEND(conv, message, &length, &rts, &rc);
  if (rc != CM_OK) return failed("CMSEND", rc);
  requested = sizeof buffer - 1;
  CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
  if (rc != CM_OK) return failed("CMRCV", rc);
  buffer[received] = 0;
  printf("client:   received \"%s\"\n", (char *)buffer);
  CMDEAL(conv, &rc);
  if (rc != CM_OK) return failed("CMDEAL", rc);
  printf("client:   accepted, conversation ended normally\n");
  return CM_OK;
}

int main(int argc, char **argv) {
  unsigned char tp_name[65];
  const char *user_id, *password;
  /* Any password but the right one will do for the second attempt. */
  const char *wrong_password = "notit";
  CM_INT32 rc;

  setvbuf(stdout, NULL, _IOLBF, 0);
  if (argc < 3) {
    printf("usage: secure_client USER_ID PASSWORD [TPNAME]\n");
    return 2;
  }
  user_id = argv[1];
  password = argv[2];
  if (strcmp(password, wrong_password) == 0) wrong_password = "notit2";
  strncpy((char *)tp_name, argc > 3 ? argv[3] : "SECURESRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;

  rc = attempt("no conversation security", tp_name, CM_SECURITY_NONE, NULL, NULL);
  printf("client: without security: %s\n", return_code_name(rc));
  rc = attempt("a wrong password", tp_name, CM_SECURITY_PROGRAM, user_id, wrong_password);
  printf("client: wrong password: %s\n", return_code_name(rc));
  rc = attempt("the right password", tp_name, CM_SECURITY_PROGRAM, user_id, password);
  printf("client: right password: %s\n", return_code_name(rc));
  return rc == CM_OK ? 0 : 1;
}
