// Conversation security: the type, user ID and password Allocate will send,
// and the extracts of type and user ID. Each call exists under its CPI-C
// name and an XC name; both share one routine and differ only in the trace
// index. They complete locally and, unlike most calls, do not initialise
// the library: an unknown conversation simply fails the lookup.
#include <cstring>

#include "cpic.h"
#include "internal.h"
#include "local_call_frame.h"

using namespace cpic;

namespace {

// Problem-record details of an unknown conversation, per routine.
enum : uint32_t {
  TAG_EXTRACT_USER_ID = 35,
  TAG_SET_PASSWORD = 36,
  TAG_SET_TYPE = 37,
  TAG_SET_USER_ID = 38,
  TAG_EXTRACT_TYPE = 39,
};

// The Set calls: only before allocation, on a conversation from
// Initialize_Conversation.
bool may_set(const CCCB *c) { return c->ulApplConvId == 0 && c->fInitialized != 0; }

void genscst(const uint8_t *conversation_id, const CM_INT32 *security_type, CM_INT32 *return_code) {
  CCCB *c = SCC_find_or_report(conversation_id, return_code, TAG_SET_TYPE);
  if (c == nullptr) return;
  const uint32_t type = static_cast<uint32_t>(*security_type);
  if (!may_set(c)) {
    *return_code = CM_PROGRAM_STATE_CHECK;
  } else if (type == CM_SECURITY_PROGRAM_STRONG || type < CM_SECURITY_DISTRIBUTED) {
    c->si.ulSecurityType = type;
  } else {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  }
}

// Converts a user ID or password into its 10-byte field, blank-padded.
void store_secret_field(uint8_t *field, const uint8_t *text, CM_INT32 length) {
  SCC_convert_string(0, 0, static_cast<int16_t>(length), field, text);
  std::memset(field + length, 0x40, static_cast<size_t>(10 - length));
}

void genscsu(const uint8_t *conversation_id, const uint8_t *user_id, const CM_INT32 *length,
             CM_INT32 *return_code, CM_INT32 minimum, CM_INT32 maximum) {
  CCCB *c = SCC_find_or_report(conversation_id, return_code, TAG_SET_USER_ID);
  if (c == nullptr) return;
  const uint32_t type = c->si.ulSecurityType;
  if (!may_set(c)) {
    *return_code = CM_PROGRAM_STATE_CHECK;
  } else if (type != CM_SECURITY_SAME && type != CM_SECURITY_PROGRAM &&
             type != CM_SECURITY_PROGRAM_STRONG) {
    *return_code = CM_PROGRAM_STATE_CHECK;
  } else if (*length < minimum || *length > maximum) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    store_secret_field(c->si.abUserId, user_id, *length);
    c->si.usUserIdLen = static_cast<uint16_t>(*length);
  }
}

void genscsp(const uint8_t *conversation_id, const uint8_t *password, const CM_INT32 *length,
             CM_INT32 *return_code, CM_INT32 minimum, CM_INT32 maximum) {
  CCCB *c = SCC_find_or_report(conversation_id, return_code, TAG_SET_PASSWORD);
  if (c == nullptr) return;
  const uint32_t type = c->si.ulSecurityType;
  if (!may_set(c)) {
    *return_code = CM_PROGRAM_STATE_CHECK;
  } else if (type != CM_SECURITY_PROGRAM && type != CM_SECURITY_PROGRAM_STRONG) {
    *return_code = CM_PROGRAM_STATE_CHECK;
  } else if (*length < minimum || *length > maximum) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    // No length is kept: the padding alone ends the password.
    store_secret_field(c->si.abPassword, password, *length);
  }
}

void genecst(const uint8_t *conversation_id, CM_INT32 *security_type, CM_INT32 *return_code) {
  CCCB *c = SCC_find_or_report(conversation_id, return_code, TAG_EXTRACT_TYPE);
  if (c != nullptr) *security_type = static_cast<CM_INT32>(c->si.ulSecurityType);
}

// limit: 8 for Extract_Conversation_Security_User_ID, 10 for
// Extract_Security_User_ID; the stored length is reported either way.
void genecsu(const uint8_t *conversation_id, uint8_t *user_id, CM_INT32 *length,
             CM_INT32 *return_code, uint16_t limit) {
  CCCB *c = SCC_find_or_report(conversation_id, return_code, TAG_EXTRACT_USER_ID);
  if (c == nullptr) return;
  if (c->ulApplConvId == 0 && c->fInitialized == 0) {
    *return_code = CM_PROGRAM_STATE_CHECK;
    return;
  }
  const uint16_t stored = c->si.usUserIdLen;
  *length = stored;
  SCC_convert_string(1, 0, static_cast<int16_t>(stored < limit ? stored : limit), user_id,
                     c->si.abUserId);
}

// The frame of these calls: no first-use initialisation.
template <typename Work>
void security_call(uint32_t verb, const uint8_t *conversation_id, bool is_set,
                   const void *request_a5, const void *request_a6, CM_INT32 *return_code,
                   const void *response_a5, const void *response_a6, Work work) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) {
    const CCCB *shown = is_set ? SCC_lookup_quietly(conversation_id) : nullptr;
    seputrcp(1, verb, shown, conversation_id, request_a5, request_a6, nullptr, nullptr, nullptr);
  }
  work();
  if (api_trace_on()) {
    seputrcp(2, verb, SCC_lookup_quietly(conversation_id), return_code, response_a5, response_a6,
             nullptr, nullptr, nullptr);
  }
  vpm_unlock(token);
}

void set_type(uint32_t verb, unsigned char *id, CM_INT32 *type, CM_INT32 *rc) {
  security_call(verb, id, true, type, nullptr, rc, nullptr, nullptr,
                [&] { genscst(id, type, rc); });
}
void set_user_id(uint32_t verb, unsigned char *id, unsigned char *user_id, CM_INT32 *length,
                 CM_INT32 *rc) {
  security_call(verb, id, true, user_id, length, rc, nullptr, nullptr,
                [&] { genscsu(id, user_id, length, rc, 1, 10); });
}
void set_password(uint32_t verb, unsigned char *id, unsigned char *password, CM_INT32 *length,
                  CM_INT32 *rc) {
  // The password is never shown in the trace.
  security_call(verb, id, true, nullptr, nullptr, rc, nullptr, nullptr,
                [&] { genscsp(id, password, length, rc, 1, 10); });
}
void extract_type(uint32_t verb, unsigned char *id, CM_INT32 *type, CM_INT32 *rc) {
  security_call(verb, id, false, nullptr, nullptr, rc, type, nullptr,
                [&] { genecst(id, type, rc); });
}
void extract_user_id(uint32_t verb, unsigned char *id, unsigned char *user_id, CM_INT32 *length,
                     CM_INT32 *rc, uint16_t limit) {
  security_call(verb, id, false, nullptr, nullptr, rc, user_id, length,
                [&] { genecsu(id, user_id, length, rc, limit); });
}

}  // namespace

extern "C" {

SNA_EXPORT void cmscst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                       CM_INT32 *return_code) {
  set_type(46, conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void xcscst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                       CM_INT32 *return_code) {
  set_type(36, conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void cmscsu(unsigned char *conversation_ID, unsigned char *user_ID,
                       CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  set_user_id(47, conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void xcscsu(unsigned char *conversation_ID, unsigned char *user_ID,
                       CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  set_user_id(37, conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void cmscsp(unsigned char *conversation_ID, unsigned char *password,
                       CM_INT32 *password_length, CM_INT32 *return_code) {
  set_password(48, conversation_ID, password, password_length, return_code);
}
SNA_EXPORT void xcscsp(unsigned char *conversation_ID, unsigned char *password,
                       CM_INT32 *password_length, CM_INT32 *return_code) {
  set_password(35, conversation_ID, password, password_length, return_code);
}
SNA_EXPORT void cmecst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                       CM_INT32 *return_code) {
  extract_type(59, conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void xcecst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                       CM_INT32 *return_code) {
  extract_type(32, conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void cmecsu(unsigned char *conversation_ID, unsigned char *user_ID,
                       CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  extract_user_id(58, conversation_ID, user_ID, user_ID_length, return_code, 8);
}
SNA_EXPORT void xcecsu(unsigned char *conversation_ID, unsigned char *user_ID,
                       CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  extract_user_id(33, conversation_ID, user_ID, user_ID_length, return_code, 8);
}
SNA_EXPORT void cmesui(unsigned char *conversation_ID, unsigned char *user_ID,
                       CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  extract_user_id(49, conversation_ID, user_ID, user_ID_length, return_code, 10);
}

}  // extern "C"
