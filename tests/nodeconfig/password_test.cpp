// Password hashes for security users: salted, verifiable, and refusing
// anything that is not a hash.
#include <gtest/gtest.h>

#include <string>

#include "nodeconfig/daemon_config.h"

namespace sna::config {
namespace {

TEST(ConfigPassword, HashVerifiesItsPasswordOnly) {
  const std::string h = hash_password("correct horse");
  ASSERT_FALSE(h.empty());
  EXPECT_TRUE(h.rfind("$y$", 0) == 0 || h.rfind("$6$", 0) == 0) << h;
  EXPECT_TRUE(verify_password("correct horse", h));
  EXPECT_FALSE(verify_password("correct horsf", h));
  EXPECT_FALSE(verify_password("correct horse ", h));
  EXPECT_FALSE(verify_password("", h));
  EXPECT_FALSE(verify_password("Correct horse", h));
}

TEST(ConfigPassword, EverySaltIsNew) {
  const std::string a = hash_password("same"), b = hash_password("same");
  ASSERT_FALSE(a.empty());
  EXPECT_NE(a, b);
  EXPECT_TRUE(verify_password("same", a));
  EXPECT_TRUE(verify_password("same", b));
}

TEST(ConfigPassword, EmptyAndLongPasswords) {
  const std::string e = hash_password("");
  ASSERT_FALSE(e.empty());
  EXPECT_TRUE(verify_password("", e));
  EXPECT_FALSE(verify_password("x", e));
  const std::string long_pw(200, 'p');
  const std::string l = hash_password(long_pw);
  ASSERT_FALSE(l.empty());
  EXPECT_TRUE(verify_password(long_pw, l));
  EXPECT_FALSE(verify_password(long_pw.substr(0, 199), l));
}

TEST(ConfigPassword, NulByteIsRefused) {
  EXPECT_TRUE(hash_password(std::string("ab\0cd", 5)).empty());
  const std::string h = hash_password("ab");
  EXPECT_FALSE(verify_password(std::string("ab\0cd", 5), h)) << "not the prefix before the NUL";
}

TEST(ConfigPassword, AlteredHashDoesNotVerify) {
  // The same setting with a different result: the comparison, not crypt,
  // must refuse it.
  const std::string h = hash_password("x");
  ASSERT_FALSE(h.empty());
  std::string other = h;
  other.back() = other.back() == 'A' ? 'B' : 'A';  // same setting, wrong result
  EXPECT_FALSE(verify_password("x", other));
}

struct MalformedCase {
  const char* name;
  const char* hash;
};
inline void PrintTo(const MalformedCase& c, std::ostream* os) { *os << c.name; }

const MalformedCase kMalformed[] = {
    {"empty", ""},
    {"plain text", "secret"},
    {"locked account marker", "!"},
    {"star", "*"},
    {"unknown method", "$99$salt$hash"},
    {"truncated method", "$"},
    {"yescrypt without parameters", "$y$"},
    {"sha512 with a bad rounds value", "$6$rounds=x$salt$hash"},
};

class ConfigPasswordMalformed : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(ConfigPasswordMalformed, NeverVerifies) {
  EXPECT_FALSE(verify_password("", GetParam().hash));
  EXPECT_FALSE(verify_password("secret", GetParam().hash));
}

INSTANTIATE_TEST_SUITE_P(ConfigTable, ConfigPasswordMalformed, ::testing::ValuesIn(kMalformed));

}  // namespace
}  // namespace sna::config
