// The formatted print engine: a table of formats, argument words and the
// text each must produce, with the misuse each must report.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cpic_print.h"
#include "fake_node.h"

namespace {

constexpr const char kUselongExtra[] = "(uselong == 0) && (extra == 0)";

t_print_word W(const char *s) { return reinterpret_cast<t_print_word>(s); }

struct Case {
  const char *format;
  std::vector<t_print_word> words;
  std::string expected;
  std::vector<std::string> asserted = {};  // expressions reported, in order
  uint32_t limit = 0;
};

std::vector<Case> cases() {
  return {
      // Plain text and "%%".
      {"", {}, ""},
      {"plain text", {}, "plain text"},
      {"100%%", {}, "100%"},
      {"%5%|", {}, "%|"},
      // "c": the low byte of the word.
      {"%c", {'A'}, "A"},
      {"[%c]", {0x141}, "[A]"},
      {"%lc", {'z'}, "z"},
      // "s": precision, width, justification.
      {"%s", {W("hello")}, "hello"},
      {"%-5s|", {W("ab")}, "ab   |"},
      {"%5s|", {W("ab")}, "   ab|"},
      {"%.1s", {W("ab")}, "a"},
      {"%.s|", {W("ab")}, "|"},
      {"%.5s|", {W("ab")}, "ab|"},
      {"%6.2s|", {W("abc")}, "    ab|"},
      {"%05s|", {W("ab")}, "   ab|"},
      {"%1s|", {W("abc")}, "abc|"},
      {"%*s|", {4, W("ab")}, "  ab|"},
      {"%-*s|", {4, W("ab")}, "ab  |"},
      {"%.*s|", {1, W("abc")}, "a|"},
      // Signed decimal: "d", "i" and the engine's own "w".
      {"%d", {123}, "123"},
      {"%d", {0}, "0"},
      {"%d", {0xFFFFFF85u}, "-123"},
      {"%i", {42}, "42"},
      {"%w", {0xFFFFFFFFu}, "-1"},
      {"%d", {0x80000000u}, "-2147483648"},
      {"%d", {0x7FFFFFFFu}, "2147483647"},
      // Unsigned, octal, hexadecimal (upper case for x, X and p alike).
      {"%u", {0xFFFFFFFFu}, "4294967295"},
      {"%o", {8}, "10"},
      {"%o", {0xFFFFFFFFu}, "37777777777"},
      {"%x", {255}, "FF"},
      {"%X", {255}, "FF"},
      {"%p", {255}, "FF"},
      {"%x", {0xDEADBEEFu}, "DEADBEEF"},
      {"%x", {0}, "0"},
      {"%08x", {0xBEEF}, "0000BEEF"},
      {"%-8X|", {0xBEEF}, "BEEF    |"},
      // Width, zero fill, precision; the engine's own padding results.
      {"%5d|", {42}, "   42|"},
      {"%-5d|", {42}, "42   |"},
      {"%05d", {42}, "00042"},
      {"%05d", {0xFFFFFFF4u}, "00-12"},
      {"%-05d", {7}, "70000"},
      {"%5d|", {0xFFFFFFF4u}, "  -12|"},
      {"%-5d|", {0xFFFFFFF4u}, "-12  |"},
      {"%.3d", {7}, "007"},
      {"%.3d", {0xFFFFFFF9u}, "-007"},
      {"%6.3d|", {0xFFFFFFF9u}, "  -007|"},
      {"%06.3d", {0xFFFFFFF9u}, "00-007"},
      {"%.0d", {0}, "0"},
      {"%2d", {12345}, "12345"},
      {"%.2d", {12345}, "12345"},
      {"%10d|", {1}, "         1|"},
      {"%*d|", {5, 42}, "   42|"},
      {"%.*d|", {4, 42}, "0042|"},
      {"%*.*d|", {6, 3, 5}, "   005|"},
      {"%.4o", {8}, "0010"},
      {"%.4x", {0xA}, "000A"},
      // "l", "L" and "#" on numbers: read plainly, nothing reported.
      {"%ld", {0xFFFFFFFBu}, "-5"},
      {"%lu", {7}, "7"},
      {"%lx", {255}, "FF"},
      {"%Ld", {9}, "9"},
      {"%#x", {255}, "FF"},
      {"%#o", {8}, "10"},
      // Several conversions in one format, each taking its own word.
      {"%d-%s-%x-%c-%u", {0xFFFFFFFFu, W("ab"), 0x1F, 'q', 3}, "-1-ab-1F-q-3"},
      // With "l" or "L", an unknown conversion or the end of the format
      // is a signed decimal of the next word.
      {"%l", {0xFFFFFFFDu}, "-3"},
      {"x%L", {5}, "x5"},
      {"%lq|", {9}, "9|"},
      {"%Lz|", {0xFFFFFFFFu}, "-1|"},
      {"%5l", {42}, "   42"},
      // Misuse: "L" or "#" on "c" and "s" is reported, the text still written.
      {"%Lc", {'A'}, "A", {kUselongExtra}},
      {"%#c", {'B'}, "B", {kUselongExtra}},
      {"%#s|", {W("ab")}, "ab|", {kUselongExtra}},
      {"%Ls|", {W("ab")}, "ab|", {kUselongExtra}},
      {"%#Lc%Ls", {'C', W("d")}, "Cd", {kUselongExtra, kUselongExtra}},
      // Misuse: an unknown conversion stands as written and takes no word.
      {"%q|", {}, "q|", {"0"}},
      {"%y|", {}, "y|", {"0"}},
      {"%z%d", {5}, "z5", {"0"}},
      {"%5h|", {}, "h|", {"0"}},
      {"% d", {4}, " d", {"0"}},
      // Misuse: the format ends inside a specification.
      {"abc%", {}, "abc", {"0"}},
      {"abc%5", {}, "abc", {"0"}},
      {"%-", {}, "", {"0"}},
      {"%.", {}, "", {"0"}},
      // The limit: cut with a new line and NUL as soon as more than
      // limit - 20 characters have been written.
      {"abcdefghijklmnop", {}, "abcdefghijk\n", {}, 30},
      {"abcdefghij", {}, "abcdefghij", {}, 30},
      {"abcdefghijk", {}, "abcdefghijk\n", {}, 30},
      {"%s", {W("0123456789ABCDEFGHIJ")}, "0123456789A\n", {}, 30},
      {"%20d", {1}, "           \n", {}, 30},
      {"ab%dcd", {123456789}, "ab123456789\n", {}, 30},
      {"abcdefghijklm", {}, "abcdefghijkl\n", {}, 31},
      {"abc", {}, "a\n", {}, 10},
      {"", {}, "", {}, 10},
      {"%d", {1}, "1", {}, 22},
      {"%d", {12}, "12", {}, 22},
      {"%d", {123}, "123\n", {}, 22},
      // Widths and precisions of more digits than an int holds saturate
      // (they overflowed before); "*" may make them negative first.
      {"%99999999999d", {1}, "           \n", {}, 30},
      {"%.99999999999d", {0xFFFFFFFB}, "-0000000000\n", {}, 30},
      {"%*5d|", {static_cast<uint32_t>(-300000000), 7}, "7|"},
      {"%.*9999999999s|", {0x7FFFFFFF, W("abc")}, "abc|"},
  };
}

std::string describe(const Case &c) {
  std::string d = "format \"";
  d += c.format;
  d += "\" limit " + std::to_string(c.limit);
  return d;
}

TEST(trace_print, FormatTable) {
  for (const Case &c : cases()) {
    fake::reset();
    char buffer[256];
    std::memset(buffer, 0x7E, sizeof buffer);
    int n = t_print_args(buffer, c.limit, c.format, c.words.data());
    EXPECT_EQ(std::string(buffer), c.expected) << describe(c);
    EXPECT_EQ(n, static_cast<int>(c.expected.size())) << describe(c);
    // Nothing written past the terminating NUL.
    EXPECT_EQ(buffer[c.expected.size() + 1], 0x7E) << describe(c);
    ASSERT_EQ(fake::asserts.size(), c.asserted.size()) << describe(c);
    for (size_t i = 0; i < c.asserted.size(); ++i) {
      EXPECT_EQ(fake::asserts[i].file, "svmcspnt") << describe(c);
      EXPECT_EQ(fake::asserts[i].expression, c.asserted[i]) << describe(c);
      EXPECT_GT(fake::asserts[i].line, 0) << describe(c);
    }
  }
}

TEST(trace_print, MisuseSitesHaveDistinctLines) {
  fake::reset();
  char buffer[64];
  t_print_args(buffer, 0, "%q", nullptr);
  t_print_args(buffer, 0, "%", nullptr);
  ASSERT_EQ(fake::asserts.size(), 2u);
  EXPECT_NE(fake::asserts[0].line, fake::asserts[1].line);
}

TEST(trace_print, NullArgumentArrayReadsZero) {
  fake::reset();
  char buffer[64];
  EXPECT_EQ(t_print_args(buffer, 0, "%d/%x", nullptr), 3);
  EXPECT_STREQ(buffer, "0/0");
}

TEST(trace_print, PointerWordIsMachineWide) {
  fake::reset();
  int object = 0;
  char expected[64];
  std::snprintf(expected, sizeof expected, "%lX",
                static_cast<unsigned long>(reinterpret_cast<uintptr_t>(&object)));
  const t_print_word words[] = {reinterpret_cast<t_print_word>(&object)};
  char buffer[64];
  t_print_args(buffer, 0, "%p", words);
  EXPECT_STREQ(buffer, expected);
  t_sprintf(buffer, "%p", static_cast<void *>(&object));
  EXPECT_STREQ(buffer, expected);
}

TEST(trace_print, SprintfTakesVariableArguments) {
  fake::reset();
  char buffer[128];
  EXPECT_EQ(t_sprintf(buffer, ""), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(t_sprintf(buffer, "%d %s %x %c %w", -5, "ab", 255, 'z', -1), 13);
  EXPECT_STREQ(buffer, "-5 ab FF z -1");
  t_sprintf(buffer, "%*d|%-*s|%.*s", 5, 42, 3, "a", 2, "xyz");
  EXPECT_STREQ(buffer, "   42|a  |xy");
  t_sprintf(buffer, "%05d %-05d %u %o", -12, 7, 4000000000u, 8);
  EXPECT_STREQ(buffer, "00-12 70000 4000000000 10");
  t_sprintf(buffer, "%ld%l", 6, -7);
  EXPECT_STREQ(buffer, "6-7");
  EXPECT_TRUE(fake::asserts.empty());
  t_sprintf(buffer, "%Lc", 'Q');
  EXPECT_STREQ(buffer, "Q");
  ASSERT_EQ(fake::asserts.size(), 1u);
  EXPECT_EQ(fake::asserts[0].expression, kUselongExtra);
  // t_sprintf is unbounded.
  std::string longer(100, 'x');
  EXPECT_EQ(t_sprintf(buffer, "%s", longer.c_str()), 100);
  EXPECT_EQ(std::string(buffer), longer);
}

TEST(trace_print, StandardWrappers) {
  char buffer[64];
  EXPECT_EQ(nb_sprintf(buffer, "%05d|%s|%x", -12, "x", 255), 10);
  EXPECT_STREQ(buffer, "-0012|x|ff");

  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(nb_fprintf(stream, "%s=%d", "rc", 24), 5);
  std::fclose(stream);
  EXPECT_STREQ(text, "rc=24");
  std::free(text);

  testing::internal::CaptureStdout();
  int n = nb_printf("%s %u\n", "count", 3u);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "count 3\n");
  EXPECT_EQ(n, 8);
}

}  // namespace
