// cpicping against cpicpingd through a node started for each test: the
// echo TP is started by the node's attach manager from the configuration.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "node_config.h"
#include "tool_process.h"

namespace {

using tooltest::RunResult;

class CpicpingNode : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string hash = tooltest::password_hash(tooltest::kPingPassword);
    ASSERT_FALSE(hash.empty()) << "no password hash from " << SNA_TEST_DAEMON;
    std::string error;
    ASSERT_TRUE(node_.start(tooltest::node_config(dir_, hash), error)) << error;
  }

  RunResult ping(std::vector<std::string> args) {
    args.insert(args.begin(), CPICPING_PATH);
    return tooltest::run(args, node_.client_env(), "", 60000);
  }

  // Nothing the echo TP wrote means every instance ended normally.
  std::string echo_log() const { return tooltest::read_file(dir_.file("cpicpingd.log")); }

  tooltest::TempDir dir_;
  tooltest::Node node_{dir_};
};

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Checks the per-iteration lines and the summary of a run that succeeded.
void expect_report(const RunResult& r, long iterations, long consecutive, long size, bool quiet) {
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), quiet ? 1u : static_cast<size_t>(iterations) + 2) << r.out;
  const std::string shape = std::to_string(consecutive) + " x " + std::to_string(size) + " bytes";
  if (!quiet) {
    EXPECT_EQ(lines[0].rfind("cpicping: allocated a conversation with TP ", 0), 0u) << lines[0];
    for (long i = 1; i <= iterations; ++i) {
      const std::regex line("iteration " + std::to_string(i) + ": round trip [0-9]+\\.[0-9]{3} ms, " +
                            shape + ", [0-9]+\\.[0-9] KB/s");
      EXPECT_TRUE(std::regex_match(lines[static_cast<size_t>(i)], line)) << lines[static_cast<size_t>(i)];
    }
  }
  const std::regex summary("summary: " + std::to_string(iterations) + " iterations of " + shape +
                           ", round trip min/avg/max ([0-9.]+)/([0-9.]+)/([0-9.]+) ms, "
                           "throughput ([0-9]+\\.[0-9]) KB/s");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines.back(), m, summary)) << lines.back();
  const double min = std::stod(m[1]), avg = std::stod(m[2]), max = std::stod(m[3]);
  EXPECT_LE(min, avg);
  EXPECT_LE(avg, max);
  EXPECT_GT(max, 0.0);
  if (size > 0) {
    EXPECT_GT(std::stod(m[4]), 0.0);
  }
}

TEST_F(CpicpingNode, PingsTheLocalLuWithTheDefaults) {
  RunResult r = ping({"NETWORK.LOCAL"});
  expect_report(r, 4, 1, 100, false);
  EXPECT_NE(r.out.find("with TP CPICPINGD at NETWORK.LOCAL, mode #INTER,"), std::string::npos) << r.out;
  EXPECT_EQ(echo_log(), "");
}

TEST_F(CpicpingNode, ShapesOfTheRoundTrip) {
  struct Case {
    long iterations, consecutive, size;
    bool quiet;
  };
  const Case cases[] = {
      {2, 1, 0, false},      // null records
      {2, 3, 32767, false},  // largest buffers, several per turn
      {3, 50, 1, false},     // many small buffers
      {1, 1, 4096, true},
      {5, 2, 100, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("-i " + std::to_string(c.iterations) + " -c " + std::to_string(c.consecutive) +
                 " -s " + std::to_string(c.size));
    std::vector<std::string> args = {"-i", std::to_string(c.iterations), "-c",
                                     std::to_string(c.consecutive), "-s", std::to_string(c.size)};
    if (c.quiet) args.push_back("-q");
    args.push_back("NETWORK.LOCAL");
    expect_report(ping(args), c.iterations, c.consecutive, c.size, c.quiet);
  }
  EXPECT_EQ(echo_log(), "");
}

TEST_F(CpicpingNode, DestinationForms) {
  // A symbolic destination name, and the local LU's alias.
  RunResult r = ping({"-i", "1", "PINGSIDE"});
  expect_report(r, 1, 1, 100, false);
  EXPECT_NE(r.out.find("TP CPICPINGD at NETWORK.LOCAL, mode #INTER, side information PINGSIDE"),
            std::string::npos)
      << r.out;
  r = ping({"-i", "1", "LOCAL"});
  expect_report(r, 1, 1, 100, false);
  EXPECT_NE(r.out.find("TP CPICPINGD at LOCAL,"), std::string::npos) << r.out;
}

TEST_F(CpicpingNode, FailuresNameTheCallAndItsReturnCode) {
  struct Case {
    std::vector<std::string> args;
    const char* message;
  };
  const Case cases[] = {
      // The node learns of a refused allocation with the first data; the
      // receive after it reports the refusal.
      {{"-t", "NOSUCHTP", "NETWORK.LOCAL"}, "cpicping: CMRCV failed: CM_TPN_NOT_RECOGNIZED\n"},
      // Options given explicitly override the side information.
      {{"-t", "NOSUCHTP", "PINGSIDE"}, "cpicping: CMRCV failed: CM_TPN_NOT_RECOGNIZED\n"},
      {{"NOSUCHLU"}, "cpicping: CMALLC failed: CM_PARAMETER_ERROR\n"},
      {{"NOSUCH.LUNAME"}, "cpicping: CMALLC failed: CM_ALLOCATE_FAILURE_NO_RETRY\n"},
      {{"-m", "NOMODE", "NETWORK.LOCAL"}, "cpicping: CMALLC failed: CM_PARAMETER_ERROR\n"},
      {{"-t", "BASICPD", "NETWORK.LOCAL"}, "cpicping: CMRCV failed: CM_CONVERSATION_TYPE_MISMATCH\n"},
      {{"-t", "SECPINGD", "NETWORK.LOCAL"}, "cpicping: CMRCV failed: CM_SECURITY_NOT_VALID\n"},
      {{"-u", "PINGUSER", "-p", "WRONG", "NETWORK.LOCAL"},
       "cpicping: CMRCV failed: CM_SECURITY_NOT_VALID\n"},
      {{"-u", "NOBODY", "-p", "PINGPASS", "NETWORK.LOCAL"},
       "cpicping: CMRCV failed: CM_SECURITY_NOT_VALID\n"},
      // The side information's password is not a security user's.
      {{"SECSIDE"}, "cpicping: CMRCV failed: CM_SECURITY_NOT_VALID\n"},
  };
  for (const Case& c : cases) {
    std::string shown;
    for (const std::string& a : c.args) shown += "[" + a + "]";
    SCOPED_TRACE(shown);
    RunResult r = ping(c.args);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.out.find("summary:"), std::string::npos) << r.out;
  }
}

TEST_F(CpicpingNode, ConversationSecurity) {
  expect_report(ping({"-i", "1", "-u", tooltest::kPingUser, "-p", tooltest::kPingPassword,
                      "NETWORK.LOCAL"}),
                1, 1, 100, false);
  expect_report(ping({"-i", "1", "-y", "same", "-t", "SECPINGD", "NETWORK.LOCAL"}), 1, 1, 100, false);
  // Side information with program security, its password overridden.
  expect_report(ping({"-i", "1", "-u", tooltest::kPingUser, "-p", tooltest::kPingPassword, "SECSIDE"}),
                1, 1, 100, false);
  EXPECT_EQ(echo_log(), "");
}

}  // namespace
