// The trace records the Set calls write with API tracing on: each call's
// request record shows the conversation, the new value from the caller's
// argument and the conversation's current value; its response record the
// return code and the value after the call. Checked line by line against
// what the workers were given, so a worker that passes its arguments in
// the wrong places, or the wrong conversation, is caught.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

using Lines = std::vector<std::string>;

std::string line(const std::string &text) { return "CPIC " + text; }
std::string hex(const void *p, size_t n) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(b, sizeof b, "%02X", static_cast<const uint8_t *>(p)[i]);
    s += b;
  }
  return s;
}
std::string dump(const void *p, size_t n) { return "CPIC dump " + hex(p, n); }
std::string dump(const std::string &bytes_) { return dump(bytes_.data(), bytes_.size()); }
std::string pointer(const void *p) {
  char b[32];
  std::snprintf(b, sizeof b, "%p", p);
  return b;
}
std::string conversation_line(const unsigned char *id) {
  char b[48];
  std::snprintf(b, sizeof b, " Conversation ID = %02X%02X%02X%02X", id[0], id[1], id[2], id[3]);
  return line(b);
}
const char *kChars = "CPIC Conversation characteristics";

// What a row sees when it builds its expected lines.
struct Seen {
  const unsigned char *id;
  const CCCB *before;  // a copy of the conversation before the call
  const CCCB *after;   // the conversation after the call
};

struct TraceCase {
  const char *name;
  const char *verb;
  std::function<void(CCCB *)> prepare;  // white-box starting state
  std::function<CM_INT32(unsigned char *id)> call;
  CM_INT32 rc;
  std::function<Lines(const Seen &)> request;   // after the header line
  std::function<Lines(const Seen &)> response;  // after the header line
};

// Values and names the calls pass; the trace must show these very bytes.
unsigned char kLog[] = "HELLO";
unsigned char kMode[] = "#INTER";
unsigned char kPlu[] = "NETA.LUB";
unsigned char kTp[] = "PAYROLL";
unsigned char kUser[] = "USER1";
unsigned char kPass[] = "SECRET";
unsigned char kLu[] = "LU1";

// A call with one 32-bit value.
template <void (*F)(unsigned char *, CM_INT32 *, CM_INT32 *)>
std::function<CM_INT32(unsigned char *)> value_call(CM_INT32 value) {
  return [value](unsigned char *id) {
    CM_INT32 v = value, rc = -1;
    F(id, &v, &rc);
    return rc;
  };
}
// A call with a name and its length.
template <void (*F)(unsigned char *, unsigned char *, CM_INT32 *, CM_INT32 *)>
std::function<CM_INT32(unsigned char *)> name_call(unsigned char *name) {
  return [name](unsigned char *id) {
    CM_INT32 len = static_cast<CM_INT32>(std::strlen(reinterpret_cast<char *>(name))), rc = -1;
    F(id, name, &len, &rc);
    return rc;
  };
}

// Request: the conversation ID, the new value's line, the characteristics
// line and the current value's line. Response: the characteristics line
// and the value after the call.
TraceCase value_row(const char *name, const char *verb,
                    std::function<CM_INT32(unsigned char *)> call, const char *label,
                    const char *new_value, const char *old_value,
                    std::function<void(CCCB *)> prepare = nullptr, CM_INT32 rc = CM_OK) {
  const std::string l = label;
  const std::string after = rc == CM_OK ? new_value : old_value;
  return {name, verb, prepare, call, rc,
          [l, new_value, old_value](const Seen &s) {
            return Lines{conversation_line(s.id), line(l + new_value), kChars, line(l + old_value)};
          },
          [l, after](const Seen &) { return Lines{kChars, line(l + after)}; }};
}

// The name calls: the new name dumped with its length, then the
// conversation's field as it was; the field after the call in the response.
TraceCase name_row(const char *name, const char *verb, std::function<CM_INT32(unsigned char *)> call,
                   const char *label, const char *length_label, const unsigned char *value,
                   std::function<std::string(const CCCB *)> field,
                   std::function<void(CCCB *)> prepare = nullptr) {
  const std::string lab = label, len = length_label;
  const std::string v(reinterpret_cast<const char *>(value));
  return {name, verb, prepare, call, CM_OK,
          [lab, len, v, field](const Seen &s) {
            return Lines{conversation_line(s.id), line(lab), dump(v),
                         line(len + std::to_string(v.size())), kChars, line(lab),
                         dump(field(s.before))};
          },
          [lab, field](const Seen &s) { return Lines{kChars, line(lab), dump(field(s.after))}; }};
}

void basic(CCCB *c) { c->ulConversationType = CM_BASIC_CONVERSATION; }
void allocated(CCCB *c) {
  c->ulApplConvId = 0x0E;
  std::memset(c->abTpId, 0, 8);
}
// Sets one field before the call.
template <typename T>
std::function<void(CCCB *)> with(T CCCB::*field, T value, bool basic_conversation = false) {
  return [field, value, basic_conversation](CCCB *c) {
    if (basic_conversation) basic(c);
    c->*field = value;
  };
}
std::function<void(CCCB *)> with_security(uint32_t type) {
  return [type](CCCB *c) { c->si.ulSecurityType = type; };
}
// Stores the bytes of text at the start of a field filled with pad.
std::function<void(CCCB *)> with_bytes(size_t offset, size_t width, const std::string &text,
                                       uint8_t pad) {
  return [offset, width, text, pad](CCCB *c) {
    auto *f = reinterpret_cast<uint8_t *>(c) + offset;
    std::memset(f, pad, width);
    std::memcpy(f, text.data(), text.size());
  };
}

// Every characteristic is set twice: from its default to another value
// (the response shows a value the defaults do not hold), and from a
// value that is not the default (the request shows a current value the
// defaults do not hold). A record written without the conversation would
// show the defaults and fail one of the two.
std::vector<TraceCase> cases() {
  std::vector<TraceCase> t;
  auto u32 = [](uint32_t v) { return v; };
  t.push_back(value_row("ConversationType", "CMSCT", value_call<CMSCT>(CM_BASIC_CONVERSATION),
                        " Conversation type = ", "CM_BASIC_CONVERSATION",
                        "CM_MAPPED_CONVERSATION"));
  t.push_back(value_row("ConversationTypeBack", "CMSCT", value_call<CMSCT>(CM_MAPPED_CONVERSATION),
                        " Conversation type = ", "CM_MAPPED_CONVERSATION", "CM_BASIC_CONVERSATION",
                        basic));
  t.push_back(value_row("DeallocateType", "CMSDT", value_call<CMSDT>(CM_DEALLOCATE_ABEND),
                        " Deallocate type = ", "CM_DEALLOCATE_ABEND", "CM_DEALLOCATE_FLUSH",
                        with(&CCCB::ulDeallocateType, u32(CM_DEALLOCATE_FLUSH))));
  t.push_back(value_row("ErrorDirection", "CMSED", value_call<CMSED>(CM_SEND_ERROR),
                        " Error direction = ", "CM_SEND_ERROR", "CM_RECEIVE_ERROR"));
  t.push_back(value_row("ErrorDirectionBack", "CMSED", value_call<CMSED>(CM_RECEIVE_ERROR),
                        " Error direction = ", "CM_RECEIVE_ERROR", "CM_SEND_ERROR",
                        with(&CCCB::ulErrorDirection, u32(CM_SEND_ERROR))));
  t.push_back(value_row("Fill", "CMSF", value_call<CMSF>(CM_FILL_BUFFER), " Fill type = ",
                        "CM_FILL_BUFFER", "CM_FILL_LL", basic));
  t.push_back(value_row("FillBack", "CMSF", value_call<CMSF>(CM_FILL_LL), " Fill type = ",
                        "CM_FILL_LL", "CM_FILL_BUFFER",
                        with(&CCCB::ulFill, u32(CM_FILL_BUFFER), true)));
  t.push_back(value_row("PrepareToReceiveType", "CMSPTR",
                        value_call<CMSPTR>(CM_PREP_TO_RECEIVE_CONFIRM), " Prepare to receive type = ",
                        "CM_PREP_TO_RECEIVE_CONFIRM", "CM_PREP_TO_RECEIVE_FLUSH",
                        [](CCCB *c) {
                          c->ulSyncLevel = CM_CONFIRM;
                          c->ulPrepToReceiveType = CM_PREP_TO_RECEIVE_FLUSH;
                        }));
  t.push_back(value_row("ReceiveType", "CMSRT", value_call<CMSRT>(CM_RECEIVE_IMMEDIATE),
                        " Receive type = ", "CM_RECEIVE_IMMEDIATE", "CM_RECEIVE_AND_WAIT"));
  t.push_back(value_row("ReceiveTypeBack", "CMSRT", value_call<CMSRT>(CM_RECEIVE_AND_WAIT),
                        " Receive type = ", "CM_RECEIVE_AND_WAIT", "CM_RECEIVE_IMMEDIATE",
                        with(&CCCB::ulReceiveType, u32(CM_RECEIVE_IMMEDIATE))));
  t.push_back(value_row("ReturnControl", "CMSRC", value_call<CMSRC>(CM_IMMEDIATE),
                        " Return control = ", "CM_IMMEDIATE", "CM_WHEN_SESSION_ALLOCATED"));
  t.push_back(value_row("ReturnControlBack", "CMSRC", value_call<CMSRC>(CM_WHEN_SESSION_ALLOCATED),
                        " Return control = ", "CM_WHEN_SESSION_ALLOCATED", "CM_IMMEDIATE",
                        with(&CCCB::ulReturnControl, u32(CM_IMMEDIATE))));
  t.push_back(value_row("SendType", "CMSST", value_call<CMSST>(CM_SEND_AND_DEALLOCATE),
                        " Send type = ", "CM_SEND_AND_DEALLOCATE", "CM_SEND_AND_FLUSH",
                        with(&CCCB::ulSendType, u32(CM_SEND_AND_FLUSH))));
  t.push_back(value_row("SyncLevel", "CMSSL", value_call<CMSSL>(CM_CONFIRM), " Sync level = ",
                        "CM_CONFIRM", "CM_NONE"));
  t.push_back(value_row("SyncLevelBack", "CMSSL", value_call<CMSSL>(CM_NONE), " Sync level = ",
                        "CM_NONE", "CM_CONFIRM", with(&CCCB::ulSyncLevel, u32(CM_CONFIRM))));
  t.push_back(value_row("SecurityType", "CMSCST", value_call<CMSCST>(CM_SECURITY_PROGRAM_STRONG),
                        " Conversation security type = ", "XC_SECURITY_PROGRAM_STRONG",
                        "XC_SECURITY_PROGRAM", with_security(CM_SECURITY_PROGRAM)));
  t.push_back(value_row("SecurityTypeExtension", "XCSCST", value_call<XCSCST>(CM_SECURITY_PROGRAM),
                        " Conversation security type = ", "XC_SECURITY_PROGRAM",
                        "XC_SECURITY_NONE", with_security(CM_SECURITY_NONE)));
  t.push_back(value_row("ProcessingMode", "CMSPM", value_call<CMSPM>(CM_NON_BLOCKING),
                        " Processing mode = ", "CM_NON_BLOCKING", "CM_BLOCKING"));
  t.push_back(value_row("ProcessingModeBack", "CMSPM", value_call<CMSPM>(CM_BLOCKING),
                        " Processing mode = ", "CM_BLOCKING", "CM_NON_BLOCKING",
                        with(&CCCB::usProcessingMode, static_cast<uint16_t>(CM_NON_BLOCKING))));
  // Refused: the value asked for, the value kept.
  t.push_back(value_row("SyncLevelAfterAllocation", "CMSSL", value_call<CMSSL>(CM_CONFIRM),
                        " Sync level = ", "CM_CONFIRM", "CM_NONE", allocated,
                        CM_PROGRAM_STATE_CHECK));
  t.push_back(value_row("SendTypeOutOfRange", "CMSST", value_call<CMSST>(5), " Send type = ",
                        "***UNKNOWN SEND TYPE***", "CM_SEND_AND_PREP_TO_RECEIVE",
                        with(&CCCB::ulSendType, u32(CM_SEND_AND_PREP_TO_RECEIVE)),
                        CM_PROGRAM_PARAMETER_CHECK));
  t.push_back(value_row("SecurityTypeMutual", "CMSCST", value_call<CMSCST>(CM_SECURITY_MUTUAL),
                        " Conversation security type = ", "XC_SECURITY_MUTUAL", "XC_SECURITY_NONE",
                        with_security(CM_SECURITY_NONE), CM_PROGRAM_PARAMETER_CHECK));
  t.push_back(value_row("FillOnMapped", "CMSF", value_call<CMSF>(CM_FILL_BUFFER), " Fill type = ",
                        "CM_FILL_BUFFER", "CM_FILL_LL", nullptr, CM_PROGRAM_PARAMETER_CHECK));

  const size_t si = offsetof(CCCB, si);
  t.push_back(name_row("ModeName", "CMSMN", name_call<CMSMN>(kMode), " Mode name =",
                       " Mode name length = ", kMode,
                       [](const CCCB *c) { return bytes(c->si.abModeName, 8); },
                       with_bytes(si + offsetof(SIDE_INFO, abModeName), 8,
                                  ebcdic("#BATCH", 1, 6), 0x40)));
  t.push_back(name_row("PartnerLuName", "CMSPLN", name_call<CMSPLN>(kPlu), " Partner LU name =",
                       " Partner LU name length = ", kPlu,
                       [](const CCCB *c) { return bytes(c->si.abPartnerLuName, 17); },
                       with_bytes(si + offsetof(SIDE_INFO, abPartnerLuName), 17, "OLDALIAS", ' ')));
  t.push_back(name_row("TpName", "CMSTPN", name_call<CMSTPN>(kTp), " Partner TP name =",
                       " TP name length = ", kTp,
                       [](const CCCB *c) { return bytes(c->si.abTpName, 64); },
                       with_bytes(si + offsetof(SIDE_INFO, abTpName), 64, ebcdic("OLDTP", 2, 5),
                                  0x40)));
  t.push_back(name_row("SecurityUserId", "CMSCSU", name_call<CMSCSU>(kUser), " Security user ID =",
                       " Security user ID length = ", kUser,
                       [](const CCCB *c) { return bytes(c->si.abUserId, 10); },
                       with_bytes(si + offsetof(SIDE_INFO, abUserId), 10, ebcdic("OLDUSER", 0, 7),
                                  0x40)));
  t.push_back(name_row("SecurityUserIdExtension", "XCSCSU", name_call<XCSCSU>(kUser),
                       " Security user ID =", " Security user ID length = ", kUser,
                       [](const CCCB *c) { return bytes(c->si.abUserId, 10); },
                       with_bytes(si + offsetof(SIDE_INFO, abUserId), 10, ebcdic("OLDUSER", 0, 7),
                                  0x40)));

  // Set_Log_Data: the caller's buffer, then the record's pointer and length.
  t.push_back({"LogData", "CMSLD",
               [](CCCB *c) {
                 basic(c);
                 // Log data already set: the request shows that record.
                 c->pLogData = static_cast<uint8_t *>(nba_mm_alloc(11, 0x302, nba_blank_name, 0, 0));
                 std::memset(c->pLogData, 0, 11);
                 c->usLogDataLen = 11;
               },
               name_call<CMSLD>(kLog), CM_OK,
               [](const Seen &s) {
                 return Lines{conversation_line(s.id),
                              line("---- Buffer at address " + pointer(kLog) + " ----"),
                              dump(kLog, 5), line(" Log data length = 5"), kChars,
                              line(" Log data pointer = " + pointer(s.before->pLogData)),
                              line(" Log data length = 11")};
               },
               [](const Seen &s) {
                 return Lines{kChars, line(" Log data pointer = " + pointer(s.after->pLogData)),
                              line(" Log data length = 13")};
               }});
  // Set local LU name: no characteristics in the request.
  t.push_back({"LocalLuName", "CMSLLN", nullptr, name_call<CMSLLN>(kLu), CM_OK,
               [](const Seen &s) {
                 return Lines{conversation_line(s.id), line(" Local LU name ="), dump(kLu, 3),
                              line(" Local LU name length = 3")};
               },
               [](const Seen &s) {
                 return Lines{kChars, line(" Local LU name ="), dump(s.after->abLocalLuAlias, 8)};
               }});
  // The password is never shown, in either record.
  t.push_back({"SecurityPassword", "CMSCSP", with_security(CM_SECURITY_PROGRAM),
               name_call<CMSCSP>(kPass), CM_OK,
               [](const Seen &s) { return Lines{conversation_line(s.id)}; },
               [](const Seen &) { return Lines{}; }});
  t.push_back({"SecurityPasswordExtension", "XCSCSP", with_security(CM_SECURITY_PROGRAM_STRONG),
               name_call<XCSCSP>(kPass), CM_OK,
               [](const Seen &s) { return Lines{conversation_line(s.id)}; },
               [](const Seen &) { return Lines{}; }});
  return t;
}

class SetCallTrace : public ConversationTest, public ::testing::WithParamInterface<size_t> {
 protected:
  static const std::vector<TraceCase> &all() {
    static const std::vector<TraceCase> t = cases();
    return t;
  }
  void SetUp() override {
    ConversationTest::SetUp();
    testnode::set_trace_file(1);
  }
};

Lines record(const std::string &header, const Lines &fields) {
  Lines out{"CPIC ----", line(header)};
  out.insert(out.end(), fields.begin(), fields.end());
  return out;
}

TEST_P(SetCallTrace, RequestAndResponseRecords) {
  const TraceCase &tc = all().at(GetParam());
  if (tc.prepare) tc.prepare(c_);
  CCCB before;
  std::memcpy(&before, c_, sizeof before);
  testnode::reset();
  testnode::trace_control()[0] = 0x20;
  EXPECT_EQ(tc.call(id_), tc.rc);
  const Seen seen{id_, &before, c_};
  Lines expected = record(std::string(tc.verb) + " request", tc.request(seen));
  std::string result;
  switch (tc.rc) {
    case CM_OK: result = "CM_OK"; break;
    case CM_PROGRAM_PARAMETER_CHECK: result = "CM_PROGRAM_PARAMETER_CHECK"; break;
    case CM_PROGRAM_STATE_CHECK: result = "CM_PROGRAM_STATE_CHECK"; break;
    default: result = "?"; break;
  }
  const Lines response =
      record(std::string(tc.verb) + " response, result = " + result, tc.response(seen));
  expected.insert(expected.end(), response.begin(), response.end());
  EXPECT_EQ(testnode::trace_lines(), expected);
  // Nothing the caller gave as a password reaches the trace.
  const std::string secret_hex = hex(kPass, 6);
  for (const auto &l : testnode::trace_lines()) EXPECT_EQ(l.find(secret_hex), std::string::npos) << l;
}

INSTANTIATE_TEST_SUITE_P(EverySetCall, SetCallTrace,
                         ::testing::Range<size_t>(0, cases().size()),
                         [](const auto &info) { return std::string(cases()[info.param].name); });

// ---- Calls on an unknown conversation show the default characteristics ---

using SetCallTraceUnknown = ConversationTest;

TEST_F(SetCallTraceUnknown, BothRecordsShowTheDefaults) {
  testnode::set_trace_file(1);
  testnode::trace_control()[0] = 0x20;
  unsigned char unknown[8] = {0x71, 0x72, 0x73, 0x74, 0, 0, 0, 0};
  CM_INT32 type = CM_SEND_AND_FLUSH, rc = -1;
  CMSST(unknown, &type, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  const Lines expected = {"CPIC ----",
                          "CPIC CMSST request",
                          "CPIC  Conversation ID = 71727374",
                          line(" Send type = CM_SEND_AND_FLUSH"),
                          kChars,
                          line(" Send type = CM_BUFFER_DATA"),
                          "CPIC ----",
                          "CPIC CMSST response, result = CM_PROGRAM_PARAMETER_CHECK",
                          kChars,
                          line(" Send type = CM_BUFFER_DATA")};
  EXPECT_EQ(testnode::trace_lines(), expected);
}

// ---- Other Set calls: context and side information ------------------------

TEST_F(SetCallTraceUnknown, SetContextShowsTheContextGiven) {
  established(0x44, 0x4E);
  testnode::set_trace_file(1);
  testnode::trace_control()[0] = 0x20;
  unsigned char ctx[8];
  std::memset(ctx, 0x4E, 8);
  CM_INT32 len = 8, rc = -1;
  CMSCTX(ctx, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  const Lines expected = {"CPIC ----",
                          "CPIC CMSCTX request",
                          line(" Context ID ="),
                          dump(ctx, 8),
                          line(" Context ID length = 8"),
                          "CPIC ----",
                          "CPIC CMSCTX response, result = CM_OK"};
  EXPECT_EQ(testnode::trace_lines(), expected);
  std::memset(pGCB->abContextTpId, 0, 8);
}

TEST_F(SetCallTraceUnknown, SetSideInformationShowsTheEntryButNotThePassword) {
  testnode::set_trace_file(1);
  testnode::trace_control()[0] = 0x20;
  XC_SIDE_INFO_ENTRY e;
  std::memset(&e, ' ', sizeof e);
  std::memcpy(e.sym_dest_name, "TRACESI1", 8);
  std::memcpy(e.partner_LU_name, "NETA.LUB", 8);
  e.TP_name_type = XC_APPLICATION_TP;
  std::memcpy(e.TP_name, "PAYROLL", 7);
  std::memcpy(e.mode_name, "#INTER", 6);
  e.conversation_security_type = CM_SECURITY_PROGRAM;
  std::memcpy(e.security_user_ID, "USER1", 5);
  std::memcpy(e.security_password, "SECRET", 6);
  CM_INT32 key = 0, len = 124, rc = -1;
  XCMSSI(&key, &e, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  const Lines expected = {"CPIC ----",
                          "CPIC XCMSSI request",
                          line(" Sym dest name = TRACESI1"),
                          line(" Partner LU name ="),
                          dump(e.partner_LU_name, 17),
                          line(" TP name type = XC_APPLICATION_TP"),
                          line(" Partner TP name ="),
                          dump(e.TP_name, 64),
                          line(" Mode name ="),
                          dump(e.mode_name, 8),
                          line(" Conversation security type = XC_SECURITY_PROGRAM"),
                          line(" Security user ID ="),
                          dump(e.security_user_ID, 8),
                          line(" Entry length = 124"),
                          "CPIC ----",
                          "CPIC XCMSSI response, result = CM_OK"};
  EXPECT_EQ(testnode::trace_lines(), expected);
}

TEST_F(SetCallTraceUnknown, TracingOffWritesNothing) {
  testnode::set_trace_file(1);
  testnode::trace_control()[0] = 0;
  for (const TraceCase &tc : cases()) {
    // Each call on a conversation of its own, prepared as in the table.
    unsigned char id[8];
    CM_INT32 rc = -1;
    cminit(id, (unsigned char *)"        ", &rc);
    ASSERT_EQ(rc, CM_OK);
    if (tc.prepare) tc.prepare(find(id));
    EXPECT_EQ(tc.call(id), tc.rc) << tc.name;
    drop(id);
  }
  EXPECT_TRUE(testnode::trace_lines().empty());
}

// ---- Side-information entries are shown whatever their length --------
//
// The calls refuse a length other than 124, but their records are written
// from the program's entry all the same.
using SideInfoCallTrace = cpictest::LibraryTest;

TEST_F(SideInfoCallTrace, EntryOfAWrongLengthIsStillShown) {
  testnode::set_trace_file(1);
  testnode::trace_control()[0] = 0x20;
  unsigned char entry[124];
  std::memset(entry, 'E', sizeof entry);
  CM_INT32 key = 0, length = 30, rc = -1;
  xcmssi(&key, reinterpret_cast<XC_SIDE_INFO_ENTRY *>(entry), &length, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  xcmesi(&key, (unsigned char *)"MYSYM   ", reinterpret_cast<XC_SIDE_INFO_ENTRY *>(entry), &length, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  int responses = 0, entries = 0;
  for (const auto &l : testnode::trace_lines()) {
    if (l.find(" Partner LU name =") != std::string::npos) ++entries;
    if (l.find(" response, result = CM_PROGRAM_PARAMETER_CHECK") != std::string::npos) ++responses;
  }
  EXPECT_EQ(responses, 2);
  EXPECT_EQ(entries, 2);  // XCMSSI's request and XCMESI's response
  testnode::trace_control()[0] = 0;
}

}  // namespace
