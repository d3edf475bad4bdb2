// API traces of real programs against a real node, read back record by
// record: every record whole (nothing of another thread's record inside
// it) while completions are traced from the runtime's thread beside the
// program's own threads, and the hello pair's conversation readable call
// by call.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "configs.h"
#include "harness.h"

namespace e2e {
namespace {

constexpr const char* kTag = "CPIC ";

// One record: the separator's thread and the lines after it, the tag
// removed; `line` is where the separator stands in the file (1-based).
struct Record {
  long pid = 0, tid = 0;
  int line = 0;
  std::string verb, kind, result;  // kind: request, response, async
  std::vector<std::string> body;
};

struct Trace {
  std::vector<Record> records;
  std::vector<std::string> problems;  // lines that belong to no record shape
};

// Splits the file at the separators. A line without the tag, a separator
// not followed by a call's header line, or a header line anywhere else is
// a problem: each means some other output got inside a record.
Trace parse(const std::string& text) {
  static const std::regex separator(R"(---- \d{4}-\d\d-\d\dT[0-9:.]+[+-]\d\d:\d\d pid=(\d+) tid=(\d+) ----)");
  static const std::regex header(R"(([A-Z]+) (request|response, result = (\S.*)|async response, result = (\S.*)))");
  Trace t;
  std::istringstream in(text);
  std::string raw;
  int number = 0;
  bool want_header = false;
  while (std::getline(in, raw)) {
    ++number;
    const std::string where = "line " + std::to_string(number) + ": ";
    if (raw.compare(0, 5, kTag) != 0) {
      t.problems.push_back(where + "no tag: " + raw);
      continue;
    }
    const std::string line = raw.substr(5);
    std::smatch m;
    // The regular expressions only where the line may match (they are slow).
    if (line.compare(0, 5, "---- ") == 0 && line.find(" pid=") != std::string::npos &&
        std::regex_match(line, m, separator)) {
      if (want_header) {
        t.problems.push_back(where + "a separator where a header belongs");
        t.records.pop_back();
      }
      Record r;
      r.pid = std::stol(m[1]);
      r.tid = std::stol(m[2]);
      r.line = number;
      t.records.push_back(r);
      want_header = true;
      continue;
    }
    const bool is_header = !line.empty() && line[0] >= 'A' && line[0] <= 'Z' &&
                           (line.find(" request") != std::string::npos ||
                            line.find(" response, result = ") != std::string::npos) &&
                           std::regex_match(line, m, header);
    if (want_header) {
      if (!is_header) {
        t.problems.push_back(where + "not a header after a separator: " + line);
        t.records.pop_back();
      } else {
        Record& r = t.records.back();
        r.verb = m[1];
        r.kind = m[2].str() == "request" ? "request" : m[3].matched ? "response" : "async";
        r.result = m[3].matched ? m[3].str() : m[4].str();
      }
      want_header = false;
      continue;
    }
    if (is_header) {
      t.problems.push_back(where + "a header inside a record: " + line);
      continue;
    }
    if (t.records.empty()) {
      t.problems.push_back(where + "a line before any record: " + line);
      continue;
    }
    t.records.back().body.push_back(line);
  }
  if (want_header) t.problems.push_back("the file ends after a separator");
  return t;
}

// The body of each record the programs here write, line by line. "DUMP+"
// stands for one or more dump lines, "DUMP*" for any number.
using Shape = std::vector<std::string>;

const std::string kConv = R"( Conversation ID = [0-9A-F]{8})";
const std::string kBuffer = R"(---- Buffer at address \S+ ----)";
const Shape kReceived = {"(?: Buffer empty|" + kBuffer + ")",     "DUMP*",
                         " Data received type = CM_[A-Z_]+",      R"( Received length = \d+)",
                         " Status received = CM_[A-Z_]+",         " Request to send received = CM_[A-Z_]+"};

const std::map<std::string, std::vector<Shape>>& shapes() {
  static const std::map<std::string, std::vector<Shape>> table = {
      {"CMINIT request", {{" Sym dest name = .*"}}},
      {"CMINIT response",
       {{kConv,
         "Conversation characteristics",
         " Conversation type = CM_[A-Z_]+",
         " Deallocate type = CM_[A-Z_]+",
         " Error direction = CM_[A-Z_]+",
         " Sync level = CM_[A-Z_]+",
         " Fill type = CM_[A-Z_]+",
         " Prepare to receive type = CM_[A-Z_]+",
         " Receive type = CM_[A-Z_]+",
         " Send type = CM_[A-Z_]+",
         " Conversation security type = XC_[A-Z_]+",
         " Log data pointer = .*",
         R"( Log data length = \d+)",
         " Sym dest name = .*",
         " Partner LU name =",
         "DUMP+",
         " Mode name =",
         "DUMP+",
         " Partner TP name =",
         "DUMP+"}}},
      {"CMSTPN request",
       {{kConv, " Partner TP name =", "DUMP+", R"( TP name length = \d+)", "Conversation characteristics",
         " Partner TP name =", "DUMP+"}}},
      {"CMSTPN response", {{"Conversation characteristics", " Partner TP name =", "DUMP+"}}},
      {"CMSMN request",
       {{kConv, " Mode name =", "DUMP+", R"( Mode name length = \d+)", "Conversation characteristics",
         " Mode name =", "DUMP+"}}},
      {"CMSMN response", {{"Conversation characteristics", " Mode name =", "DUMP+"}}},
      {"CMALLC request",
       {{kConv, "Conversation characteristics", " Conversation type = CM_[A-Z_]+", " Return control = CM_[A-Z_]+",
         " Sync level = CM_[A-Z_]+", " Conversation security type = XC_[A-Z_]+", " Partner LU name =", "DUMP+",
         " Mode name =", "DUMP+", " Partner TP name =", "DUMP+"}}},
      {"CMALLC response", {{}}},
      {"CMSST request",
       {{kConv, " Send type = CM_[A-Z_]+", "Conversation characteristics", " Send type = CM_[A-Z_]+"}}},
      {"CMSST response", {{"Conversation characteristics", " Send type = CM_[A-Z_]+"}}},
      {"CMSPM request",
       {{kConv, " Processing mode = CM_[A-Z_]+", "Conversation characteristics", " Processing mode = CM_[A-Z_]+"}}},
      {"CMSPM response", {{"Conversation characteristics", " Processing mode = CM_[A-Z_]+"}}},
      {"CMSEND request",
       {{kConv, kBuffer, "DUMP+", R"( Send length = \d+)", "Conversation characteristics",
         " Send type = CM_[A-Z_]+", " Prepare to receive type = CM_[A-Z_]+", " Deallocate type = CM_[A-Z_]+"}}},
      {"CMSEND response", {{" Request to send received = CM_[A-Z_]+"}}},
      {"CMSEND async", {{" Request to send received = CM_[A-Z_]+"}}},
      {"CMRCV request",
       {{kConv, R"( Requested length = \d+)", "Conversation characteristics", " Conversation type = CM_[A-Z_]+",
         " Fill type = CM_[A-Z_]+", " Receive type = CM_[A-Z_]+"}}},
      {"CMRCV response", {kReceived}},
      {"CMRCV async", {kReceived}},
      {"CMDEAL request",
       {{kConv, "Conversation characteristics", " Deallocate type = CM_[A-Z_]+", " Log data pointer = .*",
         R"( Log data length = \d+)"}}},
      {"CMDEAL response", {{}}},
      {"CMDEAL async", {{}}},
      {"CMWAIT request", {{}}},
      {"CMWAIT response", {{kConv, " Async result = CM_[A-Z_]+"}}},
      {"CMECS request", {{kConv}}},
      {"CMECS response", {{" Conversation state = CM_[A-Z_]+"}}},
      {"CMEMBS request", {{}}},
      {"CMEMBS response", {{R"( Maximum buffer size = \d+)"}}},
      {"CMSLTP request", {{" Local TP name =", "DUMP+", R"( TP name length = \d+)"}}},
      {"CMSLTP response", {{}}},
      {"CMACCP request", {{}}},
      {"CMACCP response",
       {{kConv,
         "Conversation characteristics",
         " Conversation type = CM_[A-Z_]+",
         " Deallocate type = CM_[A-Z_]+",
         " Error direction = CM_[A-Z_]+",
         " Sync level = CM_[A-Z_]+",
         " Fill type = CM_[A-Z_]+",
         " Prepare to receive type = CM_[A-Z_]+",
         " Receive type = CM_[A-Z_]+",
         " Send type = CM_[A-Z_]+",
         " Conversation security type = XC_[A-Z_]+",
         " Log data pointer = .*",
         R"( Log data length = \d+)",
         " Partner LU name =",
         "DUMP+",
         " Mode name =",
         "DUMP+"}}},
  };
  return table;
}

// A dump line: offset, 16 byte columns with a gap after the eighth, then
// the bytes as ASCII and as EBCDIC.
bool dump_line(const std::string& line) {
  auto hex = [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); };
  // "OOOOOOOO  " then 16 columns of "XX " or "   ", a blank after the eighth.
  constexpr size_t kColumns = 10, kText = kColumns + 16 * 3 + 1;
  if (line.size() < kText + 5) return false;
  for (size_t i = 0; i < 8; ++i)
    if (!hex(line[i])) return false;
  if (line[8] != ' ' || line[9] != ' ') return false;
  size_t count = 0;
  bool ended = false;
  for (size_t i = 0; i < 16; ++i) {
    const size_t at = kColumns + i * 3 + (i >= 8 ? 1 : 0);
    const bool filled = hex(line[at]) && hex(line[at + 1]);
    const bool blank = line[at] == ' ' && line[at + 1] == ' ';
    if (line[at + 2] != ' ' || !(filled || blank) || (filled && ended)) return false;
    if (filled) ++count;
    ended = ended || blank;
  }
  if (line[kColumns + 24] != ' ' || count == 0) return false;
  // " |ascii| |ebcdic|", each column as many characters as there are bytes.
  const std::string rest = line.substr(kText);
  return rest.size() == 2 * count + 6 && rest[0] == ' ' && rest[1] == '|' && rest.compare(2 + count, 3, "| |") == 0 &&
         rest.back() == '|';
}

const std::regex& compiled(const std::string& pattern) {
  static std::map<std::string, std::regex> cache;
  auto it = cache.find(pattern);
  if (it == cache.end()) it = cache.emplace(pattern, std::regex(pattern)).first;
  return it->second;
}

bool body_matches(const std::vector<std::string>& body, const Shape& shape) {
  size_t i = 0;
  for (const std::string& item : shape) {
    if (item == "DUMP+" || item == "DUMP*") {
      size_t n = 0;
      while (i < body.size() && dump_line(body[i])) ++i, ++n;
      if (item == "DUMP+" && n == 0) return false;
      continue;
    }
    if (i >= body.size() || !std::regex_match(body[i], compiled(item))) return false;
    ++i;
  }
  return i == body.size();
}

// What is wrong with the record's shape; empty when it is whole.
std::string shape_problem(const Record& r) {
  const auto it = shapes().find(r.verb + " " + r.kind);
  if (it == shapes().end()) return "a record no program here writes";
  for (const Shape& s : it->second)
    if (body_matches(r.body, s)) return "";
  return "its lines are not those of the record";
}

std::string show(const Record& r) {
  std::string s = "record at line " + std::to_string(r.line) + " (tid " + std::to_string(r.tid) + "): " + r.verb +
                  " " + r.kind + (r.result.empty() ? "" : " " + r.result) + "\n";
  for (const std::string& l : r.body) s += "    " + l + "\n";
  return s;
}

// Every problem and every record of the wrong shape, at most a few shown.
void expect_whole(const Trace& t) {
  std::string report;
  int bad = 0;
  for (const std::string& p : t.problems)
    if (++bad <= 10) report += p + "\n";
  for (const Record& r : t.records) {
    const std::string why = shape_problem(r);
    if (!why.empty() && ++bad <= 10) report += why + ": " + show(r);
  }
  EXPECT_EQ(bad, 0) << report;
}

// The ASCII column of a record's dump lines, joined.
std::string dumped_text(const Record& r) {
  std::string text;
  for (const std::string& l : r.body) {
    if (!dump_line(l)) continue;
    const size_t open = l.find('|');
    const size_t close = l.find("| |", open + 1);
    text += l.substr(open + 1, close - open - 1);
  }
  return text;
}

std::string field(const Record& r, const std::string& name) {
  for (const std::string& l : r.body)
    if (l.rfind(" " + name + " = ", 0) == 0) return l.substr(name.size() + 4);
  return "";
}

TEST(Trace, AsynchronousCompletionsNeverSplitAnotherThreadsRecords) {
  Daemon daemon(E2E_DAEMON);
  std::string why;
  ASSERT_TRUE(daemon.start(node_config(daemon.dir()), &why)) << why;
  const std::string file = daemon.dir() + "/threads.trace";
  // B makes up to 20 calls in each of A's rounds: some 20,000 records
  // from B among 4,000 of A's and the runtime's.
  constexpr long kRounds = 500, kPerRound = 20, kMinCalls = 2000;
  auto p = daemon.run("trace_threads", E2E_TRACE_THREADS,
                      {"ECHO", std::to_string(kRounds), std::to_string(kPerRound), std::to_string(kMinCalls)},
                      {{"SNANODE_TRACE", "1"}, {"SNANODE_TRACE_FILE", file}});
  ASSERT_TRUE(p);
  std::map<std::string, std::string> said;
  for (int i = 0; i < 3; ++i) {
    auto line = p->read_line(60000);
    ASSERT_TRUE(line) << p->transcript() << p->stderr_text();
    said[line->substr(0, 1)] = *line;
  }
  auto status = p->wait(20000);
  ASSERT_TRUE(status);
  ASSERT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << p->transcript() << p->stderr_text();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(said["a"], m, std::regex(R"(a rounds=(\d+) incomplete=(\d+))"))) << said["a"];
  EXPECT_EQ(std::stol(m[1]), kRounds);
  const long incomplete = std::stol(m[2]);
  ASSERT_TRUE(std::regex_match(said["b"], m, std::regex(R"(b calls=(\d+))"))) << said["b"];
  const long b_calls = std::stol(m[1]);
  EXPECT_GE(b_calls, kMinCalls);
  EXPECT_LE(b_calls, std::max(kMinCalls, kRounds * kPerRound) + 1);

  const Trace t = parse(read_file(file));
  expect_whole(t);

  // Who wrote what: thread B only its two calls, the program's other
  // thread its conversation's calls, and a third thread (the runtime's)
  // only the asynchronous responses.
  std::map<long, std::vector<const Record*>> by_thread;
  long pid = 0;
  for (const Record& r : t.records) {
    by_thread[r.tid].push_back(&r);
    if (pid == 0) pid = r.pid;
    EXPECT_EQ(r.pid, pid) << show(r);
  }
  long b_tid = 0, a_tid = 0, runtime_tid = 0;
  for (const auto& [tid, records] : by_thread) {
    for (const Record* r : records) {
      if (r->verb == "CMECS") b_tid = tid;
      if (r->verb == "CMWAIT") a_tid = tid;
      if (r->kind == "async") runtime_tid = tid;
    }
  }
  ASSERT_NE(b_tid, 0);
  ASSERT_NE(a_tid, 0);
  ASSERT_NE(runtime_tid, 0);
  EXPECT_NE(b_tid, a_tid);
  EXPECT_NE(runtime_tid, a_tid);
  EXPECT_NE(runtime_tid, b_tid);
  EXPECT_EQ(by_thread.size(), 3u);

  // Each thread's own calls: a request, then its response, nothing lost.
  for (long tid : {a_tid, b_tid}) {
    const auto& records = by_thread[tid];
    ASSERT_EQ(records.size() % 2, 0u);
    for (size_t i = 0; i + 1 < records.size(); i += 2) {
      EXPECT_EQ(records[i]->kind, "request") << show(*records[i]);
      EXPECT_EQ(records[i + 1]->kind, "response") << show(*records[i + 1]);
      EXPECT_EQ(records[i]->verb, records[i + 1]->verb) << show(*records[i]) << show(*records[i + 1]);
    }
  }
  // B: CMINIT, then its calls.
  EXPECT_EQ(static_cast<long>(by_thread[b_tid].size()), 2 + 2 * b_calls);
  // Every incomplete call completed on the runtime's thread and was
  // collected by a CMWAIT; a receive that found the echo already there
  // completed at once, on A's thread.
  long async = 0, echoes = 0, waits = 0;
  for (const Record* r : by_thread[runtime_tid]) {
    EXPECT_EQ(r->kind, "async") << show(*r);
    ++async;
  }
  for (const Record* r : by_thread[a_tid])
    if (r->verb == "CMWAIT" && r->kind == "response") ++waits;
  for (const Record& r : t.records)
    if (r.verb == "CMRCV" && r.kind != "request" && r.result == "CM_OK" && field(r, "Received length") != "0")
      ++echoes;
  EXPECT_EQ(async, incomplete);
  EXPECT_EQ(waits, incomplete);
  EXPECT_EQ(echoes, kRounds);
  EXPECT_GE(async, kRounds / 2);
  // Completions really were traced while B was tracing its calls: many
  // stand between B's first record and its last.
  size_t b_first = t.records.size(), b_last = 0, async_among_b = 0;
  for (size_t i = 0; i < t.records.size(); ++i)
    if (t.records[i].tid == b_tid) {
      b_first = std::min(b_first, i);
      b_last = i;
    }
  for (size_t i = b_first; i < b_last; ++i)
    if (t.records[i].tid == runtime_tid) ++async_among_b;
  EXPECT_GE(async_among_b, static_cast<size_t>(kRounds / 4));
  EXPECT_GE(t.records.size(), static_cast<size_t>(2 * b_calls + 4 * kRounds));
}

// Request/response pairs in the order of the calls.
std::vector<std::string> calls_of(const Trace& t) {
  std::vector<std::string> calls;
  for (size_t i = 0; i < t.records.size(); ++i) {
    const Record& r = t.records[i];
    if (r.kind != "request") {
      calls.push_back("unpaired " + r.verb + " " + r.kind);
      continue;
    }
    if (i + 1 < t.records.size() && t.records[i + 1].kind == "response" && t.records[i + 1].verb == r.verb) {
      calls.push_back(r.verb + " " + t.records[i + 1].result);
      ++i;
    } else {
      calls.push_back("unanswered " + r.verb);
    }
  }
  return calls;
}

const Record* first(const Trace& t, const std::string& verb, const std::string& kind) {
  for (const Record& r : t.records)
    if (r.verb == verb && r.kind == kind) return &r;
  return nullptr;
}

TEST(Trace, TheHelloPairsConversationReadsCallByCall) {
  Daemon daemon(E2E_DAEMON);
  std::string why;
  ASSERT_TRUE(daemon.start("", &why)) << why;
  const std::string server_file = daemon.dir() + "/server.trace", client_file = daemon.dir() + "/client.trace";
  auto server = daemon.run("hello_server", E2E_HELLO_SERVER, {},
                           {{"SNANODE_TRACE", "1"}, {"SNANODE_TRACE_FILE", server_file}});
  ASSERT_TRUE(server);
  ASSERT_TRUE(server->expect("server: ready, TP name HELLOSRV", &why, 20000)) << why;
  auto client = daemon.run("hello_client", E2E_HELLO_CLIENT, {},
                           {{"SNANODE_TRACE", "on"}, {"SNANODE_TRACE_FILE", client_file}});
  ASSERT_TRUE(client);
  for (Process* p : {client.get(), server.get()}) {
    auto status = p->wait(20000);
    ASSERT_TRUE(status) << p->name();
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << p->transcript() << p->stderr_text();
  }

  const Trace c = parse(read_file(client_file));
  const Trace s = parse(read_file(server_file));
  expect_whole(c);
  expect_whole(s);
  // Nothing but printable text.
  for (const std::string& f : {client_file, server_file})
    for (char ch : read_file(f)) ASSERT_TRUE(ch == '\n' || (ch >= 0x20 && ch < 0x7F)) << f << ": " << int(ch);

  std::vector<std::string> client_calls = calls_of(c);
  // A second receive when the right to send comes after the data.
  if (client_calls.size() == 9 && client_calls[7] == "CMRCV CM_OK") client_calls.erase(client_calls.begin() + 7);
  const std::vector<std::string> expected_client = {"CMINIT CM_OK", "CMSTPN CM_OK", "CMSMN CM_OK",
                                                    "CMALLC CM_OK", "CMSST CM_OK",  "CMSEND CM_OK",
                                                    "CMRCV CM_OK",  "CMDEAL CM_OK"};
  EXPECT_EQ(client_calls, expected_client);
  EXPECT_EQ(calls_of(s), (std::vector<std::string>{"CMSLTP CM_OK", "CMACCP CM_OK", "CMRCV CM_OK",
                                                   "CMSEND CM_OK", "CMRCV CM_DEALLOCATED_NORMAL"}));

  // The conversation ID the client got is the one its later calls name.
  const Record* init = first(c, "CMINIT", "response");
  ASSERT_NE(init, nullptr);
  const std::string conv = field(*init, "Conversation ID");
  EXPECT_EQ(conv.size(), 8u);
  for (const Record& r : c.records)
    if (r.kind == "request" && r.verb != "CMINIT") {
      EXPECT_EQ(field(r, "Conversation ID"), conv) << show(r);
    }

  // What was set and sent, and what came back.
  const Record* tpn = first(c, "CMSTPN", "request");
  ASSERT_NE(tpn, nullptr);
  EXPECT_EQ(dumped_text(*tpn).substr(0, 8), "HELLOSRV") << show(*tpn);
  const Record* mode = first(c, "CMSMN", "response");
  ASSERT_NE(mode, nullptr);
  EXPECT_NE(mode->body.back().find("|#INTER  |"), std::string::npos) << show(*mode);  // its EBCDIC column
  const Record* sst = first(c, "CMSST", "response");
  ASSERT_NE(sst, nullptr);
  EXPECT_EQ(field(*sst, "Send type"), "CM_SEND_AND_PREP_TO_RECEIVE");
  const Record* sent = first(c, "CMSEND", "request");
  ASSERT_NE(sent, nullptr);
  EXPECT_EQ(dumped_text(*sent), "hello, partner") << show(*sent);
  EXPECT_EQ(field(*sent, "Send length"), "14");
  const Record* alloc = first(c, "CMALLC", "request");
  ASSERT_NE(alloc, nullptr);
  EXPECT_EQ(field(*alloc, "Conversation type"), "CM_MAPPED_CONVERSATION");
  const Record* reply = first(c, "CMRCV", "response");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(dumped_text(*reply), "hello back, I got: hello, partner") << show(*reply);
  EXPECT_EQ(field(*reply, "Received length"), "33");
  EXPECT_EQ(field(*reply, "Data received type"), "CM_COMPLETE_DATA_RECEIVED");
  EXPECT_EQ(field(*reply, "Status received"), "CM_SEND_RECEIVED");

  // The server's side of the same conversation.
  const Record* accepted = first(s, "CMACCP", "response");
  ASSERT_NE(accepted, nullptr);
  EXPECT_NE(accepted->body.back().find("|#INTER  |"), std::string::npos) << show(*accepted);
  const Record* got = first(s, "CMRCV", "response");
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(dumped_text(*got), "hello, partner") << show(*got);
  const Record* answer = first(s, "CMSEND", "request");
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(dumped_text(*answer), "hello back, I got: hello, partner") << show(*answer);
  const Record* last = &s.records.back();
  EXPECT_EQ(last->verb, "CMRCV");
  EXPECT_EQ(last->result, "CM_DEALLOCATED_NORMAL");
  EXPECT_EQ(field(*last, "Data received type"), "CM_NO_DATA_RECEIVED");
}

}  // namespace
}  // namespace e2e
