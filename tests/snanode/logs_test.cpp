// Problem and audit logs: location, line layout and the decoding of every
// format descriptor.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "snanode/node.h"
#include "temp_dir.h"

namespace {

std::string state_dir;

// The directory does not exist yet: the runtime creates it, parents too.
struct Environment : ::testing::Environment {
  void SetUp() override {
    state_dir = snanode_test::make_temp_dir() + "/deeper/state";
    setenv("SNANODE_STATE_DIR", state_dir.c_str(), 1);
  }
};
[[maybe_unused]] auto *const environment = ::testing::AddGlobalTestEnvironment(new Environment);

// The data part of the line written for message `message`, after the header.
std::string data_of(const std::string &log, uint32_t message) {
  char key[32];
  snprintf(key, sizeof key, " msg=%08X sub=", message);
  for (const std::string &line : snanode_test::read_lines(state_dir + "/" + log)) {
    size_t at = line.find(key);
    if (at == std::string::npos) continue;
    size_t data = line.find(' ', at + strlen(key));
    return data == std::string::npos ? std::string() : line.substr(data + 1);
  }
  return "<no line>";
}

struct DecodeCase {
  const char *name;
  uint32_t message;
  std::function<void(uint32_t)> write;
  const char *expected;
};

const unsigned char bytes[] = {0xC1, 0x00, 0x7F, 0xFF, 0x40};
const char text[] = "ab\ncd \"q\" \\ \x01\xE9";

TEST(ProblemLog, DecodesEveryDescriptor) {
  const DecodeCase cases[] = {
      {"empty format", 0x20030101, [](uint32_t m) { nba_pd_print_problem(m, 0, ""); }, "<none>"},
      {"null format", 0x20030102, [](uint32_t m) { nba_pd_print_problem(m, 0, nullptr); }, "<none>"},
      {"b", 0x20030103, [](uint32_t m) { nba_pd_print_problem(m, 1, "b", 0x41); }, "41"},
      {"b keeps one byte", 0x20030104, [](uint32_t m) { nba_pd_print_problem(m, 1, "b", 0x1FF); }, "FF"},
      {"x", 0x20030105, [](uint32_t m) { nba_pd_print_problem(m, 2, "x", 0xF1); }, "00F1"},
      {"x keeps 16 bits", 0x20030106, [](uint32_t m) { nba_pd_print_problem(m, 2, "x", 0x12345); }, "2345"},
      {"l", 0x20030107, [](uint32_t m) { nba_pd_print_problem(m, 3, "l", 817u); }, "817"},
      {"l unsigned", 0x20030108, [](uint32_t m) { nba_pd_print_problem(m, 3, "l", 0xFFFFFFFFu); }, "4294967295"},
      {"lx", 0x20030109, [](uint32_t m) { nba_pd_print_problem(m, 4, "lx", 0x10086021u); }, "10086021"},
      {"lx pads", 0x2003010A, [](uint32_t m) { nba_pd_print_problem(m, 4, "lx", 0x31u); }, "00000031"},
      {"ba", 0x2003010B, [](uint32_t m) { nba_pd_print_problem(m, 5, "ba", 5, bytes); }, "C1007FFF40"},
      {"ba empty", 0x2003010C, [](uint32_t m) { nba_pd_print_problem(m, 5, "ba", 0, bytes); }, "-"},
      {"ba null", 0x2003010D, [](uint32_t m) { nba_pd_print_problem(m, 5, "ba", 3, nullptr); }, "(null)"},
      {"es", 0x2003010E,
       [](uint32_t m) { nba_pd_print_problem(m, 6, "es", static_cast<int>(sizeof text - 1), text); },
       "\"ab\\x0Acd \\x22q\\x22 \\x5C \\x01\\xE9\""},
      {"es empty", 0x2003010F, [](uint32_t m) { nba_pd_print_problem(m, 6, "es", 0, text); }, "\"\""},
      {"es length bounds the text", 0x20030110,
       [](uint32_t m) { nba_pd_print_problem(m, 6, "es", 2, "abcdef"); }, "\"ab\""},
      {"several", 0x20030111,
       [](uint32_t m) { nba_pd_print_problem(m, 7, "x x lx", 1, 0xABCD, 0xDEADBEEFu); },
       "0001 ABCD DEADBEEF"},
      {"all kinds", 0x20030112,
       [](uint32_t m) {
         nba_pd_print_problem(m, 8, "b x l lx ba es", 7, 8, 9u, 10u, 2, bytes, 3, "xyz");
       },
       "07 0008 9 0000000A C100 \"xyz\""},
      {"extra blanks", 0x20030113, [](uint32_t m) { nba_pd_print_problem(m, 9, "  l   l ", 1u, 2u); }, "1 2"},
      {"unknown descriptor stops", 0x20030114,
       [](uint32_t m) { nba_pd_print_problem(m, 10, "l q l", 5u, 6u); }, "5 ?q"},
  };
  for (const DecodeCase &c : cases) c.write(c.message);
  for (const DecodeCase &c : cases) {
    std::string data = data_of("problems.log", c.message);
    if (std::string(c.expected) == "<none>") {
      // The line ends right after the sub-code.
      EXPECT_EQ(data, "") << c.name;
    } else {
      EXPECT_EQ(data, c.expected) << c.name;
    }
  }
}

TEST(ProblemLog, LineHeaderHasTimePidThreadMessageAndSubCode) {
  nba_pd_print_problem(0x2003ABCD, 12, "l", 1u);
  std::regex header(
      R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d pid=(\d+) tid=(\d+) msg=2003ABCD sub=12 1$)");
  bool found = false;
  for (const std::string &line : snanode_test::read_lines(state_dir + "/problems.log")) {
    std::smatch m;
    if (!std::regex_match(line, m, header)) continue;
    found = true;
    EXPECT_EQ(std::stol(m[1]), static_cast<long>(getpid()));
    EXPECT_EQ(std::stol(m[2]), static_cast<long>(gettid()));
  }
  EXPECT_TRUE(found);
}

TEST(ProblemLog, DirectoryIsPrivate) {
  nba_pd_print_problem(0x20030200, 0, "");
  struct stat info;
  ASSERT_EQ(stat(state_dir.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST(ProblemLog, AssertionIsAProblemRecord) {
  v0_assert("../../p/vcpic/cpicutil", 817, "pGCB->NumVerbsWaiting > 0");
  EXPECT_EQ(data_of("problems.log", 0x10000001), "\"../../p/vcpic/cpicutil\" 817 \"pGCB->NumVerbsWaiting > 0\"");
}

TEST(AuditLog, WritesItsOwnFileAndHonoursSuppression) {
  nba_pd_print_audit(0x20030006, 1, "es", 8, "SIDEINFO");
  EXPECT_EQ(data_of("audit.log", 0x20030006), "\"SIDEINFO\"");
  EXPECT_EQ(data_of("problems.log", 0x20030006), "<no line>");

  ptrc[8] |= 0x02;
  nba_pd_print_audit(0x20030007, 1, "l", 5u);
  ptrc[8] &= static_cast<unsigned char>(~0x02);
  EXPECT_EQ(data_of("audit.log", 0x20030007), "<no line>");
  nba_pd_print_audit(0x20030008, 1, "l", 6u);
  EXPECT_EQ(data_of("audit.log", 0x20030008), "6");
}

TEST(ProblemLog, ConcurrentWritersNeverInterleave) {
  constexpr int threads = 4, records = 300;
  std::string long_text(600, 'z');
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([t, &long_text] {
      for (int r = 0; r < records; ++r)
        nba_pd_print_problem(0x20039000u + static_cast<uint32_t>(t), static_cast<uint32_t>(r), "l es",
                             static_cast<uint32_t>(r), static_cast<int>(long_text.size()), long_text.c_str());
    });
  for (auto &w : workers) w.join();
  std::regex line_shape(R"(^\S+ pid=\d+ tid=\d+ msg=2003900(\d) sub=(\d+) (\d+) "z{600}"$)");
  int seen = 0;
  for (const std::string &line : snanode_test::read_lines(state_dir + "/problems.log")) {
    if (line.find("msg=2003900") == std::string::npos) continue;
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, line_shape)) << line.substr(0, 120);
    EXPECT_EQ(m[2], m[3]);
    ++seen;
  }
  EXPECT_EQ(seen, threads * records);
}

// Runs the probe program with the environment given and returns its stderr.
std::string run_probe(const std::vector<std::string> &environment_entries) {
  std::string err_path = snanode_test::make_temp_dir() + "/stderr";
  pid_t child = fork();
  if (child == 0) {
    int fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    std::vector<char *> envp;
    for (const std::string &e : environment_entries) envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    char *argv[] = {const_cast<char *>(SNANODE_LOG_PROBE), nullptr};
    execve(SNANODE_LOG_PROBE, argv, envp.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the probe must not fail";
  return snanode_test::read_file(err_path);
}

TEST(StateDirectory, FallsBackToXdgStateHomeThenHome) {
  std::string base = snanode_test::make_temp_dir();
  struct Case {
    std::vector<std::string> environment;
    std::string expected_dir;
  };
  const Case cases[] = {
      {{"XDG_STATE_HOME=" + base + "/xdg", "HOME=" + base + "/home1"}, base + "/xdg/snanode"},
      {{"HOME=" + base + "/home2"}, base + "/home2/.local/state/snanode"},
      {{"SNANODE_STATE_DIR=" + base + "/named", "XDG_STATE_HOME=" + base + "/unused"}, base + "/named"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(run_probe(c.environment), "");
    std::vector<std::string> lines = snanode_test::read_lines(c.expected_dir + "/problems.log");
    ASSERT_EQ(lines.size(), 2u) << c.expected_dir;
    EXPECT_NE(lines[0].find("msg=12345678 sub=7 42"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("msg=10000001 sub=0 \"probe.cpp\" 9 \"probe\""), std::string::npos);
    EXPECT_EQ(snanode_test::read_lines(c.expected_dir + "/audit.log").size(), 1u);
  }
}

TEST(StateDirectory, UncreatableDirectoryIsReportedOnceAndHarmless) {
  std::string base = snanode_test::make_temp_dir();
  std::string blocker = base + "/file";
  close(open(blocker.c_str(), O_WRONLY | O_CREAT, 0600));
  std::string err = run_probe({"SNANODE_STATE_DIR=" + blocker + "/below"});
  size_t first = err.find("snanode: no state directory");
  ASSERT_NE(first, std::string::npos) << err;
  EXPECT_EQ(err.find("snanode:", first + 1), std::string::npos) << "reported once: " << err;
}

}  // namespace
