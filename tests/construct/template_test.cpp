#include "construct/template.h"

#include <gtest/gtest.h>

#include "construct/child.h"
#include "construct/construction.h"
#include "construct/levelsource.h"
#include "data/unitreader.h"

namespace kdr {
namespace {

const std::string head = "#KDR3 MDM CREATION TEMPLATE\n";

// A complete template, in the form in which it is written back.
const std::string whole = head +
                          "mdmtype:2\n"
                          "rawdattype:ascii\n"
                          "l1fname:one\nl2fname:two\nl3fname:three\n"
                          "numl1var:2\nnuml2var:1\nnuml3var:1\n"
                          "l1format:(2A2,2F3.0)\nl2format:(2A2,F3.0)\nl3format:(A2,F3.0)\n"
                          "l1missing:y/DIFFERENT\n-9.000000\n99.000000\n"
                          "timeofdeletion:analysis\n"
                          "mdmname:made.mdm\n"
                          "*begin l1vars\nX\nY\n*end l1vars\n"
                          "*begin l2vars\nW\n*end l2vars\n"
                          "*begin l3vars\nZ\n*end l3vars\n";

std::string with(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

struct Template : testing::Test {
  Workplace workplace;
  Template() {
    makefile("one", "a 1   1  2\na 1  -9  3\na 2  99 99\nb 1   5  6\nb 1     -9\n");
    makefile("two", "a 1   7\na 2   8\nb 1  99\n");
    makefile("three", "a  10\nb  20\n");
  }
  static ChildEnd readback(const std::string& text) {
    makefile("t.mdmt", text);
    std::remove(templatecopy);
    return runchild([] { readtemplate("t.mdmt"); });
  }
};

TEST_F(Template, WritesBackWhatItRead) {
  std::string crlf;
  for (const char c : whole) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  const std::string same =
      with(whole, "l1missing:y/DIFFERENT\n-9.000000\n99.000000\n", "l1missing:y/SAME\n-9.500000\n");
  const std::string none = with(whole, "l1missing:y/DIFFERENT\n-9.000000\n99.000000\n", "l1missing:n\n");
  const struct {
    const char* what;
    std::string text;
    std::string copy;
  } cases[] = {
      {"as written", whole, whole},
      {"line ends of the other kind", crlf, whole},
      {"one missing code", same, same},
      {"comments and blanks", with(whole, "mdmname:", "# mdmname:no\n mdmname:no\n\nMDMNAME:   "), whole},
      {"a byte order mark", "\xEF\xBB\xBF" + whole, whole},
      {"blanks behind colons",
       with(with(with(with(whole, "y/DIFF", " y/DIFF"), ":analysis", ": analysis"), "var:2", "var: 2"), "pe:2",
            "pe: 2"),
       whole},
      {"the older growth keyword", with(whole, "mdmtype:2", "GROWTHMODEL:y"), with(whole, "mdmtype:2", "mdmtype:1")},
      {"the later type holds", with(whole, "mdmtype:2", "GROWTHMODEL:Y\nMDMTYPE:2"), whole},
      {"defaults", with(with(none, "timeofdeletion:analysis\n", ""), "l1missing:n\n", ""),
       with(none, "analysis", "now")},
      {"colons behind block words, longer words",
       with(with(whole, "*begin l2vars", "*BEGIN L2VARS:"), "ascii", "ASCII1"), whole},
      {"names are upper case, cut to 8 characters, without blanks", with(whole, "\nW\n", "\nabcdefghij  \n"),
       with(whole, "\nW\n", "\nABCDEFGH\n")},
      {"a name of 12 characters", with(whole, "\nW\n", "\nabcdefghijkl\n"), with(whole, "\nW\n", "\nABCDEFGH\n")},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = readback(c.text);
    EXPECT_EQ(outcome.code, 0) << c.what << outcome.words;
    EXPECT_EQ(contents(templatecopy), c.copy) << c.what;
  }
}

TEST_F(Template, Refusals) {
  const std::string nofile = "Must specify raw data type and input file name before variable names!\n";
  const std::string notype = "Must specify raw data type before input file name!\n";
  const auto invalid = [](int line) {
    return "Line " + std::to_string(line) + " of the template t.mdmt has a value that is not valid.\n";
  };
  const std::string badmissing = "Incorrect specification of ASCII missing information!\n";
  const struct {
    std::string text;
    std::string words;
  } cases[] = {
      {"", "t.mdmt does not seem to be a KDR3 mdm template file!\n"},
      {"x" + whole, "t.mdmt does not seem to be a KDR3 mdm template file!\n"},
      {with(whole, "rawdattype:ascii\n", ""), notype},
      {head + "l1format:(A1)\n", notype},
      {head + "*begin l1vars\n", nofile},
      {with(whole, "l2fname:two\n", ""), nofile},
      {head + "rawdattype:ascii\nl1missing:y/same\n1\n", nofile},
      {head + "l1missing:y/same\n1\n", nofile},
      {with(whole, "/DIFFERENT", "/OTHER"), badmissing},
      {with(whole, "/DIFFERENT", ""), badmissing},
      {with(whole, "-9.000000", "none"), badmissing},
      {with(whole, "-9.000000", "-9,5"), badmissing},
      {with(whole, "mdmtype:2", "mdmtype:7"), invalid(2)},
      {with(whole, "mdmtype:2", "growthmodel:"), invalid(2)},
      {with(whole, "y/DIFFERENT", "maybe"), invalid(13)},
      {with(whole, ":analysis", ":later"), invalid(16)},
      {with(whole, ":analysis", ":never"), invalid(16)},
      {with(whole, "numl2var:1", "numl2var:1 2"), invalid(8)},
      {whole + "COLOUR:\x1Bred\n", "Line 28 of the template t.mdmt has no keyword of a template: COLOUR:?red\n"},
      {with(whole, "(2A2,F3.0)", "(2A2,T1,F3.0)"),
       " Unusable format type: T\n\nThe format of the level-2 file cannot be used.\n"},
      {with(whole, "\nX\nY\n", "\nLONGNAME1\nLONGNAME2\n"),
       "Two variables of the level-1 file one would have the name LONGNAME: names count by their first 8 "
       "characters!\n"},
      {with(whole, "\nW\n", "\nintrcpt1\n"), "A level-2 variable must not bear the name of an intercept, INTRCPT1!\n"},
      {head + "l1missing:y\n" + with(whole, "l1missing:y/DIFFERENT\n-9.000000\n99.000000\n", ""), badmissing},
      {with(whole, "ascii", "text"), "Invalid raw data type.\n"},
      {with(whole, "\nW\n", "\nabcdefghijklm\n"), "Variable name abcdefghijklm is too long!\n"},
      {with(whole, "*end l2vars", "*end l4vars"), "There are more than 1 level-2 variable names!\n"},
      {with(whole, "*end l3vars\n", ""), "Did not find *END L3VARS!\n"},
      {with(whole, "\nX\nY\n", "\nX\n"), "There are fewer than 2 level-1 variable names!\n"},
      {with(whole, "numl2var:1\n", ""), "Must specify the number of level-2 variables before their names!\n"},
      {with(whole, "numl1var:2", "numl1var:-1"), "The number of level-1 variables must lie between 0 and 1000000!\n"},
      {with(whole, "l3format:(A2,F3.0)\n", ""), "The template tells no format of the level-3 file!\n"},
      {with(whole, "*begin l3vars\nZ\n*end l3vars\n", ""), "The template names no level-3 variables!\n"},
      {whole + "numl2var:1\n", "The template names no level-2 variables!\n"},
      {head, "The template tells no raw data type!\n"},
      {head + "rawdattype:ascii\n", "The template names no level-1 file!\n"},
      {with(whole, "(2A2,F3.0)", std::string(1024, 'x')),
       "The format of the level-2 file has more than 1023 characters!\n"},
      {with(whole, "l1fname:one", "l1fname:" + std::string(260, 'x')),
       "File name too long: " + std::string(260, 'x') + "\n"},
      {with(whole, "l1fname:one", "l1fname:nowhere"), "Unable to open nowhere for reading\n"},
      {with(whole, "l1fname:one", "l1fname:."), "Unable to open . for reading\n"},
  };
  for (const auto& c : cases) {
    const ChildEnd outcome = readback(c.text);
    EXPECT_EQ(outcome.code, 100) << c.words;
    EXPECT_EQ(outcome.words, c.words);
    EXPECT_FALSE(std::filesystem::exists(templatecopy)) << c.words;
  }
}

// What the construction writes must not be one of the files that it reads.
TEST_F(Template, RawFilesThatWouldBeOverwritten) {
  for (const auto& [name, role] : {std::pair("creatmdm.mdmt", "template's copy"), std::pair("KDR3MDM.STS", "log")}) {
    std::filesystem::copy_file("one", name);
    makefile("t.mdmt", with(whole, "l1fname:one", std::string("l1fname:") + name));
    const ChildEnd outcome = runchild([] {
      readtemplate("t.mdmt");
      mkmdm();
    });
    EXPECT_EQ(outcome.code, 100);
    EXPECT_EQ(outcome.words,
              std::string("The raw data file ") + name + " bears the name of the " + role + ". Please rename it.\n");
    EXPECT_EQ(contents(name), contents("one"));
  }
}

}  // namespace
}  // namespace kdr
