// The tools as a user meets them without a node: argument errors, no
// node running, and snactl against a stand-in node that answers (or does
// not) as each case needs.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "tool_process.h"
#include "wire/wire_protocol.h"

namespace {

using tooltest::run;
using tooltest::RunResult;

const tooltest::Env kNoNode = {{"SNANODE_AUTOSTART", "0"},
                               {"SNANODE_SOCKET", "/nonexistent/snatools/socket"},
                               {"SNANODE_STATE_DIR", "/tmp"}};

struct ArgCase {
  std::vector<std::string> args;
  const char* message;
};

void expect_usage_error(const char* program, const ArgCase& c) {
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), c.args.begin(), c.args.end());
  RunResult r = run(argv, kNoNode, "", 20000);
  std::string shown;
  for (const std::string& a : c.args) shown += "[" + a + "]";
  EXPECT_EQ(r.status, 2) << program << " " << shown << "\n" << r.err;
  EXPECT_NE(r.err.find(c.message), std::string::npos) << program << " " << shown << "\n" << r.err;
  EXPECT_EQ(r.out, "") << shown;
}

TEST(CpicpingCli, ArgumentErrors) {
  const ArgCase cases[] = {
      {{}, "cpicping: no destination given"},
      {{"-s", "40000", "D"}, "cpicping: size must be a number from 0 to 32767: 40000"},
      {{"-i", "zero", "D"}, "cpicping: iterations must be a number"},
      {{"-y", "bogus", "D"}, "cpicping: security type must be none, same or program: bogus"},
      {{"-z", "D"}, "cpicping: unknown option: -z"},
      {{"A", "B"}, "cpicping: more than one destination: B"},
      {{"-y", "program", "D"}, "needs both -u USER and -p PASSWORD"},
  };
  for (const ArgCase& c : cases) expect_usage_error(CPICPING_PATH, c);
}

TEST(CpicpingCli, UsageNamesTheHelpOption) {
  RunResult r = run({CPICPING_PATH}, kNoNode);
  EXPECT_NE(r.err.find("usage: cpicping [options] DESTINATION"), std::string::npos) << r.err;
}

TEST(CpicpingCli, HelpListsEveryOption) {
  RunResult r = run({CPICPING_PATH, "-h"}, kNoNode);
  EXPECT_EQ(r.status, 0);
  for (const char* option : {"-t TPNAME", "-m MODE", "-i ITERATIONS", "-c CONSECUTIVE", "-s SIZE",
                             "-y TYPE", "-u USER", "-p PASSWORD", "-q"})
    EXPECT_NE(r.out.find(option), std::string::npos) << option << "\n" << r.out;
}

TEST(CpicpingCli, NoNodeNamesTheFailingCall) {
  RunResult r = run({CPICPING_PATH, "NETWORK.LOCAL"}, kNoNode, "", 30000);
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("cpicping: CMALLC failed: CM_PRODUCT_SPECIFIC_ERROR"), std::string::npos)
      << r.err;
}

TEST(CpicpingdCli, ArgumentErrors) {
  const ArgCase cases[] = {
      {{"-x"}, "cpicpingd: unexpected argument: -x"},
      {{"extra"}, "cpicpingd: unexpected argument: extra"},
      {{"-h", "more"}, "cpicpingd: unexpected argument: -h"},
  };
  for (const ArgCase& c : cases) expect_usage_error(CPICPINGD_PATH, c);
  RunResult r = run({CPICPINGD_PATH, "--help"}, kNoNode);
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("usage: cpicpingd"), std::string::npos) << r.out;
}

TEST(CpicpingdCli, WithoutAnAllocationTheAcceptFails) {
  RunResult r = run({CPICPINGD_PATH}, kNoNode, "", 30000);
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("cpicpingd: CMACCP failed: CM_"), std::string::npos) << r.err;
}

TEST(SnactlCli, ArgumentErrors) {
  const ArgCase cases[] = {
      {{}, "snactl: A subcommand is required"},
      {{"bogus"}, "snactl: "},
      {{"trace"}, "STATE is required"},
      {{"trace", "maybe"}, "maybe not in {on,off}"},
      {{"sideinfo"}, "A subcommand is required"},
      {{"sideinfo", "show"}, "NAME is required"},
      {{"sideinfo", "define", "TOOLONGNAME", "--partner-lu", "X", "--tp-name", "T"},
       "must have 1 to 8 characters"},
      {{"sideinfo", "define", "N", "--tp-name", "T"}, "--partner-lu is required"},
      {{"sideinfo", "define", "N", "--partner-lu", "X", "--tp-name", "T", "--security", "odd"},
       "odd not in"},
      {{"log"}, "A subcommand is required"},
      {{"log", "tail", "other"}, "other not in {problems,audit}"},
      {{"log", "tail", "-n", "many"}, "many"},
      {{"--timeout", "0", "status"}, "--timeout"},
      {{"status", "extra"}, "extra"},
  };
  for (const ArgCase& c : cases) expect_usage_error(SNACTL_PATH, c);
}

TEST(SnactlCli, NoNodeRunning) {
  tooltest::TempDir dir;
  const std::string path = dir.file("missing.socket");
  for (const char* command : {"status", "stop"}) {
    RunResult r = run({SNACTL_PATH, "--socket", path, command});
    EXPECT_EQ(r.status, 3) << command;
    EXPECT_EQ(r.err, "snactl: no node is running at " + path + "\n") << command;
  }
  // A socket file that nobody listens on (a node that died) is the same.
  const std::string stale = dir.file("stale.socket");
  const int s = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, stale.c_str());
  ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(s);
  RunResult r = run({SNACTL_PATH, "--socket", stale, "--json", "status"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "snactl: no node is running at " + stale + "\n");
  // The socket comes from the environment when not given.
  r = run({SNACTL_PATH, "status"}, {{"SNANODE_SOCKET", path}});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "snactl: no node is running at " + path + "\n");
  // log tail needs the node for its state directory unless given one.
  r = run({SNACTL_PATH, "--socket", path, "log", "tail"});
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.err.find("--state-dir"), std::string::npos) << r.err;
}

// A stand-in node: accepts one operator connection and answers its
// requests as the test says.
class FakeNode {
 public:
  enum class Hello { kAccept, kRefuse };
  struct Plan {
    Hello hello = Hello::kAccept;
    std::vector<std::string> replies;  // one per request; "" = never answer
    bool push_first = false;           // a push and a stale reply before each answer
    bool close_after = true;           // close once the replies are given
  };

  FakeNode(const std::string& path, Plan plan) : path_(path), plan_(std::move(plan)) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    bound_ = ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
             ::listen(listener_, 4) == 0;
    if (pipe(stop_) != 0) bound_ = false;
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeNode() {
    (void)!::write(stop_[1], "x", 1);
    thread_.join();
    ::close(listener_);
    ::close(stop_[0]);
    ::close(stop_[1]);
  }
  bool bound() const { return bound_; }
  // The requests received, and the HELLO's flags.
  std::vector<std::string> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  uint32_t hello_flags() const { return hello_flags_; }

 private:
  // Waits for `fd` or the stop pipe; false when stopping or after 20 s.
  bool wait_for(int fd) {
    pollfd p[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    return ::poll(p, 2, 20000) > 0 && (p[0].revents & (POLLIN | POLLHUP)) && !(p[1].revents & POLLIN);
  }
  bool read_exact(int fd, uint8_t* out, size_t n) {
    size_t done = 0;
    while (done < n) {
      if (!wait_for(fd)) return false;
      const ssize_t got = ::read(fd, out + done, n - done);
      if (got <= 0) return false;
      done += static_cast<size_t>(got);
    }
    return true;
  }
  void send_frame(int fd, sna::wire::Kind kind, uint64_t tag, const std::string& body) {
    std::vector<uint8_t> frame(sna::wire::kHeaderSize + body.size());
    sna::wire::FrameHeader h;
    h.length = static_cast<uint32_t>(frame.size());
    h.kind = kind;
    h.tag = tag;
    sna::wire::encode_header(frame.data(), h);
    std::memcpy(frame.data() + sna::wire::kHeaderSize, body.data(), body.size());
    (void)!::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
  }
  void serve() {
    if (!bound_ || !wait_for(listener_)) return;
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    uint8_t header[sna::wire::kHeaderSize], hello[sna::wire::kHelloSize];
    if (read_exact(fd, header, sizeof header) && read_exact(fd, hello, sizeof hello)) {
      hello_flags_ = sna::wire::decode_hello(hello).flags;
      uint8_t reply[sna::wire::kHelloSize];
      sna::wire::HelloReply r;
      r.status = plan_.hello == Hello::kAccept ? 0 : 1;
      r.daemon_pid = 31337;
      sna::wire::encode_hello_reply(reply, r);
      send_frame(fd, sna::wire::Kind::kHelloReply, 0,
                 std::string(reinterpret_cast<char*>(reply), sizeof reply));
      for (const std::string& answer : plan_.replies) {
        if (!read_exact(fd, header, sizeof header)) break;
        const sna::wire::FrameHeader h = sna::wire::decode_header(header);
        std::string body(h.length - sna::wire::kHeaderSize, '\0');
        if (!read_exact(fd, reinterpret_cast<uint8_t*>(body.data()), body.size())) break;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          requests_.push_back(body);
        }
        if (answer.empty()) {
          wait_for(stop_[0]);  // never answers; ends with the test
          break;
        }
        if (plan_.push_first) {
          send_frame(fd, sna::wire::Kind::kTraceControl, 0, std::string("\x01\x00\x00\x00", 4));
          send_frame(fd, sna::wire::Kind::kOperatorReply, h.tag + 1000, "{\"stale\":true}");
        }
        send_frame(fd, sna::wire::Kind::kOperatorReply, h.tag, answer);
      }
      if (!plan_.close_after) wait_for(stop_[0]);
    }
    ::close(fd);
  }

  std::string path_;
  Plan plan_;
  int listener_ = -1;
  int stop_[2] = {-1, -1};
  bool bound_ = false;
  std::atomic<uint32_t> hello_flags_{0};
  std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

struct FakeCase {
  const char* title;
  std::vector<std::string> args;
  FakeNode::Plan plan;
  int status;
  const char* out;  // substring of stdout ("" = stdout empty)
  const char* err;  // substring of stderr ("" = stderr empty)
  const char* request;  // JSON the node must have received (null: not checked)
};

TEST(SnactlCli, AgainstAStandInNode) {
  const FakeCase cases[] = {
      {"error answer", {"status"}, {FakeNode::Hello::kAccept, {R"({"error":"boom"})"}},
       1, "", "snactl: boom\n", R"({"command":"status"})"},
      {"answer not JSON", {"status"}, {FakeNode::Hello::kAccept, {"not json"}},
       1, "", "the node's answer is not JSON: not json", nullptr},
      {"no answer in time", {"--timeout", "0.5", "status"}, {FakeNode::Hello::kAccept, {""}},
       1, "", "snactl: the node did not answer in time\n", nullptr},
      {"HELLO refused", {"status"}, {FakeNode::Hello::kRefuse, {}},
       3, "", "refused protocol version", nullptr},
      {"pushes and stale replies skipped", {"--json", "sideinfo", "list"},
       {FakeNode::Hello::kAccept, {R"({"side_info":[]})"}, true},
       0, "{\"side_info\":[]}\n", "", R"({"command":"sideinfo"})"},
      {"define refused as unknown",
       {"sideinfo", "define", "NEWDEST", "--partner-lu", "NET.LU", "--tp-name", "TP1", "--mode",
        "#INTER", "--security", "program", "--user-id", "U", "--password", "P"},
       {FakeNode::Hello::kAccept, {R"({"error":"unknown command: sideinfo_define"})"}},
       1, "", "snactl: sideinfo define: not supported by this node\n",
       R"({"command":"sideinfo_define","entry":{"mode":"#INTER",)"
       R"("partner_lu":"NET.LU","password":"P","security":"program","sym_dest_name":"NEWDEST",)"
       R"("tp_name":"TP1","tp_name_type":"application","user_id":"U"}})"},
      {"delete refused as unknown", {"sideinfo", "delete", "OLD"},
       {FakeNode::Hello::kAccept, {R"({"error":"unknown command: sideinfo_delete"})"}},
       1, "", "snactl: sideinfo delete: not supported by this node\n",
       R"({"command":"sideinfo_delete","sym_dest_name":"OLD"})"},
      {"define accepted", {"sideinfo", "define", "N", "--partner-lu", "L", "--tp-name", "T"},
       {FakeNode::Hello::kAccept, {R"({"ok":true})"}},
       0, "side information N defined\n", "", nullptr},
      {"define error", {"sideinfo", "define", "N", "--partner-lu", "L", "--tp-name", "T"},
       {FakeNode::Hello::kAccept, {R"({"error":"partner_lu: no such LU"})"}},
       1, "", "snactl: sideinfo define: partner_lu: no such LU\n", nullptr},
      {"trace with file", {"trace", "on", "--file", "/tmp/t.trace"},
       {FakeNode::Hello::kAccept, {R"({"ok":true,"clients":2})"}},
       0, "API trace on in 2 application client(s), file /tmp/t.trace\n", "",
       R"({"api":true,"command":"trace","file":"/tmp/t.trace"})"},
      {"trace off", {"trace", "off", "--json"},
       {FakeNode::Hello::kAccept, {R"({"ok":true,"clients":0})"}},
       0, "{\"ok\":true,\"clients\":0}\n", "", R"({"api":false,"command":"trace"})"},
      {"stop, node closes", {"stop"}, {FakeNode::Hello::kAccept, {R"({"ok":true})"}},
       0, "node stopped (pid 31337)\n", "", R"({"command":"stop"})"},
      {"stop, node stays", {"--timeout", "0.5", "stop"},
       {FakeNode::Hello::kAccept, {R"({"ok":true})"}, false, false},
       1, "", "snactl: the node accepted stop but had not ended", nullptr},
      {"show of an unknown name", {"sideinfo", "show", "NOPE"},
       {FakeNode::Hello::kAccept, {R"({"side_info":[{"sym_dest_name":"OTHER"}]})"}},
       1, "", "snactl: no side information entry named NOPE\n", nullptr},
      {"sideinfo answer without entries", {"sideinfo", "list"},
       {FakeNode::Hello::kAccept, {R"({"ok":true})"}},
       1, "", "unexpected answer to sideinfo", nullptr},
  };
  for (const FakeCase& c : cases) {
    SCOPED_TRACE(c.title);
    tooltest::TempDir dir;
    const std::string path = dir.file("fake.socket");
    FakeNode node(path, c.plan);
    ASSERT_TRUE(node.bound());
    std::vector<std::string> argv = {SNACTL_PATH, "--socket", path};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    RunResult r = run(argv, {}, "", 20000);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    if (*c.out) {
      EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
    } else {
      EXPECT_EQ(r.out, "");
    }
    if (*c.err) {
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    } else {
      EXPECT_EQ(r.err, "");
    }
    if (c.request) {
      const std::vector<std::string> got = node.requests();
      ASSERT_EQ(got.size(), 1u);
      EXPECT_EQ(nlohmann::json::parse(got[0]), nlohmann::json::parse(c.request)) << got[0];
    }
    if (c.plan.hello == FakeNode::Hello::kAccept) {
      EXPECT_EQ(node.hello_flags(), sna::wire::kHelloOperator);
    }
  }
}

}  // namespace
