// Command-line flags. The server's own flags and exit statuses are in process_test.cc.

#include <gtest/gtest.h>

#include <vector>

#include "common/flags.h"

namespace kandb {
namespace {

std::int64_t* const number = flags::DefineInteger("number", 7, "a number");
bool* const truth = flags::DefineBoolean("truth", true, "a truth");
std::string* const text = flags::DefineString("text", "dflt", "a text");

void Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "prog");
  flags::Parse(static_cast<int>(arguments.size()), arguments.data());
}

TEST(Flags, SetsValues) {
  Parse({});
  EXPECT_EQ(*number, 7);
  Parse({"--number", "-12", "--text=a=b", "--truth=false"});
  EXPECT_EQ(*number, -12);
  EXPECT_EQ(*text, "a=b");
  EXPECT_FALSE(*truth);
  Parse({"--truth", "--number= 12", "--text", "--number"});
  EXPECT_TRUE(*truth);
  EXPECT_EQ(*number, 12);
  EXPECT_EQ(*text, "--number");
  Parse({"--truth=", "--text=", "--number=1", "--number=9223372036854775807"});
  EXPECT_FALSE(*truth);
  EXPECT_EQ(*text, "");
  EXPECT_EQ(*number, 9223372036854775807);
}

TEST(FlagsDeathTest, NamesTheBadArgument) {
  const std::string usage =
      "usage: prog \\[flags\\]\n"
      "  --number               a number \\(default: 7\\)\n"
      "  --truth                a truth \\(default: true\\)\n"
      "  --text                 a text \\(default: dflt\\)\n$";
  const struct {
    std::vector<const char*> arguments;
    int exit_status;
    std::string error;
  } cases[] = {
      {{"-h"}, 0, "^" + usage},
      {{"--number=1", "--help", "junk"}, 0, "^" + usage},
      {{"-help"}, 1, "^unexpected argument: -help\n" + usage},
      {{"x"}, 1, "^unexpected argument: x\n" + usage},
      {{""}, 1, "^unexpected argument: \n" + usage},
      {{"--"}, 1, "^unknown flag: --\n" + usage},
      {{"--Number=1"}, 1, "^unknown flag: --Number\n" + usage},
      {{"--number"}, 1, "^flag --number requires a value\n$"},
      {{"--number="}, 1, "^bad value for --number: ''\n$"},
      {{"--number", "12x"}, 1, "^bad value for --number: '12x'\n$"},
      {{"--number=9223372036854775808"}, 1, "^bad value for --number: '9223372036854775808'\n$"},
      {{"--truth=yes"}, 1, "^bad value for --truth: 'yes'\n$"},
  };
  for (const auto& c : cases) {
    EXPECT_EXIT(Parse(c.arguments), ::testing::ExitedWithCode(c.exit_status), c.error);
  }
  EXPECT_EXIT(flags::DefineString("text", "", ""), ::testing::ExitedWithCode(1),
              "^duplicate flag definition: --text\n$");
}

}  // namespace
}  // namespace kandb
