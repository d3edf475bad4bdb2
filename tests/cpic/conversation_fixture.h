// A conversation the tests drive through the calls: made by
// Initialize_Conversation, optionally already allocated (white-box: the
// node conversation and TP id set directly).
#ifndef TESTS_CPIC_CONVERSATION_FIXTURE_H
#define TESTS_CPIC_CONVERSATION_FIXTURE_H

#include <future>

#include "counters.h"
#include "fixtures.h"

namespace cpictest {

// CMWAIT on a thread of its own, for tests that watch whether it holds
// back; its return code comes through the future. got and
// conversation_rc must outlive it.
inline std::future<CM_INT32> wait_on_another_thread(unsigned char *got,
                                                    CM_INT32 *conversation_rc) {
  return std::async(std::launch::async, [got, conversation_rc] {
    CM_INT32 rc = -1;
    cmwait(got, conversation_rc, &rc);
    return rc;
  });
}

class ConversationTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::memset(cpic::pGCB->abContextTpId, 0, 8);
    std::memset(cpic::pGCB->abContextLuAlias, 0, 8);
    CM_INT32 rc = -1;
    cminit(id_, (unsigned char *)"        ", &rc);
    ASSERT_EQ(rc, CM_OK);
    c_ = find(id_);
    testnode::reset();
    live_at_start_ = testnode::live_allocations();
  }
  void TearDown() override {
    testnode::complete_async();
    // Collect whatever the test left uncollected, then drop what is left.
    while (cpic::counter_get(cpic::pGCB->NumVerbsWaiting) != 0) {
      unsigned char id[8];
      CM_INT32 crc, rc;
      cmwait(id, &crc, &rc);
      if (rc != CM_OK) break;
    }
    if (find(id_) != nullptr) drop(id_);
    std::memset(cpic::pGCB->abContextTpId, 0, 8);
    LibraryTest::TearDown();
  }
  // White-box: a conversation the node knows.
  void established(uint32_t conv_id = 0x00C0DE01, uint8_t tp = 0x5A) {
    c_->ulApplConvId = conv_id;
    std::memset(c_->abTpId, tp, 8);
  }
  const testnode::IssuedVerb &verb(size_t i) const { return testnode::issued_verbs().at(i); }
  template <typename T>
  const T &block(size_t i) const {
    return *reinterpret_cast<const T *>(verb(i).bytes.data());
  }
  size_t verbs() const { return testnode::issued_verbs().size(); }
  bool problem(uint32_t message, uint32_t sub_code) const {
    for (const auto &p : testnode::problems()) {
      if (p.message == message && p.sub_code == sub_code) return true;
    }
    return false;
  }
  bool asserted(const std::string &text) const {
    for (const auto &a : testnode::assertions()) {
      if (a.expression == text) return true;
    }
    return false;
  }
  unsigned char id_[8];
  cpic::CCCB *c_ = nullptr;
};

inline uint8_t at8(const std::vector<uint8_t> &b, size_t off) { return b.at(off); }
inline uint16_t at16(const std::vector<uint8_t> &b, size_t off) {
  uint16_t v;
  std::memcpy(&v, b.data() + off, 2);
  return v;
}
inline uint32_t at32(const std::vector<uint8_t> &b, size_t off) {
  uint32_t v;
  std::memcpy(&v, b.data() + off, 4);
  return v;
}
inline const void *atptr(const std::vector<uint8_t> &b, size_t off) {
  const void *v;
  std::memcpy(&v, b.data() + off, sizeof v);
  return v;
}

}  // namespace cpictest

#endif
