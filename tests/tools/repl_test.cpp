// The interactive prompt: state kept between lines, blocks gathered until they close,
// expression lines echoed, errors reported without leaving.
#include "tools/repl.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

struct Session {
    std::string out;
    std::string err;
};

Session runLines(const std::string& input) {
    korvel::KorvelScript script;
    std::istringstream in(input);
    std::ostringstream out, err;
    script.setOutput([&](std::string_view text) { out << text; });  // printed and echoed lines in order
    int status = korvel::tools::runRepl(script, in, out, err, false);
    EXPECT_EQ(status, 0);
    return {out.str(), err.str()};
}

TEST(Repl, KeepsGlobalsBetweenLines) {
    Session s = runLines("x = 40\nx = x + 2\nprint(x)\n");
    EXPECT_EQ(s.out, "42\n");
    EXPECT_EQ(s.err, "");
}

TEST(Repl, EchoesTheValueOfAnExpressionLine) {
    Session s = runLines("2 ^ 3 ^ 2\n\"a\" + 1\n");
    EXPECT_EQ(s.out, "512\na1\n");
}

TEST(Repl, StaysQuietForNothing) {
    Session s = runLines("undefinedName\n");
    EXPECT_EQ(s.out, "");
}

TEST(Repl, WaitsForTheClosingLineOfABlock) {
    Session s = runLines("function twice(n)\n  return n * 2\nend\ntwice(21)\nfor i = 1, 2\nprint(i)\nend\n");
    EXPECT_EQ(s.out, "42\n1\n2\n");
    EXPECT_EQ(s.err, "");
}

TEST(Repl, ReportsAnErrorAndGoesOn) {
    Session s = runLines("1 / 0\nprint(\"still here\")\n");
    EXPECT_NE(s.err.find("KorvelScript error: Division by zero"), std::string::npos) << s.err;
    EXPECT_NE(s.err.find("hint: check spelling"), std::string::npos);
    EXPECT_NE(s.err.find("\n  1 / 0\n    ^\n"), std::string::npos) << "the report shows the line as typed: " << s.err;
    EXPECT_EQ(s.out, "still here\n");
}

TEST(Repl, KnowsWhenABlockIsOpen) {
    EXPECT_TRUE(korvel::tools::needsMoreInput("if x\n"));
    EXPECT_TRUE(korvel::tools::needsMoreInput("repeat\nx = 1\n"));
    EXPECT_FALSE(korvel::tools::needsMoreInput("repeat\nx = 1\nuntil true\n"));
    EXPECT_FALSE(korvel::tools::needsMoreInput("print(1)\n"));
}

}  // namespace
