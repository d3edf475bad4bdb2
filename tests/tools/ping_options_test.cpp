// cpicping's command line: what each accepted form sets, and the message
// of each refused one.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cpic.h"
#include "ping_options.h"

namespace {

struct Parsed {
  int rc;
  ping_options o;
  std::string error;
};

Parsed parse(std::vector<std::string> args) {
  args.insert(args.begin(), "cpicping");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  Parsed p{};
  char error[200] = "";
  p.rc = ping_parse_options(static_cast<int>(argv.size()), argv.data(), &p.o, error, sizeof error);
  p.error = error;
  return p;
}

TEST(PingOptions, Defaults) {
  Parsed p = parse({"NETWORK.LOCAL"});
  ASSERT_EQ(p.rc, 0) << p.error;
  EXPECT_STREQ(p.o.destination, "NETWORK.LOCAL");
  EXPECT_STREQ(p.o.tp_name, "CPICPINGD");
  EXPECT_STREQ(p.o.mode, "#INTER");
  EXPECT_EQ(p.o.iterations, 4);
  EXPECT_EQ(p.o.consecutive, 1);
  EXPECT_EQ(p.o.size, 100);
  EXPECT_EQ(p.o.security, CM_SECURITY_NONE);
  EXPECT_FALSE(p.o.tp_name_given);
  EXPECT_FALSE(p.o.mode_given);
  EXPECT_FALSE(p.o.security_given);
  EXPECT_FALSE(p.o.quiet);
  EXPECT_FALSE(p.o.help);
}

TEST(PingOptions, EveryOptionSeparateAndAttached) {
  for (bool attached : {false, true}) {
    auto opt = [&](const char* letter, const char* value) {
      std::vector<std::string> v;
      if (attached) {
        v.push_back(std::string(letter) + value);
      } else {
        v.push_back(letter);
        v.push_back(value);
      }
      return v;
    };
    std::vector<std::string> args;
    for (auto part : {opt("-t", "ECHOTP"), opt("-m", "#BATCH"), opt("-i", "7"), opt("-c", "3"),
                      opt("-s", "32767"), opt("-y", "program"), opt("-u", "USER1"),
                      opt("-p", "SECRET")})
      args.insert(args.end(), part.begin(), part.end());
    args.push_back("-q");
    args.push_back("PARTNER");
    Parsed p = parse(args);
    ASSERT_EQ(p.rc, 0) << p.error;
    EXPECT_STREQ(p.o.tp_name, "ECHOTP");
    EXPECT_TRUE(p.o.tp_name_given);
    EXPECT_STREQ(p.o.mode, "#BATCH");
    EXPECT_TRUE(p.o.mode_given);
    EXPECT_EQ(p.o.iterations, 7);
    EXPECT_EQ(p.o.consecutive, 3);
    EXPECT_EQ(p.o.size, 32767);
    EXPECT_EQ(p.o.security, CM_SECURITY_PROGRAM);
    EXPECT_STREQ(p.o.user_id, "USER1");
    EXPECT_STREQ(p.o.password, "SECRET");
    EXPECT_TRUE(p.o.quiet);
    EXPECT_STREQ(p.o.destination, "PARTNER");
  }
}

TEST(PingOptions, OptionsAfterTheDestinationAndAfterDoubleDash) {
  Parsed p = parse({"DEST", "-i", "2"});
  ASSERT_EQ(p.rc, 0) << p.error;
  EXPECT_STREQ(p.o.destination, "DEST");
  EXPECT_EQ(p.o.iterations, 2);
  p = parse({"--", "-ODD"});
  ASSERT_EQ(p.rc, 0) << p.error;
  EXPECT_STREQ(p.o.destination, "-ODD");
}

TEST(PingOptions, SecurityForms) {
  struct Case {
    std::vector<std::string> args;
    int security;
  };
  const Case cases[] = {
      {{"-y", "none", "D"}, CM_SECURITY_NONE},
      {{"-y", "same", "D"}, CM_SECURITY_SAME},
      {{"-u", "U", "-p", "P", "D"}, CM_SECURITY_PROGRAM},  // -u and -p imply program
      {{"-y", "program", "-u", "U", "-p", "P", "D"}, CM_SECURITY_PROGRAM},
  };
  for (const Case& c : cases) {
    Parsed p = parse(c.args);
    ASSERT_EQ(p.rc, 0) << p.error;
    EXPECT_EQ(p.o.security, c.security);
  }
}

TEST(PingOptions, SizeLimitsAccepted) {
  for (const char* size : {"0", "1", "32767"}) {
    Parsed p = parse({"-s", size, "D"});
    ASSERT_EQ(p.rc, 0) << size << ": " << p.error;
    EXPECT_EQ(p.o.size, std::stol(size));
  }
  Parsed p = parse({"-m", "", "D"});  // the blank mode
  ASSERT_EQ(p.rc, 0) << p.error;
  EXPECT_STREQ(p.o.mode, "");
}

TEST(PingOptions, HelpStopsParsing) {
  for (const char* h : {"-h", "--help"}) {
    Parsed p = parse({h});
    ASSERT_EQ(p.rc, 0);
    EXPECT_TRUE(p.o.help);
  }
}

TEST(PingOptions, RefusedArguments) {
  struct Case {
    std::vector<std::string> args;
    const char* message;
  };
  const Case cases[] = {
      {{}, "no destination given"},
      {{"-q"}, "no destination given"},
      {{"A", "B"}, "more than one destination: B"},
      {{"ABCDEFGHIJKLMNOPQR"}, "destination must have 1 to 17 characters"},
      {{"-x", "D"}, "unknown option: -x"},
      {{"--size", "1", "D"}, "unknown option: --size"},
      {{"-qq", "D"}, "unknown option: -qq"},
      {{"D", "-i"}, "option -i needs a value"},
      {{"-i", "0", "D"}, "iterations must be a number from 1 to 1000000: 0"},
      {{"-i", "1000001", "D"}, "iterations must be a number from 1 to 1000000"},
      {{"-i", "3x", "D"}, "iterations must be a number"},
      {{"-i", "", "D"}, "iterations must be a number"},
      {{"-i", "+3", "D"}, "iterations must be a number"},
      {{"-c", "0", "D"}, "consecutive sends must be a number from 1 to 100000: 0"},
      {{"-s", "-1", "D"}, "size must be a number from 0 to 32767: -1"},
      {{"-s", "32768", "D"}, "size must be a number from 0 to 32767: 32768"},
      {{"-s", "99999999999999999999", "D"}, "size must be a number"},
      {{"-t", "", "D"}, "TP name must have 1 to 64 characters"},
      {{"-t", std::string(65, 'T'), "D"}, "TP name must have 1 to 64 characters"},
      {{"-m", "ABCDEFGHI", "D"}, "mode name must have at most 8 characters"},
      {{"-y", "strong", "D"}, "security type must be none, same or program: strong"},
      {{"-u", "ELEVENCHARS", "-p", "P", "D"}, "user ID must have 1 to 10 characters"},
      {{"-u", "U", "-p", "ELEVENCHARS", "D"}, "password must have 1 to 10 characters"},
      {{"-y", "same", "-u", "U", "-p", "P", "D"}, "-u and -p go with -y program only"},
      {{"-y", "program", "D"}, "security program needs both -u USER and -p PASSWORD"},
      {{"-u", "U", "D"}, "security program needs both -u USER and -p PASSWORD"},
  };
  for (const Case& c : cases) {
    Parsed p = parse(c.args);
    std::string shown;
    for (const std::string& a : c.args) shown += "[" + a + "]";
    EXPECT_EQ(p.rc, -1) << shown;
    EXPECT_NE(p.error.find(c.message), std::string::npos) << shown << " gave: " << p.error;
  }
}

TEST(PingOptions, PasswordNotRepeatedInItsMessage) {
  Parsed p = parse({"-u", "U", "-p", "TOOLONGSECRET", "D"});
  ASSERT_EQ(p.rc, -1);
  EXPECT_EQ(p.error.find("TOOLONGSECRET"), std::string::npos) << p.error;
}

}  // namespace
