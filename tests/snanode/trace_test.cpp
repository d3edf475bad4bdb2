// API trace output with tracing switched on from the environment.
#include <stdlib.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "snanode/node.h"
#include "temp_dir.h"

namespace {

std::string trace_path;

struct Environment : ::testing::Environment {
  void SetUp() override {
    std::string dir = snanode_test::make_temp_dir();
    trace_path = dir + "/api.trace";
    setenv("SNANODE_STATE_DIR", dir.c_str(), 1);
    setenv("SNANODE_TRACE", "1", 1);
    setenv("SNANODE_TRACE_FILE", trace_path.c_str(), 1);
  }
};
[[maybe_unused]] auto *const environment = ::testing::AddGlobalTestEnvironment(new Environment);

// The trace file's lines that start with the tag, tag removed.
std::vector<std::string> lines_tagged(const std::string &tag) {
  std::vector<std::string> out;
  for (const std::string &line : snanode_test::read_lines(trace_path))
    if (line.compare(0, tag.size(), tag) == 0) out.push_back(line.substr(tag.size()));
  return out;
}

uint32_t open_trace() {
  vpm_unlock(vpm_lock());
  sepuapi_init(ptrc);
  return trc_api.file_handle;
}

TEST(TraceControl, PointerIsValidAndEnvironmentTurnsApiTraceOn) {
  ASSERT_NE(ptrc, nullptr);
  vpm_unlock(vpm_lock());
  EXPECT_EQ(ptrc[0] & 0x20, 0x20);
}

TEST(TraceFile, SepuapiInitOpensTheNamedFile) {
  uint32_t file = open_trace();
  ASSERT_NE(file, TRC_NO_FILE);
  EXPECT_EQ(trc_api.initialised, 1);
  sepuapi_init(ptrc);
  EXPECT_EQ(trc_api.file_handle, file) << "opened once";
}

TEST(TraceFile, SeparatorAndLines) {
  uint32_t file = open_trace();
  trc_lock_file(&trc_api);
  com_trc_sep(file, "LN01 ");
  com_trc_line(file, "LN01 ", "CMSEND request");
  com_trc_line(file, "LN01 ", " Conversation ID = 00000001");
  com_trc_line(file, "LN01 ", "");
  trc_unlock_file(&trc_api);
  std::vector<std::string> lines = lines_tagged("LN01 ");
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex(R"(---- \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d pid=\d+ tid=\d+ ----)")))
      << lines[0];
  EXPECT_EQ(lines[1], "CMSEND request");
  EXPECT_EQ(lines[2], " Conversation ID = 00000001");
  EXPECT_EQ(lines[3], "");
}

TEST(TraceFile, DumpShowsOffsetHexAsciiAndEbcdic) {
  uint32_t file = open_trace();
  // "Hello" in ASCII (read as EBCDIC: "..%%?"), "CPIC" and "test" in EBCDIC.
  const unsigned char data[] = {'H',  'e',  'l',  'l',  'o',  0x00, 0xC3, 0xD7, 0xC9, 0xC3,
                                0x40, 0xA3, 0x85, 0xA2, 0xA3, 0xFF, 0xF1, 0xF2, 0x4B, 0x7E};
  com_trc_dump(file, "DMP1 ", data, sizeof data);
  std::vector<std::string> lines = lines_tagged("DMP1 ");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "00000000  48 65 6C 6C 6F 00 C3 D7  C9 C3 40 A3 85 A2 A3 FF  |Hello.....@.....| |..%%?.CPIC test.|");
  EXPECT_EQ(lines[1],
            "00000010  F1 F2 4B 7E                                       |..K~| |12.=|");
}

TEST(TraceFile, DumpLengthsTable) {
  uint32_t file = open_trace();
  unsigned char data[40];
  for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(0xC1 + (i % 9));
  struct Case {
    const char *tag;
    uint32_t length;
    size_t lines;
    const char *last;
  };
  const Case cases[] = {
      {"DL0 ", 0, 0, nullptr},
      {"DL1 ", 1, 1, "00000000  C1                                                |.| |A|"},
      {"DL8 ", 8, 1, "00000000  C1 C2 C3 C4 C5 C6 C7 C8                           |........| |ABCDEFGH|"},
      {"DL16 ", 16, 1, "00000000  C1 C2 C3 C4 C5 C6 C7 C8  C9 C1 C2 C3 C4 C5 C6 C7  |................| |ABCDEFGHIABCDEFG|"},
      {"DL17 ", 17, 2, "00000010  C8                                                |.| |H|"},
      {"DL40 ", 40, 3, "00000020  C6 C7 C8 C9 C1 C2 C3 C4                           |........| |FGHIABCD|"},
  };
  for (const Case &c : cases) {
    com_trc_dump(file, c.tag, data, c.length);
    std::vector<std::string> lines = lines_tagged(c.tag);
    ASSERT_EQ(lines.size(), c.lines) << c.tag;
    if (c.last) {
      EXPECT_EQ(lines.back(), c.last) << c.tag;
    }
  }
}

TEST(TraceFile, ForeignHandlesAreNotWritten) {
  uint32_t file = open_trace();
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  com_trc_line(static_cast<uint32_t>(pipe_fds[1]), "X ", "must not appear");
  com_trc_line(TRC_NO_FILE, "X ", "must not appear");
  close(pipe_fds[1]);
  char buffer[8];
  EXPECT_EQ(read(pipe_fds[0], buffer, sizeof buffer), 0);
  close(pipe_fds[0]);
  EXPECT_NE(file, TRC_NO_FILE);
}

TEST(TraceFile, LockIsRecursiveForOneThread) {
  open_trace();
  trc_lock_file(&trc_api);
  trc_lock_file(&trc_api);
  trc_unlock_file(&trc_api);
  std::atomic<bool> other_in{false};
  std::thread other([&] {
    trc_lock_file(&trc_api);
    other_in = true;
    trc_unlock_file(&trc_api);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(other_in) << "still held once";
  trc_unlock_file(&trc_api);
  other.join();
  EXPECT_TRUE(other_in);
}

TEST(TraceFile, RecordsOfConcurrentThreadsNeverInterleave) {
  uint32_t file = open_trace();
  constexpr int threads = 4, records = 150, lines_per_record = 6;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([=] {
      unsigned char payload[40];
      for (unsigned i = 0; i < sizeof payload; ++i) payload[i] = static_cast<unsigned char>(t);
      for (int r = 0; r < records; ++r) {
        trc_lock_file(&trc_api);
        com_trc_sep(file, "MT ");
        for (int l = 0; l < lines_per_record; ++l) {
          std::string text = "T" + std::to_string(t) + " R" + std::to_string(r) + " L" + std::to_string(l);
          com_trc_line(file, "MT ", text.c_str());
        }
        com_trc_dump(file, "MT ", payload, sizeof payload);
        trc_unlock_file(&trc_api);
      }
    });
  for (auto &w : workers) w.join();

  std::vector<std::string> lines = lines_tagged("MT ");
  const size_t per_record = 1 + lines_per_record + 3;
  ASSERT_EQ(lines.size(), static_cast<size_t>(threads * records) * per_record);
  std::vector<int> next_record(threads, 0);
  for (size_t i = 0; i < lines.size(); i += per_record) {
    ASSERT_EQ(lines[i].rfind("---- ", 0), 0u) << "record starts with a separator at " << i;
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[i + 1], m, std::regex(R"(T(\d) R(\d+) L0)"))) << lines[i + 1];
    int t = std::stoi(m[1]);
    int r = std::stoi(m[2]);
    EXPECT_EQ(r, next_record[t]++) << "records of one thread in order";
    for (int l = 0; l < lines_per_record; ++l)
      EXPECT_EQ(lines[i + 1 + l], "T" + std::to_string(t) + " R" + std::to_string(r) + " L" + std::to_string(l));
    char hex[4];
    snprintf(hex, sizeof hex, "%02X ", t);
    for (size_t d = 0; d < 3; ++d)
      EXPECT_NE(lines[i + 1 + lines_per_record + d].find(std::string(hex) + hex), std::string::npos)
          << "dump of thread " << t << ": " << lines[i + 1 + lines_per_record + d];
  }
}

}  // namespace
