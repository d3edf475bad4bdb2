// Conversation security at the target: the host's password check when it
// gives one, the node's own table otherwise.
#include <utility>

#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true;

struct SecurityCase {
  const char* name;
  bool host_check;  // NodeConfig::check_password set
  const char* user;
  const char* password;
  bool accepted;
};
inline void PrintTo(const SecurityCase& c, std::ostream* os) { *os << c.name; }

const SecurityCase kSecurityCases[] = {
    {"host check accepts its pair", true, "USER1", "SECRET", true},
    {"host check refuses a wrong password", true, "USER1", "WRONG", false},
    {"host check overrides the table", true, "TABLEU", "TABLEP", false},
    {"host check gets special characters", true, "U$#@.", "p[a]{s}~", true},
    {"blank password never reaches the host", true, "USER1", "", false},
    {"table accepts its pair", false, "TABLEU", "TABLEP", true},
    {"table refuses a wrong password", false, "TABLEU", "SECRET", false},
    {"table refuses an unknown user", false, "USER1", "SECRET", false},
};

class ProtoSecurity : public ::testing::TestWithParam<SecurityCase> {};

TEST_P(ProtoSecurity, ProgramSecurityIsChecked) {
  const auto& c = GetParam();
  std::vector<std::pair<std::string, std::string>> asked;
  NodeConfig cfg;
  cfg.security_users.push_back({"TABLEU", "TABLEP"});
  if (c.host_check) {
    cfg.check_password = [&asked](const std::string& u, const std::string& p) {
      asked.emplace_back(u, p);
      return (u == "USER1" && p == "SECRET") || (u == "U$#@." && p == "p[a]{s}~");
    };
  }
  Harness h(std::move(cfg));
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SRV");
  const uint64_t acc = h.receive_allocate(Harness::kB);
  Verb al = h.allocate_verb("SRV");
  al.security = 2;
  Bytes u = ebcdic_field(c.user, 10), p = ebcdic_field(c.password, 10);
  std::copy(u.begin(), u.end(), al.user_id.begin());
  std::copy(p.begin(), p.end(), al.password.begin());
  VerbResult r = h.run(Harness::kA, al);
  ASSERT_EQ(r.primary, 0);
  h.conv_a = r.conv_id;
  ASSERT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  if (c.accepted) {
    VerbResult a = h.result(acc);
    EXPECT_EQ(a.primary, 0);
    EXPECT_EQ(ebcdic_text(a.user_id), c.user);
  } else {
    EXPECT_FALSE(h.finished(acc));
    VerbResult s = h.send(A, text("x"), 0);
    EXPECT_EQ(s.primary, rc::kAllocationError);
    EXPECT_EQ(s.secondary, 0x080F6051u);
  }
  if (c.host_check && c.password[0] != '\0') {
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].first, c.user);
    EXPECT_EQ(asked[0].second, c.password);
  } else {
    EXPECT_TRUE(asked.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoSecurity, ::testing::ValuesIn(kSecurityCases));

TEST(ProtoSecurity, SameIsNotCheckedAgainstPasswords) {
  int calls = 0;
  NodeConfig cfg;
  cfg.check_password = [&calls](const std::string&, const std::string&) {
    ++calls;
    return false;
  };
  Harness h(std::move(cfg));
  h.connect();  // security "same": already verified
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace sna::proto::test
