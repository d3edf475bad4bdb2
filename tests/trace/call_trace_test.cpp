// Call trace records: for every verb index a representative set of request
// and response records is written and compared line by line with the
// expected text in golden/NN_NAME.txt.
//
// Golden files: lines starting with "#" are comments; every other line is
// one expected trace line. "SEP" is a record separator, "DUMP(n): ..." a
// dump in the fake trace service's layout. @BUF@ and @LOG@ stand for the
// addresses of the data buffer and of the CCCB's log data as "%p" prints
// them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "call_trace.h"
#include "snanode/node.h"
#include "fake_node.h"
#include "trace_names.h"

#ifndef TRACE_GOLDEN_DIR
#error "TRACE_GOLDEN_DIR must name the golden file directory"
#endif

namespace {

using cpic::CCCB;

template <size_t N>
void fill(uint8_t (&field)[N], std::initializer_list<uint8_t> head,
          uint8_t pad) {
  size_t i = 0;
  for (uint8_t b : head) field[i++] = b;
  for (; i < N; ++i) field[i] = pad;
}

// The application's 124-byte side-information entry.
struct Entry {
  uint8_t bytes[124];
  Entry(const char *sym, const char *lu, uint32_t tp_type,
        std::initializer_list<uint8_t> tp, const char *mode, uint32_t security,
        const char *user, const char *password) {
    std::memset(bytes, 0, sizeof bytes);
    put(0, sym, 8);
    put(8, lu, 17);
    std::memcpy(bytes + 28, &tp_type, 4);
    size_t i = 32;
    for (uint8_t b : tp) bytes[i++] = b;
    for (; i < 96; ++i) bytes[i] = ' ';
    put(96, mode, 8);
    std::memcpy(bytes + 104, &security, 4);
    put(108, user, 8);
    put(116, password, 8);
  }
  void put(size_t at, const char *text, size_t width) {
    size_t n = std::strlen(text);
    for (size_t i = 0; i < width; ++i) bytes[at + i] = i < n ? text[i] : ' ';
  }
};

// Values the scenarios pass. The filled CCCB differs from the defaults in
// every characteristic the records show.
struct Env {
  uint8_t id[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  uint8_t id2[8] = {0, 0, 0, 0x2A, 0, 0, 0, 0};
  uint32_t key = 0;
  char data[6] = "HELLO";
  uint8_t logrec[12] = {0, 12, 0x12, 0xE1, 0, 2, 0, 6, 1, 2, 3, 4};
  char sym[13] = "SYMDEST1ZZZZ";  // only the first 8 belong to the name
  char shortsym[3] = "AB";
  char context[8] = {0, 0, 0, 1, 0, 0, 0, 2};
  char longname[100];
  CCCB cb;

  Env() {
    std::memset(longname, 'A', sizeof longname);
    cb = cpic::BlankCccb;
    std::memcpy(cb.si.abSymDestName, "SIDEDEST", 8);
    fill(cb.si.abPartnerLuName, {0xD5, 0xC5, 0xE3, 0xC1, 0x4B, 0xD3, 0xE4, 0xC2},
         0x40);
    fill(cb.si.abTpName, {0xE3, 0xD7, 0xC2}, 0x40);
    fill(cb.si.abModeName, {0x7B, 0xC9, 0xD5, 0xE3, 0xC5, 0xD9}, 0x40);
    fill(cb.si.abUserId, {0xE4, 0xE2, 0xC5, 0xD9}, 0x40);
    cb.si.ulSecurityType = 2;
    std::memcpy(cb.abLocalLuAlias, "LOCAL1  ", 8);
    cb.ulConversationType = 0;
    cb.ulDeallocateType = 3;
    cb.ulErrorDirection = 1;
    cb.ulFill = 1;
    cb.ulPrepToReceiveType = 2;
    cb.ulReceiveType = 1;
    cb.ulReturnControl = 1;
    cb.ulSendType = 4;
    cb.ulSyncLevel = 1;
    cb.usProcessingMode = 1;
    cb.pLogData = logrec;
    cb.usLogDataLen = 12;
  }
};

// Boxes a 32-bit value so that its address can be passed.
struct V {
  uint32_t v;
  explicit V(uint32_t value) : v(value) {}
  operator const void *() const { return &v; }
};

void Q(uint32_t verb, const CCCB *cb, const void *a4 = nullptr,
       const void *a5 = nullptr, const void *a6 = nullptr,
       const void *a7 = nullptr) {
  seputrcp(1, verb, cb, a4, a5, a6, a7, nullptr, nullptr);
}
void R(uint32_t kind, uint32_t verb, const CCCB *cb, uint32_t rc,
       const void *a5 = nullptr, const void *a6 = nullptr,
       const void *a7 = nullptr, const void *a8 = nullptr,
       const void *a9 = nullptr) {
  seputrcp(kind, verb, cb, &rc, a5, a6, a7, a8, a9);
}

// A Set call that takes one value from a table: the new value with the
// filled CCCB, the response, then an unknown value with no CCCB.
void set_value(Env &e, uint32_t verb, uint32_t value, uint32_t unknown) {
  Q(verb, &e.cb, e.id, V(value));
  R(2, verb, &e.cb, 0);
  Q(verb, nullptr, e.id, V(unknown));
}

void run_scenario(uint32_t verb, Env &e) {
  switch (verb) {
    case 0:  // CMACCP
      Q(0, nullptr);
      R(2, 0, &e.cb, 0, e.id);
      R(3, 0, nullptr, 1, e.id2);
      break;
    case 1:  // CMALLC, the request before the conversation is found
      Q(1, nullptr, e.id);
      Q(1, &e.cb, e.id);
      R(2, 1, &e.cb, 0);
      R(3, 1, &e.cb, 2);
      break;
    case 2:  // CMCFM
      Q(2, nullptr, e.id);
      R(2, 2, &e.cb, 0, V(1));
      R(2, 2, &e.cb, 0, V(2));
      break;
    case 3:  // CMCFMD, the return codes beyond the table
      Q(3, nullptr, e.id);
      R(2, 3, &e.cb, 4);
      R(3, 3, &e.cb, 200);
      R(2, 3, &e.cb, 137);
      R(2, 3, &e.cb, 138);
      R(2, 3, &e.cb, 0x10005);
      break;
    case 4:  // CMDEAL
      Q(4, &e.cb, e.id);
      Q(4, nullptr, e.id);
      R(2, 4, nullptr, 18);
      break;
    case 5:  // CMECS
      Q(5, nullptr, e.id);
      R(2, 5, &e.cb, 0, V(3));
      R(2, 5, &e.cb, 0, V(0));
      R(2, 5, &e.cb, 0, V(18));
      R(2, 5, &e.cb, 0, V(19));
      break;
    case 6:  // CMECT
      Q(6, nullptr, e.id);
      R(2, 6, &e.cb, 0, V(1));
      R(2, 6, &e.cb, 0, V(2));
      break;
    case 7:  // CMEMN
      Q(7, nullptr, e.id);
      R(2, 7, &e.cb, 0, "#INTER", V(6));
      R(2, 7, nullptr, 25, "", V(0));
      break;
    case 8:  // CMEPLN
      Q(8, nullptr, e.id);
      R(2, 8, &e.cb, 0, "NETA.LUB", V(8));
      break;
    case 9:  // CMESL
      Q(9, nullptr, e.id);
      R(2, 9, &e.cb, 0, V(2));
      R(2, 9, &e.cb, 0, V(4));
      break;
    case 10:  // CMFLUS
      Q(10, nullptr, e.id);
      R(2, 10, &e.cb, 0);
      break;
    case 11:  // CMINIT
      Q(11, nullptr, e.id, e.sym);
      R(2, 11, &e.cb, 0, e.id);
      R(2, 11, nullptr, 24, e.id2);
      break;
    case 12:  // CMPTR
      Q(12, nullptr, e.id);
      R(2, 12, &e.cb, 0);
      break;
    case 13:  // CMRCV
      Q(13, nullptr, e.id, e.data, V(100));
      R(2, 13, &e.cb, 0, e.data, V(2), V(5), V(0), V(0));
      R(2, 13, &e.cb, 0, e.data, V(0), V(0), V(13), V(1));
      R(3, 13, &e.cb, 18, e.data, V(4), V(0), V(14), V(0));
      break;
    case 14:  // CMRTS
      Q(14, nullptr, e.id);
      R(2, 14, &e.cb, 0);
      break;
    case 15:  // CMSEND, then a send of length 0
      Q(15, nullptr, e.id, e.data, V(5));
      Q(15, &e.cb, e.id, e.data, V(0));
      R(2, 15, &e.cb, 35, V(0));
      R(3, 15, &e.cb, 0, V(1));
      break;
    case 16:  // CMSERR
      Q(16, nullptr, e.id);
      R(2, 16, &e.cb, 0, V(0));
      break;
    case 17: set_value(e, 17, 1, 2); break;  // CMSCT
    case 18: set_value(e, 18, 1, 4); break;  // CMSDT
    case 19: set_value(e, 19, 0, 2); break;  // CMSED
    case 20: set_value(e, 20, 0, 2); break;  // CMSF
    case 21:  // CMSLD
      Q(21, &e.cb, e.id, e.data, V(5));
      R(2, 21, &e.cb, 0);
      Q(21, nullptr, e.id, e.data, V(0));
      break;
    case 22:  // CMSMN
      Q(22, &e.cb, e.id, "#INTER", V(6));
      R(2, 22, &e.cb, 0);
      Q(22, nullptr, e.id, "#INTER", V(0));
      break;
    case 23:  // CMSPLN
      Q(23, &e.cb, e.id, "NETA.LUB", V(8));
      R(2, 23, &e.cb, 0);
      break;
    case 24: set_value(e, 24, 1, 3); break;  // CMSPTR
    case 25: set_value(e, 25, 0, 2); break;  // CMSRT
    case 26: set_value(e, 26, 0, 2); break;  // CMSRC
    case 27: set_value(e, 27, 2, 5); break;  // CMSST
    case 28: set_value(e, 28, 3, 4); break;  // CMSSL
    case 29:  // CMSTPN, then a length beyond any name
      Q(29, &e.cb, e.id, "TPB", V(3));
      R(2, 29, &e.cb, 0);
      Q(29, nullptr, e.id, e.longname, V(100));
      break;
    case 30:  // CMTRTS
      Q(30, nullptr, e.id);
      R(2, 30, &e.cb, 0, V(1));
      break;
    case 31:  // XCMDSI
      Q(31, nullptr, &e.key, e.sym);
      Q(31, nullptr, &e.key, e.shortsym);
      R(2, 31, nullptr, 0);
      break;
    case 32:  // XCECST
    case 59:  // CMECST
      Q(verb, nullptr, e.id);
      R(2, verb, &e.cb, 0, V(2));
      R(2, verb, &e.cb, 0, V(6));
      break;
    case 33:  // XCECSU
    case 58:  // CMECSU
      Q(verb, nullptr, e.id);
      R(2, verb, &e.cb, 0, "USER", V(4));
      break;
    case 34: {  // XCMESI
      Entry entry("SYMDEST1", "NETA.LUB", 0, {'T', 'P', 'B'}, "#INTER", 2,
                  "USER", "SECRET");
      Entry odd("SYMDEST2", "LUALIAS1", 2, {}, "", 7, "", "");
      Q(34, nullptr, &e.key, e.sym, entry.bytes, V(124));
      R(2, 34, nullptr, 0, entry.bytes);
      R(2, 34, nullptr, 0, odd.bytes);
      break;
    }
    case 35:  // XCSCSP
    case 48:  // CMSCSP
      Q(verb, &e.cb, e.id, "SECRET", V(6));
      R(2, verb, &e.cb, 0);
      break;
    case 36: set_value(e, 36, 5, 6); break;  // XCSCST
    case 46: set_value(e, 46, 0, 6); break;  // CMSCST
    case 37:  // XCSCSU
    case 47:  // CMSCSU
      Q(verb, &e.cb, e.id, "USER", V(4));
      R(2, verb, &e.cb, 0);
      Q(verb, nullptr, e.id, "USER", V(4));
      break;
    case 38: {  // XCMSSI
      Entry service("SERVICE1", "NETA.LUB", 1, {0x06, 0xF1}, "#INTER", 0,
                    "USER", "SECRET");
      Entry odd("SYMDEST3", "LU", 3, {'T'}, "M", 5, "U", "P");
      Q(38, nullptr, &e.key, service.bytes, V(124));
      Q(38, nullptr, &e.key, odd.bytes, V(123));
      R(2, 38, nullptr, 24);
      break;
    }
    case 39:  // CMTERM
      Q(39, nullptr, V(0));
      Q(39, nullptr, V(1));
      Q(39, nullptr, V(2));
      R(2, 39, nullptr, 0);
      break;
    case 40: set_value(e, 40, 0, 2); break;  // CMSPM
    case 41:  // CMINIC
      Q(41, nullptr);
      R(2, 41, &e.cb, 0, e.id);
      break;
    case 42:  // CMACCI
      Q(42, nullptr, e.id);
      R(2, 42, &e.cb, 35);
      break;
    case 43:  // CMWAIT and its bound of 38
      Q(43, nullptr);
      R(2, 43, &e.cb, 0, e.id, V(0));
      R(2, 43, &e.cb, 0, e.id, V(4));
      R(2, 43, &e.cb, 0, e.id, V(37));
      R(2, 43, &e.cb, 0, e.id, V(38));
      R(2, 43, &e.cb, 0, e.id, V(200));
      R(2, 43, nullptr, 25, e.id2, V(0));
      break;
    case 44:  // CMCANC
      Q(44, nullptr, e.id);
      R(2, 44, &e.cb, 0);
      break;
    case 45:  // CMCHCK
      Q(45, nullptr);
      R(2, 45, &e.cb, 0, e.id);
      R(2, 45, nullptr, 28, e.id2);
      break;
    case 49:  // CMESUI
      Q(49, nullptr, e.id);
      R(2, 49, &e.cb, 0, "LONGUSERID", V(10));
      break;
    case 50:  // CMSLTP
      Q(50, nullptr, "TPB", V(3));
      R(2, 50, nullptr, 0);
      break;
    case 51:  // CMRLTP
      Q(51, nullptr, "SERVER", V(6));
      R(2, 51, nullptr, 0);
      break;
    case 52:  // CMETPN
      Q(52, nullptr, e.id);
      R(2, 52, &e.cb, 0, "TPB", V(3));
      break;
    case 53:  // CMCNVI
    case 54:  // CMCNVO
      Q(verb, nullptr, e.data, V(5));
      R(2, verb, nullptr, 0, e.data, V(5));
      Q(verb, nullptr, e.data, V(0));
      R(2, verb, nullptr, 24, e.data, V(0xFFFFFFFFu));
      break;
    case 55:  // CMEMBS
      Q(55, nullptr);
      R(2, 55, nullptr, 0, V(32767));
      break;
    case 56:  // CMECTX
      Q(56, nullptr, e.id);
      R(2, 56, &e.cb, 0, e.context, V(8));
      break;
    case 57:  // CMSCTX
      Q(57, nullptr, e.context, V(8));
      R(2, 57, nullptr, 24);
      break;
    case 60:  // CMELLN
      Q(60, nullptr, e.id);
      R(2, 60, &e.cb, 0, "LOCAL1", V(6));
      break;
    case 61:  // XCHWND
      Q(61, nullptr, V(12345));
      R(2, 61, nullptr, 0);
      break;
    case 62:  // CMSLLN
      Q(62, &e.cb, e.id, "LOCAL2", V(6));
      R(2, 62, &e.cb, 0);
      R(2, 62, nullptr, 0);
      break;
    case 63:  // beyond the table: the header line alone
      Q(63, &e.cb, e.id, e.data, V(5));
      R(2, 63, &e.cb, 0, e.id, V(1));
      R(3, 64, &e.cb, 4);
      Q(0xFFFF, nullptr, e.id);
      break;
  }
}

std::string golden_name(uint32_t verb) {
  char name[64];
  std::snprintf(name, sizeof name, "%02u_%s.txt", verb,
                verb < 63 ? cpic::trace_names::cpicvb[verb] : "UNKNOWN");
  return name;
}

std::string address_text(const void *p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

void replace_all(std::string &s, const std::string &from, const std::string &to) {
  for (size_t at = s.find(from); at != std::string::npos;
       at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
}

std::vector<std::string> read_golden(const std::string &path, const Env &e) {
  std::vector<std::string> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == '#') continue;
    replace_all(line, "@BUF@", address_text(e.data));
    replace_all(line, "@LOG@", address_text(e.logrec));
    out.push_back(line);
  }
  return out;
}

class trace_golden : public testing::TestWithParam<uint32_t> {};

TEST_P(trace_golden, RecordsMatch) {
  const uint32_t verb = GetParam();
  Env e;
  fake::reset();
  run_scenario(verb, e);

  const std::string path = std::string(TRACE_GOLDEN_DIR) + "/" + golden_name(verb);
  const std::vector<std::string> expected = read_golden(path, e);
  ASSERT_FALSE(expected.empty()) << "no expected lines in " << path;

  const std::vector<std::string> &got = fake::lines;
  for (size_t i = 0; i < expected.size() || i < got.size(); ++i) {
    const std::string want = i < expected.size() ? expected[i] : "<none>";
    const std::string have = i < got.size() ? got[i] : "<none>";
    EXPECT_EQ(have, want) << golden_name(verb) << " line " << i + 1;
  }
  EXPECT_TRUE(fake::misdirected.empty());
  EXPECT_EQ(fake::lock_calls, fake::unlock_calls);
  EXPECT_TRUE(fake::asserts.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, trace_golden, testing::Range<uint32_t>(0, 64),
    [](const testing::TestParamInfo<uint32_t> &info) {
      std::string n = golden_name(info.param);
      return n.substr(0, n.size() - 4);
    });

// ---- the record frame ------------------------------------------------------

TEST(trace_records, BlankCccbHoldsTheDefaults) {
  const CCCB &b = cpic::BlankCccb;
  for (uint8_t c : b.si.abSymDestName) EXPECT_EQ(c, 0x20);
  for (uint8_t c : b.si.abPartnerLuName) EXPECT_EQ(c, 0x20);
  for (uint8_t c : b.si.abTpName) EXPECT_EQ(c, 0x40);
  for (uint8_t c : b.si.abModeName) EXPECT_EQ(c, 0x40);
  for (uint8_t c : b.si.abUserId) EXPECT_EQ(c, 0x40);
  for (uint8_t c : b.si.abPassword) EXPECT_EQ(c, 0x40);
  for (uint8_t c : b.si.abSiLocalLuAlias) EXPECT_EQ(c, 0);
  for (uint8_t c : b.abLocalLuAlias) EXPECT_EQ(c, 0);
  EXPECT_EQ(b.si.ulTpNameType, 0u);
  EXPECT_EQ(b.si.ulSecurityType, 1u);
  EXPECT_EQ(b.si.usUserIdLen, 1u);
  EXPECT_EQ(b.si.usModeNameLen, 0u);
  EXPECT_EQ(b.si.usPartnerLuNameLen, 0u);
  EXPECT_EQ(b.ulConversationType, 1u);
  EXPECT_EQ(b.ulDeallocateType, 0u);
  EXPECT_EQ(b.ulSyncLevel, 0u);
  EXPECT_EQ(b.ulSendType, 0u);
  EXPECT_EQ(b.usProcessingMode, 0u);
  EXPECT_EQ(b.pLogData, nullptr);
  EXPECT_EQ(b.usLogDataLen, 0u);
}

TEST(trace_records, TraceSupportIsInitialisedOnce) {
  fake::reset();
  trc_api.initialised = 0;
  uint8_t id[8] = {};
  seputrcp(1, 3, nullptr, id, nullptr, nullptr, nullptr, nullptr, nullptr);
  seputrcp(1, 3, nullptr, id, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(fake::init_calls, 1);
  EXPECT_EQ(fake::init_argument, fake::control);
  EXPECT_EQ(trc_api.initialised, 1);
  EXPECT_EQ(fake::lines.size(), 6u);
}

TEST(trace_records, NothingWhenApiTraceIsOff) {
  fake::reset();
  trc_api.initialised = 0;
  fake::control[0] = 0xDF;  // every bit but 0x20
  uint8_t id[8] = {};
  seputrcp(1, 3, nullptr, id, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(fake::init_calls, 1);  // trace support is set up all the same
  EXPECT_TRUE(fake::lines.empty());
  EXPECT_EQ(fake::lock_calls, 0);
  EXPECT_EQ(fake::unlock_calls, 0);
}

TEST(trace_records, NoTraceFileLeavesTheLockTaken) {
  fake::reset();
  trc_api.file_handle = TRC_NO_FILE;
  uint32_t rc = 0;
  seputrcp(2, 15, nullptr, &rc, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_TRUE(fake::lines.empty());
  EXPECT_EQ(fake::lock_calls, 1);
  EXPECT_EQ(fake::unlock_calls, 0);
}

TEST(trace_records, EachRecordLocksAndUnlocksOnce) {
  fake::reset();
  uint8_t id[8] = {};
  uint32_t rc = 0;
  seputrcp(1, 10, nullptr, id, nullptr, nullptr, nullptr, nullptr, nullptr);
  seputrcp(2, 10, nullptr, &rc, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(fake::lock_calls, 2);
  EXPECT_EQ(fake::unlock_calls, 2);
  EXPECT_TRUE(fake::misdirected.empty());
}

TEST(trace_records, OnlyLowSixteenBitsOfKindAndVerbCount) {
  fake::reset();
  uint8_t id[8] = {0xAB, 0xCD, 0xEF, 0x01, 9, 9, 9, 9};
  seputrcp(0x10001, 0x3000A, nullptr, id, nullptr, nullptr, nullptr, nullptr,
           nullptr);
  const std::vector<std::string> want = {"SEP", "CMFLUS request",
                                         " Conversation ID = ABCDEF01"};
  EXPECT_EQ(fake::lines, want);
}

// Set_Partner_LU_Name and Set_Local_LU_Name take the low 16 bits of their
// length; their records dump no more of the name than that.
TEST(trace_records, LuNameDumpsFollowTheLowSixteenBits) {
  fake::reset();
  uint8_t id[8] = {1, 2, 3, 4, 0, 0, 0, 0};
  const uint8_t name[5] = {'N', '.', 'L', 'U', '1'};
  const struct {
    int32_t length;
    size_t dumped;
  } cases[] = {{5, 5}, {0x10005, 5}, {static_cast<int32_t>(0xFFFF0005), 5}, {0x10000, 0}};
  for (uint32_t verb : {23u, 62u}) {
    for (const auto& c : cases) {
      fake::lines.clear();
      int32_t length = c.length;
      seputrcp(1, verb, nullptr, id, name, &length, nullptr, nullptr, nullptr);
      ASSERT_GE(fake::lines.size(), 5u) << verb << " " << c.length;
      EXPECT_NE(fake::lines[3].find(" LU name ="), std::string::npos) << verb << " " << c.length;
      if (c.dumped != 0) {
        EXPECT_EQ(fake::lines[4], fake::dump_text(name, c.dumped)) << verb << " " << c.length;
      } else {
        EXPECT_NE(fake::lines[4].find(" LU name length = "), std::string::npos) << verb << " " << c.length;
      }
    }
  }
}

// An extract call's response record dumps no more of the name than the
// call writes, whatever length it reports (the stored one, or the caller's
// own value after a failure).
TEST(trace_records, ExtractedNameDumpStopsAtWhatTheCallWrites) {
  const uint8_t name[10] = {'U', 'S', 'E', 'R', 'N', 'A', 'M', 'E', '9', '0'};
  const struct {
    uint32_t verb;
    int32_t length;
    size_t dumped;
  } cases[] = {{58, 10, 8}, {33, 10, 8}, {49, 10, 10}, {49, 7, 7}, {7, 60, 8},
               {8, 60, 17}, {56, 60, 8}, {60, 60, 8}};
  std::vector<uint8_t> buffer(64, 'x');
  std::copy(std::begin(name), std::end(name), buffer.begin());
  for (const auto& c : cases) {
    fake::reset();
    int32_t rc = 0, length = c.length;
    seputrcp(2, c.verb, nullptr, &rc, buffer.data(), &length, nullptr, nullptr, nullptr);
    ASSERT_GE(fake::lines.size(), 4u) << c.verb;
    EXPECT_EQ(fake::lines[3], fake::dump_text(buffer.data(), c.dumped)) << c.verb << " " << c.length;
  }
}

// Set_CPIC_Side_Information is traced before its length is checked, and
// its record shows the entry whatever length came with it.
TEST(trace_records, SideInfoEntryShownWhateverTheLength) {
  fake::reset();
  uint8_t entry[124] = {'S', 'Y', 'M', ' ', ' ', ' ', ' ', ' '};
  for (int32_t length : {124, 115, 30, 0, -124}) {
    fake::lines.clear();
    int32_t key = 0;
    seputrcp(1, 38, nullptr, &key, entry, &length, nullptr, nullptr, nullptr);
    ASSERT_GE(fake::lines.size(), 4u) << length;
    EXPECT_EQ(fake::lines[2].rfind(" Sym dest name = SYM", 0), 0u) << fake::lines[2];
    EXPECT_EQ(fake::lines.back(),
              " Entry length = " + std::to_string(static_cast<uint32_t>(length)));
  }
}

// Set_Log_Data and Send_Data are traced before their length is checked:
// the dump covers the whole length the program gave, even one the call
// then refuses.
TEST(trace_records, BufferDumpCoversTheGivenLength) {
  fake::reset();
  uint8_t id[8] = {1, 2, 3, 4, 0, 0, 0, 0};
  std::vector<uint8_t> data(40000, 0x5A);
  for (int32_t length : {32767, 32768, 40000}) {
    fake::lines.clear();
    seputrcp(1, 21, nullptr, id, data.data(), &length, nullptr, nullptr, nullptr);
    ASSERT_GE(fake::lines.size(), 5u) << length;
    EXPECT_EQ(fake::lines[4], fake::dump_text(data.data(), static_cast<uint32_t>(length))) << length;
  }
}

}  // namespace
