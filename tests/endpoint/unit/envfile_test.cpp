#include <gtest/gtest.h>

#include "envfile.h"

using endpoint::Assignments;
using endpoint::EnvFileError;
using endpoint::parse_env_file;

namespace {

Assignments parse_ok(const std::string& text) {
    Assignments out;
    EnvFileError error;
    EXPECT_TRUE(parse_env_file(text, out, error)) << error.line << ": " << error.message;
    return out;
}

EnvFileError parse_bad(const std::string& text) {
    Assignments out = {{"KEPT", "1"}};
    EnvFileError error;
    EXPECT_FALSE(parse_env_file(text, out, error)) << text;
    EXPECT_EQ(out, (Assignments{{"KEPT", "1"}})) << "output touched on error";
    return error;
}

}  // namespace

TEST(EnvFile, CommentsBlanksAndUnquotedValues) {
    EXPECT_EQ(parse_ok("# relay\n\n   ; also a comment\nHVN_RELAY_SERVER=relay.example:2223\n"
                       "  SPACED  =  value with  inner blanks  \t\n"
                       "EMPTY=\nHASH=a # not a comment\nLAST=no newline"),
              (Assignments{{"HVN_RELAY_SERVER", "relay.example:2223"},
                           {"SPACED", "value with  inner blanks"},
                           {"EMPTY", ""},
                           {"HASH", "a # not a comment"},
                           {"LAST", "no newline"}}));
    // Windows line ends; a repeated key is kept twice, in order (the later
    // one wins when applied).
    EXPECT_EQ(parse_ok("A=1\r\nA=2\r\n"), (Assignments{{"A", "1"}, {"A", "2"}}));
}

TEST(EnvFile, BackslashesAndLineContinuation) {
    EXPECT_EQ(parse_ok("A=one\\\ntwo\nB=keep\\ \nC=a\\\\b\\\"c\n"),
              (Assignments{{"A", "onetwo"}, {"B", "keep "}, {"C", "a\\b\"c"}}));
}

TEST(EnvFile, QuotedValues) {
    EXPECT_EQ(parse_ok("S='it has \"double\" and \\ kept'\n"
                       "M='two\nlines'\n"
                       "D=\"say \\\"hi\\\" \\$HOME \\` \\\\ \\n \"  \n"
                       "J=\"joined\\\nhere\"\n"
                       "Q=  'blank outside'  \n"
                       "U=it's fine\n"),
              (Assignments{{"S", "it has \"double\" and \\ kept"},
                           {"M", "two\nlines"},
                           {"D", "say \"hi\" $HOME ` \\ \\n "},
                           {"J", "joinedhere"},
                           {"Q", "blank outside"},
                           {"U", "it's fine"}}));
}

TEST(EnvFile, FaultsNameTheirLine) {
    struct Case {
        const char* text;
        int line;
        const char* words;
    } cases[] = {
        {"A=1\nno equals sign\n", 2, "expected KEY=VALUE"},
        {"export A=1\n", 1, "expected KEY=VALUE"},
        {"1A=x\n", 1, "expected KEY=VALUE"},
        {"A-B=x\n", 1, "expected KEY=VALUE"},
        {"=x\n", 1, "expected KEY=VALUE"},
        {"A=1\n\nB='open\nstill\n", 3, "unterminated single quote"},
        {"B=\"open\\\"\n", 1, "unterminated double quote"},
        {"A=\"x\" y\n", 1, "after the closing quote"},
        {"A='x'\nB='y'z\n", 2, "after the closing quote"},
    };
    for (const Case& c : cases) {
        EnvFileError error = parse_bad(c.text);
        EXPECT_EQ(error.line, c.line) << c.text;
        EXPECT_NE(error.message.find(c.words), std::string::npos) << error.message;
    }
    EnvFileError error = parse_bad(std::string("A=1\nB=x\0y\n", 10));
    EXPECT_EQ(error.line, 2);
    EXPECT_EQ(error.message, "zero byte in the file");
}
