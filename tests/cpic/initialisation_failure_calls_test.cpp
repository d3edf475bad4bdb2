// Every call when the library cannot initialise (here: no wait object):
// the calls that initialise on first use answer 20 with the record of the
// failed step, never 24 with a record blaming the caller's conversation ID;
// the calls that do not initialise answer as they always do.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

unsigned char kId[8] = {0x01, 0x00, 0x00, 0x00, 0, 0, 0, 0};
unsigned char kName[8] = {'S', 'Y', 'M', 'D', 'E', 'S', 'T', '1'};
unsigned char kBuffer[64];

struct CallCase {
  const char *name;
  std::function<CM_INT32()> call;
  CM_INT32 rc;
  bool initialises;  // the call tries to initialise: the failed step's record
  bool unknown_id;   // the call looks the conversation up without initialising
};

const std::vector<CallCase> &cases() {
  static const std::vector<CallCase> c = {
      {"Allocate", [] { CM_INT32 rc; CMALLC(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"AcceptIncoming", [] { CM_INT32 rc; CMACCI(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"AcceptConversation", [] { unsigned char id[8]; CM_INT32 rc; CMACCP(id, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Confirm", [] { CM_INT32 rts, rc; CMCFM(kId, &rts, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Confirmed", [] { CM_INT32 rc; CMCFMD(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Deallocate", [] { CM_INT32 rc; CMDEAL(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Flush", [] { CM_INT32 rc; CMFLUS(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"PrepareToReceive", [] { CM_INT32 rc; CMPTR(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"RequestToSend", [] { CM_INT32 rc; CMRTS(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"SendError", [] { CM_INT32 rts, rc; CMSERR(kId, &rts, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"TestRequestToSend", [] { CM_INT32 rts, rc; CMTRTS(kId, &rts, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Send", [] { CM_INT32 len = 1, rts, rc; CMSEND(kId, kBuffer, &len, &rts, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Receive", [] { CM_INT32 len = 1, d, l, s, rts, rc; CMRCV(kId, kBuffer, &len, &d, &l, &s, &rts, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"ExtractState", [] { CM_INT32 st, rc; CMECS(kId, &st, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"ExtractType", [] { CM_INT32 t, rc; CMECT(kId, &t, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"SetSendType", [] { CM_INT32 t = 1, rc; CMSST(kId, &t, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"SetProcessingMode", [] { CM_INT32 m = 1, rc; CMSPM(kId, &m, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"Cancel", [] { CM_INT32 rc; CMCANC(kId, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"ExtractContext", [] { unsigned char ctx[8]; CM_INT32 l, rc; CMECTX(kId, ctx, &l, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"SetContext", [] { CM_INT32 l = 8, rc; CMSCTX(kId, &l, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"InitializeConversation", [] { unsigned char id[8]; CM_INT32 rc; CMINIT(id, kName, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"InitializeForIncoming", [] { unsigned char id[8]; CM_INT32 rc; CMINIC(id, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"SpecifyLocalTpName", [] { CM_INT32 l = 4, rc; CMSLTP((unsigned char *)"NAME", &l, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"SetSideInformation", [] {
         XC_SIDE_INFO_ENTRY e;
         std::memset(&e, ' ', sizeof e);
         std::memcpy(e.sym_dest_name, kName, 8);
         e.TP_name_type = 0;
         e.conversation_security_type = 0;
         CM_INT32 key = 0, len = 124, rc;
         XCMSSI(&key, &e, &len, &rc);
         return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"ExtractSideInformation", [] { XC_SIDE_INFO_ENTRY e; CM_INT32 key = 0, len = 124, rc; XCMESI(&key, kName, &e, &len, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      {"DeleteSideInformation", [] { CM_INT32 key = 0, rc; XCMDSI(&key, kName, &rc); return rc; }, CM_PRODUCT_SPECIFIC_ERROR, true, false},
      // The security calls do not initialise: the conversation is unknown.
      {"SetSecurityType", [] { CM_INT32 t = 0, rc; CMSCST(kId, &t, &rc); return rc; }, CM_PROGRAM_PARAMETER_CHECK, false, true},
      {"ExtractSecurityType", [] { CM_INT32 t, rc; XCECST(kId, &t, &rc); return rc; }, CM_PROGRAM_PARAMETER_CHECK, false, true},
      // Release needs no node: a name never specified is just unknown.
      {"ReleaseLocalTpName", [] { CM_INT32 l = 4, rc; CMRLTP((unsigned char *)"NAME", &l, &rc); return rc; }, CM_PROGRAM_PARAMETER_CHECK, false, false},
      // Nothing can be outstanding.
      {"Wait", [] { unsigned char id[8]; CM_INT32 crc, rc; CMWAIT(id, &crc, &rc); return rc; }, CM_PROGRAM_STATE_CHECK, true, false},
      {"Check", [] { unsigned char id[8]; CM_INT32 rc; CMCHCK(id, &rc); return rc; }, CM_PROGRAM_STATE_CHECK, true, false},
      // No context to end.
      {"Terminate", [] { CM_INT32 t = 0, rc; CMTERM(&t, &rc); return rc; }, CM_OK, false, false},
      {"MaximumBufferSize", [] { CM_INT32 s, rc; CMEMBS(&s, &rc); return rc; }, CM_OK, false, false},
      {"ConvertOutgoing", [] { CM_INT32 l = 3, rc; CMCNVO(kBuffer, &l, &rc); return rc; }, CM_OK, false, false},
  };
  return c;
}

class CallsWithoutInitialisation : public ::testing::TestWithParam<size_t> {};

TEST_P(CallsWithoutInitialisation, AnswerAndRecords) {
  const CallCase &cc = cases().at(GetParam());
  const std::string verdict = in_child({}, [&cc] {
    Verdict v;
    testnode::fail_wait_object(true);
    const CM_INT32 rc = cc.call();
    v.eq(rc, cc.rc, "return code");
    v.eq(fInitCPIC, 0, "initialised");
    bool init_record = false, unknown_record = false;
    for (const auto &p : testnode::problems()) {
      if (p.message == 0x2003000B && p.sub_code == 12) {
        init_record = true;
      } else if (p.message == 0x20030005) {
        unknown_record = true;
      } else {
        v.check(false, "an unexpected problem record");
      }
    }
    v.check(init_record == cc.initialises, "record of the failed initialisation step");
    v.check(unknown_record == cc.unknown_id, "record of an unknown conversation");
    v.check(testnode::issued_verbs().empty(), "a verb was issued");
    v.check(testnode::issued_nof().empty(), "the node operator was asked");
    return v.text;
  });
  EXPECT_EQ(verdict, "");
}

INSTANTIATE_TEST_SUITE_P(EveryCall, CallsWithoutInitialisation,
                         ::testing::Range<size_t>(0, cases().size()),
                         [](const auto &info) { return std::string(cases()[info.param].name); });

}  // namespace
