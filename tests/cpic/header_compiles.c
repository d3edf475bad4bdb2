/* cpic.h is usable from plain C: this program calls through it. */
#include <stdio.h>
#include <string.h>

#include "cpic.h"

int main(void) {
  CONVERSATION_ID id;
  CM_INT32 rc = -1;
  CM_INT32 size = 0;
  unsigned char dest[8];
  memset(dest, ' ', sizeof dest);
  CMINIT(id, dest, &rc);
  if (rc != CM_OK) {
    fprintf(stderr, "CMINIT returned %d\n", (int)rc);
    return 1;
  }
  CMEMBS(&size, &rc);
  if (rc != CM_OK || size != CM_MAXIMUM_BUFFER_SIZE) {
    fprintf(stderr, "CMEMBS returned %d, size %d\n", (int)rc, (int)size);
    return 1;
  }
  return 0;
}
