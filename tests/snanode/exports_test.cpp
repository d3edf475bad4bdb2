// The dynamic symbol table of libsnanode.so holds exactly the names that
// snanode/node.h declares with SNA_EXPORT, and the library needs no shared
// object beyond the C library (and its loader and thread library).
#include <stdio.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "temp_dir.h"

namespace {

std::string run(const std::string &command) {
  std::string output;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

std::set<std::string> declared_names() {
  std::string header = snanode_test::read_file(SNANODE_NODE_HEADER);
  // Strip comments so that prose never counts as a declaration.
  header = std::regex_replace(header, std::regex(R"(/\*[\s\S]*?\*/)"), " ");
  header = std::regex_replace(header, std::regex(R"(//[^\n]*)"), " ");
  std::set<std::string> names;
  std::regex identifier(R"([A-Za-z_][A-Za-z0-9_]*)");
  for (size_t at = header.find("SNA_EXPORT"); at != std::string::npos;
       at = header.find("SNA_EXPORT", at + 1)) {
    size_t end = header.find(';', at);
    std::string declaration = header.substr(at, end - at);
    // A function: the name stands before the first '('. Data: the last
    // identifier before any '['.
    size_t paren = declaration.find('(');
    std::string head = declaration.substr(0, std::min(paren, declaration.find('[')));
    std::string last;
    for (std::sregex_iterator it(head.begin(), head.end(), identifier), done; it != done; ++it)
      last = it->str();
    names.insert(last);
  }
  return names;
}

TEST(NodeExports, MatchTheNodeHeaderExactly) {
  std::set<std::string> declared = declared_names();
  ASSERT_GE(declared.size(), 30u) << "the header parse found too little";
  EXPECT_EQ(declared.count("ptrc"), 1u);
  EXPECT_EQ(declared.count("nba_blank_name"), 1u);
  EXPECT_EQ(declared.count("vpm_init_path_user"), 1u);

  const std::set<std::string> ignored = {"_init", "_fini", "__bss_start", "_edata", "_end"};
  std::set<std::string> exported;
  std::string output = run(std::string("nm -D --defined-only '") + SNANODE_LIBRARY + "'");
  std::regex row(R"(^(?:[0-9a-fA-F]+)?\s+([A-Za-z])\s+(\S+)$)");
  size_t start = 0;
  while (start < output.size()) {
    size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    std::string line = output.substr(start, end - start);
    start = end + 1;
    std::smatch m;
    if (!std::regex_match(line, m, row)) continue;
    std::string name = m[2];
    name = name.substr(0, name.find('@'));
    if (!ignored.count(name)) exported.insert(name);
  }
  std::vector<std::string> missing, extra;
  std::set_difference(declared.begin(), declared.end(), exported.begin(), exported.end(),
                      std::back_inserter(missing));
  std::set_difference(exported.begin(), exported.end(), declared.begin(), declared.end(),
                      std::back_inserter(extra));
  EXPECT_TRUE(missing.empty()) << "declared but not exported: " << ::testing::PrintToString(missing);
  EXPECT_TRUE(extra.empty()) << "exported but not declared: " << ::testing::PrintToString(extra);
}

TEST(NodeExports, NeedsOnlyTheCLibrary) {
  std::string output = run(std::string("readelf -d '") + SNANODE_LIBRARY + "'");
  std::regex needed(R"(\(NEEDED\)\s+Shared library: \[([^\]]+)\])");
  std::vector<std::string> libraries;
  for (std::sregex_iterator it(output.begin(), output.end(), needed), done; it != done; ++it)
    libraries.push_back((*it)[1]);
  ASSERT_FALSE(libraries.empty());
  std::regex allowed(R"(libc\.so\.\d+|libpthread\.so\.\d+|ld-linux[-\w.]*\.so\.\d+)");
  for (const std::string &library : libraries)
    EXPECT_TRUE(std::regex_match(library, allowed)) << library;
}

}  // namespace
