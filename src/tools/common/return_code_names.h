/* Names of CPI-C return codes, for messages such as
 * "CMALLC failed: CM_TPN_NOT_RECOGNIZED". */
#ifndef SNA_TOOLS_RETURN_CODE_NAMES_H
#define SNA_TOOLS_RETURN_CODE_NAMES_H

#include "cpic.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The name of a return code ("CM_OK", ...), or NULL for a value that has
 * none. */
const char *cpic_return_code_name(CM_INT32 return_code);

/* The name, or "return code N" for a value without one. The text lives in
 * a buffer of the caller's. */
const char *cpic_return_code_text(CM_INT32 return_code, char *buffer, unsigned size);

#ifdef __cplusplus
}
#endif

#endif
