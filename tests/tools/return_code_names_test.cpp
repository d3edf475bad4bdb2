// The name table against the header it names: every return code that
// cpic.h defines has its own name, and values it does not define have none.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "return_code_names.h"

namespace {

struct Defined {
  std::string name;
  int value;
};

// The #defines between the "Return codes" banner and the next banner.
std::vector<Defined> header_return_codes() {
  std::ifstream header(CPIC_HEADER);
  std::stringstream text;
  text << header.rdbuf();
  const std::string all = text.str();
  const size_t start = all.find("/* ---- Return codes");
  const size_t end = all.find("/* ----", start + 1);
  std::vector<Defined> out;
  if (start == std::string::npos || end == std::string::npos) return out;
  const std::string section = all.substr(start, end - start);
  const std::regex define(R"(#define (CM_\w+) (\d+))");
  for (std::sregex_iterator it(section.begin(), section.end(), define), stop; it != stop; ++it)
    out.push_back({(*it)[1], std::stoi((*it)[2])});
  return out;
}

TEST(ReturnCodeNames, EveryCodeOfTheHeaderHasItsName) {
  const std::vector<Defined> codes = header_return_codes();
  ASSERT_GT(codes.size(), 40u) << "return codes not found in " << CPIC_HEADER;
  for (const Defined& d : codes) {
    const char* name = cpic_return_code_name(d.value);
    ASSERT_NE(name, nullptr) << d.name;
    EXPECT_STREQ(name, d.name.c_str());
  }
}

TEST(ReturnCodeNames, ValuesWithoutANameGiveTheNumber) {
  std::set<int> defined;
  for (const Defined& d : header_return_codes()) defined.insert(d.value);
  for (int value : {4, 12, 29, 99, 101, 138, -1, 1000000}) {
    ASSERT_EQ(defined.count(value), 0u) << value;
    EXPECT_EQ(cpic_return_code_name(value), nullptr) << value;
    char buffer[32];
    EXPECT_EQ(std::string(cpic_return_code_text(value, buffer, sizeof buffer)),
              "return code " + std::to_string(value));
  }
}

TEST(ReturnCodeNames, TextOfANamedCodeIsItsName) {
  char buffer[32];
  EXPECT_STREQ(cpic_return_code_text(CM_TPN_NOT_RECOGNIZED, buffer, sizeof buffer),
               "CM_TPN_NOT_RECOGNIZED");
  EXPECT_STREQ(cpic_return_code_text(CM_OK, buffer, sizeof buffer), "CM_OK");
}

}  // namespace
