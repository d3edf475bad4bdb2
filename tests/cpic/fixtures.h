// Shared helpers of the library's tests.
#ifndef TESTS_CPIC_FIXTURES_H
#define TESTS_CPIC_FIXTURES_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cpic.h"
#include "internal.h"
#include "testnode.h"

namespace cpictest {

// Every test starts from a node with no scripts or records, and checks at
// its end that it left no block allocated that it did not mean to keep.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testnode::reset();
    // Initialised up front, so allocation counts measure only the calls
    // the test makes.
    if (cpic::fInitCPIC == 0) {
      const uint16_t token = vpm_lock();
      cpic::SCC_init();
      vpm_unlock(token);
    }
    testnode::reset();
    live_at_start_ = testnode::live_allocations();
  }
  void TearDown() override { testnode::reset(); }

  // Releases a conversation the test made, through the library's own path.
  static void drop(const unsigned char *id) {
    cpic::CCCB *c = nullptr;
    if (cpic::SCC_find_cccb(id, &c, cpic::pGCB) != 0) cpic::SCC_free_cccb(c);
  }
  static cpic::CCCB *find(const unsigned char *id) {
    cpic::CCCB *c = nullptr;
    cpic::SCC_find_cccb(id, &c, cpic::pGCB);
    return c;
  }
  int leaked() const { return testnode::live_allocations() - live_at_start_; }

  int live_at_start_ = 0;
};

inline std::string bytes(const void *p, size_t n) {
  return std::string(static_cast<const char *>(p), n);
}

inline std::string ebcdic(const char *ascii, uint16_t set, size_t pad_to, char pad = '\x40') {
  std::string out(std::strlen(ascii), '\0');
  cpic::SCC_convert_string(0, set, static_cast<int16_t>(out.size()),
                           reinterpret_cast<uint8_t *>(out.data()),
                           reinterpret_cast<const uint8_t *>(ascii));
  out.resize(pad_to, pad);
  return out;
}

inline uint32_t handle_of(const unsigned char *id) {
  uint32_t h;
  std::memcpy(&h, id, 4);
  return h;
}

}  // namespace cpictest

#endif
