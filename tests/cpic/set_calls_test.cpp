// The Set calls and the Extract calls that read their values back: every
// accepted and refused value in each state that matters, the order of the
// checks, the log data record and the partner LU name forms.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

enum class Made { Initialized, Allocated, Incoming };

const char *made_name(Made m) {
  return m == Made::Initialized ? "Initialized" : m == Made::Allocated ? "Allocated" : "Incoming";
}

// A conversation in the state a case asks for.
class Conversation : public LibraryTest {
 protected:
  void make(Made m) {
    CM_INT32 rc = -1;
    if (m == Made::Incoming) {
      cminic(id, &rc);
    } else {
      cminit(id, (unsigned char *)"        ", &rc);
    }
    ASSERT_EQ(rc, CM_OK);
    made_ = true;
    if (m == Made::Allocated) find(id)->ulApplConvId = 0x00012345;
  }
  void TearDown() override {
    if (made_) drop(id);
    EXPECT_EQ(leaked(), 0);
    LibraryTest::TearDown();
  }
  CCCB *cccb() { return find(id); }
  unsigned char id[8] = {};
  bool made_ = false;
};

// ---- Calls that set one 32-bit value --------------------------------

using ValueSetter = void (*)(unsigned char *, CM_INT32 *, CM_INT32 *);

struct ValueCall {
  const char *name;
  ValueSetter set;
  uint32_t CCCB::*field;
  bool initialize_state_only;
  std::vector<CM_INT32> accepted;  // with the conversation's defaults adjusted below
  // Prepares the block: the preconditions under which "accepted" holds.
  std::function<void(CCCB *)> prepare;
};

const std::vector<ValueCall> &value_calls() {
  static const std::vector<ValueCall> calls = {
      {"CMSCT", CMSCT, &CCCB::ulConversationType, true, {0, 1}, nullptr},
      {"CMSDT", CMSDT, &CCCB::ulDeallocateType, false, {0, 1, 2, 3},
       [](CCCB *c) { c->ulSyncLevel = CM_CONFIRM; }},
      {"CMSED", CMSED, &CCCB::ulErrorDirection, false, {0, 1}, nullptr},
      {"CMSF", CMSF, &CCCB::ulFill, false, {0, 1},
       [](CCCB *c) { c->ulConversationType = CM_BASIC_CONVERSATION; }},
      {"CMSPTR", CMSPTR, &CCCB::ulPrepToReceiveType, false, {0, 1, 2},
       [](CCCB *c) { c->ulSyncLevel = CM_CONFIRM; }},
      {"CMSRT", CMSRT, &CCCB::ulReceiveType, false, {0, 1}, nullptr},
      {"CMSRC", CMSRC, &CCCB::ulReturnControl, true, {0, 1}, nullptr},
      {"CMSST", CMSST, &CCCB::ulSendType, false, {0, 1, 2, 3, 4},
       [](CCCB *c) { c->ulSyncLevel = CM_CONFIRM; }},
      {"CMSSL", CMSSL, &CCCB::ulSyncLevel, true, {0, 1}, nullptr},
  };
  return calls;
}

struct ValueCase {
  size_t call;
  Made made;
  CM_INT32 value;
  CM_INT32 expected;
};

std::vector<ValueCase> value_cases() {
  std::vector<ValueCase> out;
  const auto &calls = value_calls();
  for (size_t i = 0; i < calls.size(); ++i) {
    const ValueCall &vc = calls[i];
    std::vector<CM_INT32> tried = {-1, INT32_MIN, 0, 1, 2, 3, 4, 5, 6, 0x10000, INT32_MAX};
    for (Made m : {Made::Initialized, Made::Allocated, Made::Incoming}) {
      for (CM_INT32 v : tried) {
        bool ok = false;
        for (CM_INT32 a : vc.accepted) ok = ok || a == v;
        CM_INT32 expected = ok ? CM_OK : CM_PROGRAM_PARAMETER_CHECK;
        if (vc.initialize_state_only && m != Made::Initialized) expected = CM_PROGRAM_STATE_CHECK;
        out.push_back({i, m, v, expected});
      }
    }
  }
  return out;
}

class SetValue : public Conversation, public ::testing::WithParamInterface<ValueCase> {};

TEST_P(SetValue, StoresOrRefuses) {
  const ValueCase &tc = GetParam();
  const ValueCall &vc = value_calls()[tc.call];
  make(tc.made);
  CCCB *c = cccb();
  if (vc.prepare) vc.prepare(c);
  const uint32_t sentinel = 0x0BADBEEF;
  c->*vc.field = sentinel;
  CM_INT32 value = tc.value, rc = -1;
  vc.set(id, &value, &rc);
  EXPECT_EQ(rc, tc.expected);
  EXPECT_EQ(c->*vc.field, tc.expected == CM_OK ? static_cast<uint32_t>(tc.value) : sentinel);
  EXPECT_TRUE(testnode::issued_verbs().empty());
  EXPECT_TRUE(testnode::problems().empty());
}

INSTANTIATE_TEST_SUITE_P(AllValues, SetValue, ::testing::ValuesIn(value_cases()),
                         [](const ::testing::TestParamInfo<ValueCase> &info) {
                           const ValueCase &tc = info.param;
                           std::string v = tc.value < 0 ? "m" + std::to_string(-(int64_t)tc.value)
                                                        : std::to_string(tc.value);
                           return std::string(value_calls()[tc.call].name) + "_" +
                                  made_name(tc.made) + "_" + v + "_" + std::to_string(info.index);
                         });

// The values read back through the Extract calls that exist for them.
using SetAndExtract = Conversation;

TEST_F(SetAndExtract, SyncLevelAndConversationTypeReadBack) {
  make(Made::Initialized);
  CM_INT32 v = CM_CONFIRM, rc = -1, out = -1;
  CMSSL(id, &v, &rc);
  ASSERT_EQ(rc, CM_OK);
  CMESL(id, &out, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out, CM_CONFIRM);
  v = CM_BASIC_CONVERSATION;
  CMSCT(id, &v, &rc);
  ASSERT_EQ(rc, CM_OK);
  CMECT(id, &out, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out, CM_BASIC_CONVERSATION);
  // Still readable once allocated; not on an incoming conversation.
  cccb()->ulApplConvId = 7;
  out = -1;
  CMESL(id, &out, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out, CM_CONFIRM);
}

TEST_F(SetAndExtract, NewConversationIsMappedWithSyncLevelNone) {
  make(Made::Initialized);
  CM_INT32 rc = -1, out = -1;
  CMECT(id, &out, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out, CM_MAPPED_CONVERSATION);
  CMESL(id, &out, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out, CM_NONE);
}

TEST_F(SetAndExtract, ExtractOnIncomingNotAcceptedIsStateCheckAndWritesNothing) {
  make(Made::Incoming);
  CM_INT32 rc = -1, out = -7, len = -7;
  unsigned char buf[80];
  std::memset(buf, 0xEE, sizeof buf);
  for (auto call : {CMESL, CMECT}) {
    call(id, &out, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
    EXPECT_EQ(out, -7);
  }
  for (auto call : {CMEMN, CMEPLN, CMELLN, CMETPN}) {
    call(id, buf, &len, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
    EXPECT_EQ(len, -7);
    EXPECT_EQ(buf[0], 0xEE);
  }
  // Accepted by the node: readable.
  cccb()->ulApplConvId = 9;
  CMESL(id, &out, &rc);
  EXPECT_EQ(rc, CM_OK);
}

// Interlocks between the sync level and the confirm types.
TEST_F(SetAndExtract, SyncLevelNoneRefusedWhileAConfirmTypeIsSet) {
  make(Made::Initialized);
  CM_INT32 v, rc;
  struct Lock {
    ValueSetter set;
    CM_INT32 confirm;
  };
  for (Lock l : {Lock{CMSST, CM_SEND_AND_CONFIRM}, Lock{CMSPTR, CM_PREP_TO_RECEIVE_CONFIRM},
                 Lock{CMSDT, CM_DEALLOCATE_CONFIRM}}) {
    v = CM_CONFIRM;
    CMSSL(id, &v, &rc);
    ASSERT_EQ(rc, CM_OK);
    v = l.confirm;
    l.set(id, &v, &rc);
    ASSERT_EQ(rc, CM_OK);
    v = CM_NONE;
    CMSSL(id, &v, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
    EXPECT_EQ(cccb()->ulSyncLevel, (uint32_t)CM_CONFIRM);
    v = 0;
    l.set(id, &v, &rc);
    ASSERT_EQ(rc, CM_OK);
    v = CM_NONE;
    CMSSL(id, &v, &rc);
    EXPECT_EQ(rc, CM_OK);
    // With sync level none the confirm type is refused.
    v = l.confirm;
    l.set(id, &v, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  }
  // Sync point levels are not accepted.
  for (CM_INT32 level : {CM_SYNC_POINT, CM_SYNC_POINT_NO_CONFIRM}) {
    v = level;
    CMSSL(id, &v, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  }
}

TEST_F(SetAndExtract, MappedRefusedWhileLogDataOrFillBuffer) {
  make(Made::Initialized);
  CM_INT32 v = CM_BASIC_CONVERSATION, rc = -1;
  CMSCT(id, &v, &rc);
  ASSERT_EQ(rc, CM_OK);
  CM_INT32 len = 3;
  CMSLD(id, (unsigned char *)"ABC", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  v = CM_MAPPED_CONVERSATION;
  CMSCT(id, &v, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  len = 0;
  CMSLD(id, nullptr, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  v = CM_FILL_BUFFER;
  CMSF(id, &v, &rc);
  ASSERT_EQ(rc, CM_OK);
  v = CM_MAPPED_CONVERSATION;
  CMSCT(id, &v, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  v = CM_FILL_LL;
  CMSF(id, &v, &rc);
  v = CM_MAPPED_CONVERSATION;
  CMSCT(id, &v, &rc);
  EXPECT_EQ(rc, CM_OK);
  // Mapped: fill and log data are refused.
  v = CM_FILL_LL;
  CMSF(id, &v, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  len = 3;
  CMSLD(id, (unsigned char *)"ABC", &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(cccb()->pLogData, nullptr);
}

// The state check comes before the value check.
TEST_F(SetAndExtract, StateCheckedBeforeValue) {
  make(Made::Allocated);
  CM_INT32 bad = 99, rc = -1, len = 99;
  for (ValueSetter s : {CMSCT, CMSRC, CMSSL}) {
    s(id, &bad, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  }
  unsigned char name[128] = {};
  CMSPLN(id, name, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  CMSMN(id, name, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  CMSTPN(id, name, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  CMSLLN(id, name, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
}

// ---- Unknown conversation IDs: 24 and a problem record per call ------

struct UnknownCase {
  const char *name;
  std::function<void(unsigned char *, CM_INT32 *)> call;
  uint32_t tag;
};

std::vector<UnknownCase> unknown_cases() {
  static CM_INT32 v = 0, len = 1;
  static unsigned char buf[80];
  return {
      {"CMSCT", [](unsigned char *i, CM_INT32 *rc) { CMSCT(i, &v, rc); }, 18},
      {"CMSDT", [](unsigned char *i, CM_INT32 *rc) { CMSDT(i, &v, rc); }, 19},
      {"CMSED", [](unsigned char *i, CM_INT32 *rc) { CMSED(i, &v, rc); }, 20},
      {"CMSF", [](unsigned char *i, CM_INT32 *rc) { CMSF(i, &v, rc); }, 21},
      {"CMSLD", [](unsigned char *i, CM_INT32 *rc) { CMSLD(i, buf, &len, rc); }, 22},
      {"CMSMN", [](unsigned char *i, CM_INT32 *rc) { CMSMN(i, buf, &len, rc); }, 23},
      {"CMSPLN", [](unsigned char *i, CM_INT32 *rc) { CMSPLN(i, buf, &len, rc); }, 24},
      {"CMSLLN", [](unsigned char *i, CM_INT32 *rc) { CMSLLN(i, buf, &len, rc); }, 24},
      {"CMSPTR", [](unsigned char *i, CM_INT32 *rc) { CMSPTR(i, &v, rc); }, 25},
      {"CMSRT", [](unsigned char *i, CM_INT32 *rc) { CMSRT(i, &v, rc); }, 26},
      {"CMSRC", [](unsigned char *i, CM_INT32 *rc) { CMSRC(i, &v, rc); }, 27},
      {"CMSST", [](unsigned char *i, CM_INT32 *rc) { CMSST(i, &v, rc); }, 28},
      {"CMSSL", [](unsigned char *i, CM_INT32 *rc) { CMSSL(i, &v, rc); }, 29},
      {"CMSTPN", [](unsigned char *i, CM_INT32 *rc) { CMSTPN(i, buf, &len, rc); }, 30},
      {"CMESL", [](unsigned char *i, CM_INT32 *rc) { CMESL(i, &v, rc); }, 11},
      {"CMECT", [](unsigned char *i, CM_INT32 *rc) { CMECT(i, &v, rc); }, 8},
      {"CMEMN", [](unsigned char *i, CM_INT32 *rc) { CMEMN(i, buf, &len, rc); }, 9},
      {"CMEPLN", [](unsigned char *i, CM_INT32 *rc) { CMEPLN(i, buf, &len, rc); }, 10},
      {"CMELLN", [](unsigned char *i, CM_INT32 *rc) { CMELLN(i, buf, &len, rc); }, 90},
      {"CMETPN", [](unsigned char *i, CM_INT32 *rc) { CMETPN(i, buf, &len, rc); }, 33},
  };
}

class UnknownConversation : public LibraryTest,
                            public ::testing::WithParamInterface<UnknownCase> {};

TEST_P(UnknownConversation, ParameterCheckAndProblemRecord) {
  unsigned char id[8] = {0x77, 0x66, 0x55, 0x44, 0, 0, 0, 0};
  CM_INT32 rc = -1;
  GetParam().call(id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(testnode::problems().size(), 1u);
  const auto &p = testnode::problems()[0];
  EXPECT_EQ(p.message, 0x20030005u);
  EXPECT_EQ(p.sub_code, GetParam().tag);
  EXPECT_EQ(p.format, "ba");
  ASSERT_EQ(p.data.size(), 1u);
  EXPECT_NE(p.data[0].find("77"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(EveryCall, UnknownConversation, ::testing::ValuesIn(unknown_cases()),
                         [](const ::testing::TestParamInfo<UnknownCase> &info) {
                           return std::string(info.param.name);
                         });

}  // namespace
