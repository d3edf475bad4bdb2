// First-use initialisation: the environment's TP name and LU alias, and
// every failure step with its problem record, undo and retry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "child_process.h"
#include "cpic.h"
#include "internal.h"
#include "testnode.h"

using namespace cpic;
using cpictest::in_child;
using cpictest::Verdict;

namespace {

std::string ebcdic_of(const char *ascii) {
  std::string out(std::strlen(ascii), '\0');
  SCC_convert_string(0, 2, static_cast<int16_t>(out.size()),
                     reinterpret_cast<uint8_t *>(out.data()),
                     reinterpret_cast<const uint8_t *>(ascii));
  return out;
}

// Initialises through a call and reports the GCB's environment fields.
struct EnvResult {
  std::string tp_name;  // the 64 bytes
  uint16_t length;
  uint16_t from_env;
  std::string lu_alias;  // the 8 bytes
};

std::string init_and_describe() {
  unsigned char id[8];
  CM_INT32 rc;
  cminic(id, &rc);
  if (rc != CM_OK) return "cminic failed";
  std::string s(reinterpret_cast<char *>(pGCB->abDefaultTpName), 64);
  s += "|" + std::to_string(pGCB->usDefaultTpNameLen) + "|" + std::to_string(pGCB->fTpNameFromEnv) +
       "|" + std::string(reinterpret_cast<char *>(pGCB->abDefaultLuAlias), 8);
  return s;
}

std::string expected(const std::string &tp64, int len, int from_env, const std::string &alias8) {
  return tp64 + "|" + std::to_string(len) + "|" + std::to_string(from_env) + "|" + alias8;
}

std::string padded(std::string s, size_t n, char pad) {
  s.resize(n, pad);
  return s;
}

struct EnvCase {
  const char *name;
  const char *appctpn;  // null: absent
  const char *appcllu;
  std::string tp64;
  int len;
  int from_env;
  std::string alias8;
};

std::vector<EnvCase> env_cases() {
  const std::string def = padded(ebcdic_of("CPIC_DEFAULT_TPNAME"), 64, '\x40');
  const std::string zero8(8, '\0');
  std::string long_name(70, 'T');
  return {
      {"Absent", nullptr, nullptr, def, 19, 0, zero8},
      {"Empty", "", "", def, 19, 0, zero8},
      {"Plain", "MYTP", "LU1", padded(ebcdic_of("MYTP"), 64, '\x40'), 4, 1, "LU1     "},
      {"PlainNotValidated", "a!b", "lowercase9", padded(std::string("\x81\x00\x82", 3), 64, '\x40'), 3, 1,
       "lowercas"},
      {"Cut64", "TTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTT", "ABCDEFGH",
       ebcdic_of(std::string(64, 'T').c_str()), 64, 0 + 1, "ABCDEFGH"},
      {"ServiceEven", "SNA_SERVICE_TP_0x06F1", nullptr, padded(std::string("\x06\xF1", 2), 64, '\x40'), 2,
       0, zero8},
      {"ServiceOdd", "SNA_SERVICE_TP_0x6", nullptr, padded(std::string("\x60", 1), 64, '\x40'), 1, 0,
       zero8},
      {"ServiceLowerAndOddLetters", "SNA_SERVICE_TP_0xabG0", nullptr,
       // 'G' folds to (0x47-0x37)&0xDF = 0x10; shifted into a byte it is 0.
       padded(std::string("\xAB\x00", 2), 64, '\x40'), 2, 0, zero8},
      {"ServiceBoundedAt64", nullptr, nullptr, "", 64, 0, zero8},
  };
}

class EnvironmentForms : public ::testing::TestWithParam<EnvCase> {};

TEST_P(EnvironmentForms, DecodedOnce) {
  const EnvCase &c = GetParam();
  std::string appctpn = c.appctpn ? c.appctpn : "";
  std::string tp64 = c.tp64;
  if (std::string(c.name) == "ServiceBoundedAt64") {
    appctpn = "SNA_SERVICE_TP_0x" + std::string(200, '1');  // 100 pairs of 0x11
    tp64 = std::string(64, '\x11');
  }
  const bool set_tpn = c.appctpn != nullptr || std::string(c.name) == "ServiceBoundedAt64";
  std::string got = in_child({{"APPCTPN", set_tpn ? appctpn.c_str() : nullptr}, {"APPCLLU", c.appcllu}},
                             init_and_describe);
  EXPECT_EQ(got, expected(tp64, c.len, c.from_env, c.alias8));
}

INSTANTIATE_TEST_SUITE_P(AppctpnAndAppcllu, EnvironmentForms, ::testing::ValuesIn(env_cases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(EnvironmentForms, ReadOnlyAtFirstInitialisation) {
  std::string got = in_child({{"APPCLLU", "FIRST"}}, [] {
    unsigned char id[8];
    CM_INT32 rc;
    cminic(id, &rc);
    setenv("APPCLLU", "SECOND", 1);
    cminic(id, &rc);
    return std::string(reinterpret_cast<char *>(pGCB->abDefaultLuAlias), 8);
  });
  EXPECT_EQ(got, "FIRST   ");
}

// ---- Failure steps ---------------------------------------------------

struct InitFailure {
  const char *name;
  std::function<void()> inject;
  uint32_t message;
  uint32_t sub_code;
};

std::vector<InitFailure> init_failures() {
  return {
      {"CccbTable", [] { testnode::fail_table_init(1); }, 0x2003000A, 1},
      {"SideInfoTable", [] { testnode::fail_table_init(2); }, 0x2003000A, 2},
      {"LocTpNameTable", [] { testnode::fail_table_init(3); }, 0x2003000A, 3},
      {"PathUser", [] { testnode::fail_path_user(true); }, 0x2003000A, 0},
      {"WaitObject", [] { testnode::fail_wait_object(true); }, 0x2003000B, 12},
  };
}

class InitialisationFailure : public ::testing::TestWithParam<InitFailure> {};

TEST_P(InitialisationFailure, LogsUndoesAndRetries) {
  const InitFailure &f = GetParam();
  std::string verdict = in_child({}, [&f] {
    Verdict v;
    testnode::reset();
    f.inject();
    unsigned char id[8];
    CM_INT32 rc = -1;
    CMINIC(id, &rc);
    v.eq(rc, CM_PRODUCT_SPECIFIC_ERROR, "rc of failed initialisation");
    v.eq(fInitCPIC, 0, "fInitCPIC after failure");
    v.eq(testnode::problems().size(), 1u, "problem records");
    if (!testnode::problems().empty()) {
      v.eq(testnode::problems()[0].message, f.message, "message");
      v.eq(testnode::problems()[0].sub_code, f.sub_code, "sub-code");
      v.check(testnode::problems()[0].data.empty(), "no data");
    }
    v.eq(testnode::live_tables(), 0, "tables left");
    v.eq(testnode::live_path_users(), 0, "path users left");
    v.eq(testnode::live_wait_objects(), 0, "wait objects left");
    v.eq(pGCB->hCccbTable, 0u, "hCccbTable zeroed");
    v.eq(pGCB->hPathUser, 0u, "hPathUser zeroed");
    // Once the failure is gone the whole initialisation runs again.
    testnode::fail_path_user(false);
    testnode::fail_wait_object(false);
    CMINIC(id, &rc);
    v.eq(rc, CM_OK, "rc after the failure is gone");
    v.eq(fInitCPIC, 1, "fInitCPIC after retry");
    v.eq(testnode::live_tables(), 3, "three tables");
    v.eq(testnode::live_path_users(), 1, "one path user");
    v.eq(testnode::live_wait_objects(), 1, "one wait object");
    return v.text;
  });
  EXPECT_EQ(verdict, "");
}

INSTANTIATE_TEST_SUITE_P(EveryStep, InitialisationFailure, ::testing::ValuesIn(init_failures()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Initialisation, MaximumBufferSizeBeforeInitialisation) {
  std::string verdict = in_child({}, [] {
    Verdict v;
    CM_INT32 size = 0, rc = -1;
    CMEMBS(&size, &rc);
    v.eq(size, 32767, "maximum buffer size");
    v.eq(rc, CM_OK, "rc");
    v.eq(fInitCPIC, 0, "CMEMBS does not initialise");
    return v.text;
  });
  EXPECT_EQ(verdict, "");
}

TEST(Initialisation, ConversionNeedsNoInitialisation) {
  std::string verdict = in_child({}, [] {
    Verdict v;
    unsigned char buf[3] = {'a', '[', 'b'};
    CM_INT32 len = 3, rc = -1;
    CMCNVO(buf, &len, &rc);
    v.eq(rc, CM_OK, "rc");
    v.eq(buf[0], 0x81, "a");
    v.eq(buf[1], 0x00, "[");
    v.eq(buf[2], 0x82, "b");
    v.eq(fInitCPIC, 0, "not initialised");
    return v.text;
  });
  EXPECT_EQ(verdict, "");
}

}  // namespace
