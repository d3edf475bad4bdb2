// Scratch directories and file reading for the runtime's tests.
#ifndef SNANODE_TESTS_TEMP_DIR_H
#define SNANODE_TESTS_TEMP_DIR_H

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace snanode_test {

inline std::string make_temp_dir() {
  std::string pattern = "/tmp/snanode-test-XXXXXX";
  if (!mkdtemp(pattern.data())) abort();
  return pattern;
}

inline std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> read_lines(const std::string &path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace snanode_test

#endif
