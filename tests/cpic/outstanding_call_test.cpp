// Every call on a conversation while a non-blocking operation of it is
// still in progress: refused with 37, nothing issued, the conversation's
// block untouched (the node still owns its verb area), the caller's
// outputs untouched; the outstanding operation then completes and is
// collected with its own result. And the default local TP name found
// already registered is not registered again.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

constexpr CM_INT32 kUntouched = -7;

struct OutstandingCase {
  const char *name;
  // Makes the call; out[] are its outputs, preset to kUntouched.
  std::function<CM_INT32(unsigned char *id, CM_INT32 *out)> call;
  // Outputs the call writes before its checks (Receive clears the length).
  std::vector<std::pair<int, CM_INT32>> written;
};

unsigned char gBuffer[64];

const std::vector<OutstandingCase> &cases() {
  static const std::vector<OutstandingCase> c = {
      {"Send",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 len = 4, rc = -1;
         cmsend(id, gBuffer, &len, &o[0], &rc);
         return rc;
       },
       {}},
      {"Receive",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 len = 10, rc = -1;
         cmrcv(id, gBuffer, &len, &o[0], &o[1], &o[2], &o[3], &rc);
         return rc;
       },
       {{1, 0}}},
      {"Confirm",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 rc = -1;
         cmcfm(id, &o[0], &rc);
         return rc;
       },
       {}},
      {"Confirmed",
       [](unsigned char *id, CM_INT32 *) {
         CM_INT32 rc = -1;
         cmcfmd(id, &rc);
         return rc;
       },
       {}},
      {"Deallocate",
       [](unsigned char *id, CM_INT32 *) {
         CM_INT32 rc = -1;
         cmdeal(id, &rc);
         return rc;
       },
       {}},
      {"Flush",
       [](unsigned char *id, CM_INT32 *) {
         CM_INT32 rc = -1;
         cmflus(id, &rc);
         return rc;
       },
       {}},
      {"PrepareToReceive",
       [](unsigned char *id, CM_INT32 *) {
         CM_INT32 rc = -1;
         cmptr(id, &rc);
         return rc;
       },
       {}},
      {"RequestToSend",
       [](unsigned char *id, CM_INT32 *) {
         CM_INT32 rc = -1;
         cmrts(id, &rc);
         return rc;
       },
       {}},
      {"SendError",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 rc = -1;
         cmserr(id, &o[0], &rc);
         return rc;
       },
       {}},
      {"TestRequestToSend",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 rc = -1;
         cmtrts(id, &o[0], &rc);
         return rc;
       },
       {}},
      {"ExtractConversationState",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 rc = -1;
         cmecs(id, &o[0], &rc);
         return rc;
       },
       {}},
      {"ExtractTpName",
       [](unsigned char *id, CM_INT32 *o) {
         CM_INT32 rc = -1;
         cmetpn(id, gBuffer, &o[0], &rc);
         return rc;
       },
       {}},
      {"SetProcessingMode",
       [](unsigned char *id, CM_INT32 *) {
         CM_INT32 mode = CM_BLOCKING, rc = -1;
         cmspm(id, &mode, &rc);
         return rc;
       },
       {}},
      {"AllocateUnderTheContext",
       [](unsigned char *id, CM_INT32 *) {
         // The context's TP and LU: no TP_STARTED comes first.
         std::memset(pGCB->abContextTpId, 0x5A, 8);
         std::memset(pGCB->abContextLuAlias, 0, 8);
         CM_INT32 rc = -1;
         cmallc(id, &rc);
         std::memset(pGCB->abContextTpId, 0, 8);
         return rc;
       },
       {}},
  };
  return c;
}

class Outstanding : public ConversationTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(Outstanding, RefusedAndChangesNothing) {
  const OutstandingCase &oc = cases().at(GetParam());
  established(0x0000AB01, 0x5A);
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0x0002, 0x20, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  CCCB before;
  std::memcpy(&before, c_, sizeof before);
  const size_t issued = verbs();

  CM_INT32 out[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(oc.call(id_, out), CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(verbs(), issued) << "a verb was issued";
  EXPECT_EQ(std::memcmp(&before, c_, sizeof before), 0) << "the conversation's block changed";
  for (int i = 0; i < 4; ++i) {
    CM_INT32 expected = kUntouched;
    for (const auto &w : oc.written) {
      if (w.first == i) expected = w.second;
    }
    EXPECT_EQ(out[i], expected) << "output " << i;
  }

  // The flush completes with its own result and is collected as such.
  ASSERT_EQ(testnode::complete_async(), 1);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  EXPECT_EQ(crc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(c_->usOpTraceIndex, 10) << "the call record is the flush's";
  EXPECT_TRUE(testnode::assertions().empty());
}

INSTANTIATE_TEST_SUITE_P(EveryCall, Outstanding, ::testing::Range<size_t>(0, cases().size()),
                         [](const auto &info) { return std::string(cases()[info.param].name); });

using OutstandingAllocate = ConversationTest;

TEST_F(OutstandingAllocate, StartingTheTpFirstKeepsTheConversationAndItsTp) {
  // Without a context Allocate starts a TP before it can see the operation
  // in progress; it ends that TP again and leaves the conversation as it was.
  established(0x0000AB02, 0x5B);
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  CCCB before;
  std::memcpy(&before, c_, sizeof before);
  testnode::script_verb({VERB_TP_STARTED, 0, 0, false, [](void *b) {
                           std::memset(static_cast<VCB_TP_STARTED *>(b)->tp_id, 0x77, 8);
                         }});
  cmallc(id_, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  ASSERT_EQ(verbs(), 3u);
  EXPECT_EQ(verb(1).opcode, VERB_TP_STARTED);
  EXPECT_EQ(verb(2).opcode, VERB_TP_ENDED);
  EXPECT_EQ(bytes(verb(2).bytes.data() + 12, 8), std::string(8, '\x77'));
  EXPECT_EQ(std::memcmp(&before, c_, sizeof before), 0) << "the conversation's block changed";
  ASSERT_EQ(testnode::complete_async(), 1);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_OK);
}

TEST_F(OutstandingAllocate, FailedTpStartedDoesNotReleaseTheBusyConversation) {
  // TP_STARTED failing releases the conversation it was made for; one with
  // an operation still in progress must survive until that operation has
  // completed, since the node writes its results into the block.
  established(0x0000AB03, 0x5C);
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  testnode::script_verb({VERB_TP_STARTED, 0x0001, 0x00000104, false, nullptr});
  cmallc(id_, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(find(id_), c_) << "released under the node's feet";
  EXPECT_EQ(c_->ulApplConvId, 0x0000AB03u);
  ASSERT_EQ(testnode::complete_async(), 1);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  EXPECT_EQ(crc, CM_OK);
  EXPECT_TRUE(testnode::assertions().empty());
}

// ---- The default local TP name found registered ---------------------------

using DefaultName = ConversationTest;

TEST_F(DefaultName, FoundRegisteredIsNotRegisteredAgain) {
  struct Entry {
    uint16_t usLength;
    uint8_t abName[64];
  };
  GCB *g = pGCB;
  const uint16_t saved_names = g->NumLocTPNames, saved_accept = g->fAcceptIssued,
                 saved_env = g->fTpNameFromEnv;
  // The default name came from the environment: names already in the list
  // do not stand in for it, so accept looks for it among them.
  g->fTpNameFromEnv = 1;
  std::vector<uint32_t> kept;
  void *p = nullptr;
  for (uint32_t k = vtm_get_next_used(g->hLocTpNameTable, 0, &p); k != 0;
       k = vtm_get_next_used(g->hLocTpNameTable, k, &p)) {
    kept.push_back(k);
  }
  // As an earlier accept leaves it, but with the flag cleared.
  auto *e = static_cast<Entry *>(nba_mm_alloc(sizeof(Entry), 0x302, nba_blank_name, 0, 0));
  e->usLength = g->usDefaultTpNameLen;
  std::memcpy(e->abName, g->abDefaultTpName, 64);
  const uint32_t h = vtm_get_free_entry(g->hLocTpNameTable, e);
  ASSERT_NE(h, 0u);
  g->NumLocTPNames++;
  g->fAcceptIssued = 0;
  testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, false, [](void *b) {
                           auto *v = static_cast<VCB_RECEIVE_ALLOCATE *>(b);
                           v->conv_id = 0x0D;
                           std::memset(v->user_id, 0x40, 10);
                           std::memcpy(v->tp_name, pGCB->abDefaultTpName, 64);
                         }});
  unsigned char id[8];
  CM_INT32 rc = -1;
  cmaccp(id, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 1u);
  EXPECT_EQ(verb(0).opcode, VERB_RECEIVE_ALLOCATE_CPIC);
  EXPECT_EQ(g->fAcceptIssued, 1);
  EXPECT_EQ(g->NumLocTPNames, saved_names + 1);
  // The conversation knows the entry it was accepted under.
  EXPECT_EQ(find(id)->hLocTpNameEntry, h);
  // A name of another length is not the default name.
  vtm_release_entry(g->hLocTpNameTable, h);
  e->usLength = static_cast<uint16_t>(g->usDefaultTpNameLen + 1);
  ASSERT_NE(vtm_get_free_entry(g->hLocTpNameTable, e), 0u);
  g->fAcceptIssued = 0;
  testnode::reset();
  testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, false, [](void *b) {
                           std::memset(static_cast<VCB_RECEIVE_ALLOCATE *>(b)->user_id, 0x40, 10);
                         }});
  unsigned char id2[8];
  cmaccp(id2, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 2u);
  EXPECT_EQ(verb(0).opcode, VERB_REGISTER_TP_NAME);
  // Put the table back as it was.
  uint32_t k = vtm_get_next_used(g->hLocTpNameTable, 0, &p);
  while (k != 0) {
    void *next_p = nullptr;
    const uint32_t next = vtm_get_next_used(g->hLocTpNameTable, k, &next_p);
    if (std::find(kept.begin(), kept.end(), k) == kept.end()) {
      vtm_release_entry(g->hLocTpNameTable, k);
      nba_mm_free(p);
    }
    k = next;
    p = next_p;
  }
  g->NumLocTPNames = saved_names;
  g->fAcceptIssued = saved_accept;
  g->fTpNameFromEnv = saved_env;
  std::memset(find(id)->abTpId, 0, 8);
  std::memset(find(id2)->abTpId, 0, 8);
  drop(id);
  drop(id2);
}

}  // namespace
