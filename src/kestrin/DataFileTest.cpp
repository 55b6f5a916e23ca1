#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestrin/DataFile.h"
#include "kestrin/TestTempDir.h"

namespace {

using kestrin::TestTempDir;

// A file with the given content in a private directory, opened with DataFile.
class ConfigFile {
 public:
  explicit ConfigFile(const std::string& content)
      : path_(dir_.Write("test.conf", content)), file_(path_.c_str()) {}

  DataFile* operator->() { return &file_; }

  // Advances to the next section and checks that it is named `name`.
  void ExpectSection(const std::string& name) {
    ASSERT_TRUE(file_.NextSection(nullptr)) << "no section " << name;
    EXPECT_EQ(name, file_.GetSectionName());
  }

 private:
  TestTempDir dir_;
  std::string path_;
  DataFile file_;
};

// The names of all sections of `content`, in the order visited.
std::vector<std::string> SectionNames(const std::string& content) {
  ConfigFile file(content);
  std::vector<std::string> names;
  while (file->NextSection(nullptr)) names.push_back(file->GetSectionName());
  return names;
}

using Names = std::vector<std::string>;

// ---- Opening --------------------------------------------------------------

TEST(DataFile, NullFileNameThrowsText) {
  try {
    DataFile file(nullptr);
    FAIL() << "no exception";
  } catch (const char* text) {
    EXPECT_STREQ("invalid fileName", text);
  }
}

TEST(DataFile, MissingFileThrowsStringNamingIt) {
  TestTempDir dir;
  std::string path = dir.PathOf("Kestrin.conf");
  try {
    DataFile file(path.c_str());
    FAIL() << "no exception";
  } catch (const std::string& text) {
    EXPECT_EQ("DataFile::DataFile failed to open file " + path + ".", text);
  }
}

TEST(DataFile, DefaultConstructedHasNoSections) {
  DataFile file;
  EXPECT_FALSE(file.NextSection(nullptr));
  EXPECT_EQ("", file.GetSectionName());
  EXPECT_STREQ("", file.GetString("key"));
}

TEST(DataFile, EmptyFileHasNoSections) { EXPECT_EQ(Names{}, SectionNames("")); }

TEST(DataFile, SectionNameEmptyBeforeFirstSection) {
  ConfigFile file("[A]\nkey=1\n");
  EXPECT_EQ("", file->GetSectionName());
  EXPECT_STREQ("", file->GetString("key"));
}

TEST(DataFile, DirectoryYieldsNoSections) {
  TestTempDir dir;
  DataFile file(dir.PathOf("").c_str());
  EXPECT_FALSE(file.NextSection(nullptr));
}

// ---- Sections -------------------------------------------------------------

TEST(DataFile, ReadsSectionsInFileOrder) {
  ConfigFile file("[config]\nRole = Solo\n[Kestrin.log]\nFileSize = 2mb\n");
  file.ExpectSection("config");
  EXPECT_STREQ(" Solo", file->GetString("Role"));
  EXPECT_STREQ("", file->GetString("FileSize"));
  file.ExpectSection("Kestrin.log");
  EXPECT_STREQ(" 2mb", file->GetString("FileSize"));
  EXPECT_STREQ("", file->GetString("Role"));
  EXPECT_FALSE(file->NextSection(nullptr));
}

TEST(DataFile, NextSectionIgnoresItsArgument) {
  ConfigFile file("[A]\n[B]\n");
  ASSERT_TRUE(file->NextSection("B"));
  EXPECT_EQ("A", file->GetSectionName());
}

TEST(DataFile, FailedNextSectionKeepsCurrentSection) {
  ConfigFile file("[A]\nkey=1\n");
  file.ExpectSection("A");
  EXPECT_FALSE(file->NextSection(nullptr));
  EXPECT_FALSE(file->NextSection(nullptr));
  EXPECT_EQ("A", file->GetSectionName());
  EXPECT_STREQ("1", file->GetString("key"));
}

TEST(DataFile, LinesBeforeFirstHeaderIgnored) {
  ConfigFile file("key=early\n; comment\n\nplain text ]\n[A]\nother=1\n");
  file.ExpectSection("A");
  EXPECT_STREQ("", file->GetString("key"));
  EXPECT_STREQ("1", file->GetString("other"));
}

TEST(DataFile, HeaderNameIsTrimmed) {
  EXPECT_EQ(Names{"Logging"}, SectionNames("[ Logging ]\n"));
  EXPECT_EQ(Names{"Logging"}, SectionNames(" \t[\tLogging\t] \t\n"));
  EXPECT_EQ(Names{"Two words"}, SectionNames("[ Two words ]\n"));
}

TEST(DataFile, HeaderWithoutClosingBracketAccepted) {
  EXPECT_EQ(Names{"Logging"}, SectionNames("[Logging\n"));
  EXPECT_EQ(Names{"Files"}, SectionNames("[Files\nkey=1\n"));
}

TEST(DataFile, EmptyBracketsGiveEmptyName) {
  EXPECT_EQ(Names{""}, SectionNames("[]\n"));
  EXPECT_EQ(Names{""}, SectionNames("[\n"));
  EXPECT_EQ(Names{""}, SectionNames("[  ]\n"));
}

TEST(DataFile, OnlyLastClosingBracketDropped) {
  EXPECT_EQ(Names{"a]"}, SectionNames("[a]]\n"));
  EXPECT_EQ(Names{"a] b"}, SectionNames("[a] b\n"));
}

TEST(DataFile, SectionNamesAreCaseSensitive) {
  EXPECT_EQ((Names{"Config", "config"}), SectionNames("[Config]\n[config]\n"));
}

TEST(DataFile, DuplicateSectionsVisitedTwice) {
  ConfigFile file("[A]\nkey=1\n[B]\n[A]\nkey=2\n");
  file.ExpectSection("A");
  EXPECT_STREQ("1", file->GetString("key"));
  file.ExpectSection("B");
  file.ExpectSection("A");
  EXPECT_STREQ("2", file->GetString("key"));
  EXPECT_FALSE(file->NextSection(nullptr));
}

TEST(DataFile, BlankLineEndsSection) {
  ConfigFile file("[A]\nfirst=1\n\nsecond=2\n[B]\nthird=3\n");
  file.ExpectSection("A");
  EXPECT_STREQ("1", file->GetString("first"));
  EXPECT_STREQ("", file->GetString("second"));
  file.ExpectSection("B");
  EXPECT_STREQ("3", file->GetString("third"));
  EXPECT_STREQ("", file->GetString("second"));
}

TEST(DataFile, BlankLineRightAfterHeaderLeavesNoEntries) {
  ConfigFile file("[A]\n\nkey=1\nother=2\n");
  file.ExpectSection("A");
  EXPECT_STREQ("", file->GetString("key"));
  EXPECT_STREQ("", file->GetString("other"));
  EXPECT_FALSE(file->NextSection(nullptr));
}

TEST(DataFile, LineOfBlanksAndTabsEndsSection) {
  ConfigFile file("[A]\nfirst=1\n \t \nsecond=2\n");
  file.ExpectSection("A");
  EXPECT_STREQ("1", file->GetString("first"));
  EXPECT_STREQ("", file->GetString("second"));
}

TEST(DataFile, KeyLinesAfterBlankLineSkippedWhenSearchingNextSection) {
  ConfigFile file("[A]\nkey=1\n\nkey=2\n[not a header\n[B]\nkey=3\n");
  // "[not a header" is a header: it follows the blank line, so it is found.
  file.ExpectSection("A");
  EXPECT_STREQ("1", file->GetString("key"));
  file.ExpectSection("not a header");
  EXPECT_STREQ("", file->GetString("key"));
  file.ExpectSection("B");
  EXPECT_STREQ("3", file->GetString("key"));
  EXPECT_FALSE(file->NextSection(nullptr));
}

TEST(DataFile, CommentLinesAreNotEntries) {
  ConfigFile file("[A]\n;a=1\n#b=2\n  ; c=3\n\t# d=4\nreal=5\n");
  file.ExpectSection("A");
  EXPECT_STREQ("", file->GetString(";a"));
  EXPECT_STREQ("", file->GetString("a"));
  EXPECT_STREQ("", file->GetString("#b"));
  EXPECT_STREQ("", file->GetString("c"));
  EXPECT_STREQ("", file->GetString("d"));
  EXPECT_STREQ("5", file->GetString("real"));
}

TEST(DataFile, CommentDoesNotEndSection) {
  ConfigFile file("[A]\nfirst=1\n; note\nsecond=2\n");
  file.ExpectSection("A");
  EXPECT_STREQ("2", file->GetString("second"));
}

TEST(DataFile, OnlyFirst256BodyLinesExamined) {
  std::string content = "[A]\n";
  for (int i = 0; i < 300; ++i)
    content += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
  content += "[B]\nkey=b\n";
  ConfigFile file(content);
  file.ExpectSection("A");
  EXPECT_STREQ("0", file->GetString("key0"));
  EXPECT_STREQ("255", file->GetString("key255"));
  EXPECT_STREQ("", file->GetString("key256"));
  EXPECT_STREQ("", file->GetString("key299"));
  // The lines past the limit are skipped on the way to the next header.
  file.ExpectSection("B");
  EXPECT_STREQ("b", file->GetString("key"));
  EXPECT_STREQ("", file->GetString("key256"));
}

TEST(DataFile, CommentsCountTowardsBodyLimit) {
  std::string comments;
  for (int i = 0; i < 255; ++i) comments += "; comment\n";
  ConfigFile within("[A]\n" + comments + "last=yes\n");
  within.ExpectSection("A");
  EXPECT_STREQ("yes", within->GetString("last"));
  ConfigFile beyond("[A]\n" + comments + "#one more\nlast=yes\n");
  beyond.ExpectSection("A");
  EXPECT_STREQ("", beyond->GetString("last"));
}

TEST(DataFile, HeaderRightAfterBodyLimitIsFound) {
  std::string content = "[A]\n";
  for (int i = 0; i < 256; ++i) content += "k=v\n";
  ConfigFile file(content + "[B]\nkey=b\n");
  file.ExpectSection("A");
  file.ExpectSection("B");
  EXPECT_STREQ("b", file->GetString("key"));
}

TEST(DataFile, LastLineWithoutNewlineIsRead) {
  ConfigFile file("[A]\nkey=last");
  file.ExpectSection("A");
  EXPECT_STREQ("last", file->GetString("key"));
  EXPECT_FALSE(file->NextSection(nullptr));
}

TEST(DataFile, HeaderAsLastLineWithoutNewlineFollowingBodyIsNotVisited) {
  // Reading "[B]" as the line that ends A's body hits the end of the file, so
  // the stream is no longer good when the next section is asked for.
  EXPECT_EQ(Names{"A"}, SectionNames("[A]\nkey=1\n[B]"));
  EXPECT_EQ((Names{"A", "B"}), SectionNames("[A]\nkey=1\n[B]\n"));
  EXPECT_EQ(Names{"B"}, SectionNames("junk\n[B]"));
}

TEST(DataFile, LineOf511CharsIsRead) {
  std::string value(507, 'v');
  std::string line = "key=" + value;  // 511 characters
  ASSERT_EQ(511u, line.size());
  ConfigFile file("[A]\n" + line + "\n[B]\nnext=1\n");
  file.ExpectSection("A");
  EXPECT_EQ(value, file->GetString("key"));
  file.ExpectSection("B");
  EXPECT_STREQ("1", file->GetString("next"));
}

TEST(DataFile, LineOver511CharsEndsWalk) {
  std::string line = "long=" + std::string(507, 'v');  // 512 characters
  ConfigFile file("[A]\nbefore=1\n" + line + "\nafter=2\n[B]\nnext=1\n");
  file.ExpectSection("A");
  EXPECT_STREQ("1", file->GetString("before"));
  EXPECT_STREQ("", file->GetString("long"));
  EXPECT_STREQ("", file->GetString("after"));
  EXPECT_FALSE(file->NextSection(nullptr));
}

TEST(DataFile, LineOver511CharsBeforeAnyHeaderEndsWalk) {
  EXPECT_EQ(Names{}, SectionNames(std::string(600, ';') + "\n[A]\nkey=1\n"));
  EXPECT_EQ(Names{}, SectionNames("[" + std::string(511, 'n') + "]\n[A]\n"));
}

TEST(DataFile, CrLfKeepsCarriageReturn) {
  ConfigFile file("[Default]\r\nFlag = true\r\nSize = 10\r\nName = x\r\n");
  file.ExpectSection("Default]\r");
  EXPECT_NE("Default", file->GetSectionName());
  EXPECT_STREQ(" x\r", file->GetString("Name"));
  EXPECT_EQ("x\r", file->GetTrimmedString("Name"));
  bool found = false;
  bool valid = true;
  EXPECT_FALSE(file->GetBool("Flag", found, valid));
  EXPECT_TRUE(found);
  EXPECT_FALSE(valid);
  found = false;
  valid = true;
  EXPECT_EQ(0u, file->GetSizeInBytes("Size", found, valid));
  EXPECT_TRUE(found);
  EXPECT_FALSE(valid);
}

TEST(DataFile, CrLfBlankLineStillHoldsCarriageReturn) {
  // "\r" alone is not empty after trimming, so it does not end the section.
  ConfigFile file("[A]\r\nfirst=1\r\n\r\nsecond=2\r\n");
  file.ExpectSection("A]\r");
  EXPECT_STREQ("2\r", file->GetString("second"));
}

// ---- Entries --------------------------------------------------------------

TEST(DataFile, GetStringIsRawValueAfterFirstEquals) {
  ConfigFile file("[A]\n  key \t=  spaced value\t \n");
  file.ExpectSection("A");
  // The line was trimmed as a whole, the value itself is not.
  EXPECT_STREQ("  spaced value", file->GetString("key"));
  EXPECT_EQ("spaced value", file->GetTrimmedString("key"));
}

TEST(DataFile, ValueMayContainEquals) {
  ConfigFile file("[A]\nKey = a=b\n");
  file.ExpectSection("A");
  EXPECT_STREQ(" a=b", file->GetString("Key"));
  EXPECT_EQ("a=b", file->GetTrimmedString("Key"));
}

TEST(DataFile, FirstDuplicateKeyWins) {
  ConfigFile file("[A]\nkey = first\nkey = second\n");
  file.ExpectSection("A");
  EXPECT_STREQ(" first", file->GetString("key"));
}

TEST(DataFile, KeysAreCaseSensitive) {
  ConfigFile file("[A]\nFileSize = 1\n");
  file.ExpectSection("A");
  EXPECT_STREQ("", file->GetString("filesize"));
  EXPECT_STREQ(" 1", file->GetString("FileSize"));
}

TEST(DataFile, LineWithoutEqualsNeverMatches) {
  ConfigFile file("[A]\nflag\nflag = set\n");
  file.ExpectSection("A");
  EXPECT_STREQ(" set", file->GetString("flag"));
  ConfigFile lone("[A]\nlonely\n");
  lone.ExpectSection("A");
  EXPECT_STREQ("", lone->GetString("lonely"));
}

TEST(DataFile, EmptyValueIsEmptyString) {
  ConfigFile file("[A]\nkey =\n");
  file.ExpectSection("A");
  EXPECT_STREQ("", file->GetString("key"));
  EXPECT_EQ("", file->GetTrimmedString("key"));
}

TEST(DataFile, EmptyKeyMatchesLineStartingWithEquals) {
  ConfigFile file("[A]\n= orphan\n");
  file.ExpectSection("A");
  EXPECT_STREQ(" orphan", file->GetString(""));
}

TEST(DataFile, AbsentKeyGivesEmptyString) {
  ConfigFile file("[A]\nkey=1\n");
  file.ExpectSection("A");
  EXPECT_STREQ("", file->GetString("missing"));
  EXPECT_EQ("", file->GetTrimmedString("missing"));
}

// ---- GetInt ---------------------------------------------------------------

TEST(DataFile, GetIntConvertsRawValue) {
  ConfigFile file("[A]\nn = 42\nneg=-7\nword=abc\nmixed=12abc\nblank=\n");
  file.ExpectSection("A");
  EXPECT_EQ(42, file->GetInt("n"));
  EXPECT_EQ(-7, file->GetInt("neg"));
  EXPECT_EQ(0, file->GetInt("word"));
  EXPECT_EQ(12, file->GetInt("mixed"));
  EXPECT_EQ(0, file->GetInt("blank"));
  EXPECT_EQ(0, file->GetInt("absent"));
  EXPECT_EQ(0, file->GetInt(nullptr));
}

TEST(DataFile, GetIntWithFlagReportsFound) {
  ConfigFile file("[A]\nn = 42 \t\nneg = -3\nword=abc\nmixed=12abc\nblank=  \t\n");
  file.ExpectSection("A");
  bool found = false;
  EXPECT_EQ(42, file->GetInt("n", found));
  EXPECT_TRUE(found);
  found = false;
  EXPECT_EQ(-3, file->GetInt("neg", found));
  EXPECT_TRUE(found);
  found = false;
  EXPECT_EQ(0, file->GetInt("word", found));
  EXPECT_TRUE(found);
  found = false;
  EXPECT_EQ(12, file->GetInt("mixed", found));
  EXPECT_TRUE(found);
}

TEST(DataFile, GetIntWithFlagAbsentOrBlankNotFound) {
  ConfigFile file("[A]\nblank=  \t\n");
  file.ExpectSection("A");
  bool found = true;
  EXPECT_EQ(0, file->GetInt("blank", found));
  EXPECT_FALSE(found);
  found = true;
  EXPECT_EQ(0, file->GetInt("absent", found));
  EXPECT_FALSE(found);
  found = true;
  EXPECT_EQ(0, file->GetInt(nullptr, found));
  EXPECT_FALSE(found);
}

// ---- GetBool --------------------------------------------------------------

struct BoolResult {
  bool value;
  bool found;
  bool valid;
};

// Reads `text` as the value of a key, with both flags preset to the opposite
// of what a correct reader leaves for a valid word.
BoolResult BoolOf(const std::string& text) {
  ConfigFile file("[A]\nkey=" + text + "\n");
  if (!file->NextSection(nullptr)) ADD_FAILURE() << "no section";
  BoolResult result{true, false, false};
  result.value = file->GetBool("key", result.found, result.valid);
  return result;
}

TEST(DataFile, GetBoolTrueWordsInAnyCase) {
  for (const char* word :
       {"true", "TRUE", "True", "tRuE", "t", "T", "yes", "YES", "Yes", "y", "Y", "  true\t"}) {
    BoolResult r = BoolOf(word);
    EXPECT_TRUE(r.value) << word;
    EXPECT_TRUE(r.found) << word;
    EXPECT_TRUE(r.valid) << word;
  }
}

TEST(DataFile, GetBoolFalseWordsInAnyCase) {
  for (const char* word : {"false", "FALSE", "False", "f", "F", "no", "NO", "No", "n", "N"}) {
    ConfigFile file(std::string("[A]\nkey=") + word + "\n");
    file.ExpectSection("A");
    bool found = false;
    bool valid = false;
    EXPECT_FALSE(file->GetBool("key", found, valid)) << word;
    EXPECT_TRUE(found) << word;
    EXPECT_TRUE(valid) << word;
  }
}

TEST(DataFile, GetBoolOtherTextIsInvalid) {
  for (const char* word : {"1", "0", "on", "off", "truee", "yes please", "ye", "nope", "true\r"}) {
    ConfigFile file(std::string("[A]\nkey=") + word + "\n");
    file.ExpectSection("A");
    bool found = false;
    bool valid = true;
    EXPECT_FALSE(file->GetBool("key", found, valid)) << word;
    EXPECT_TRUE(found) << word;
    EXPECT_FALSE(valid) << word;
  }
}

TEST(DataFile, GetBoolAbsentOrBlankNotFound) {
  ConfigFile file("[A]\nblank = \t\n");
  file.ExpectSection("A");
  for (const char* key : {"blank", "absent", static_cast<const char*>(nullptr)}) {
    bool found = true;
    bool valid = true;
    EXPECT_FALSE(file->GetBool(key, found, valid));
    EXPECT_FALSE(found);
    EXPECT_FALSE(valid);
  }
}

// ---- GetSizeInBytes -------------------------------------------------------

struct SizeResult {
  uint32_t bytes;
  bool found;
  bool valid;
};

SizeResult SizeOf(const std::string& text) {
  ConfigFile file("[A]\nkey=" + text + "\n");
  if (!file->NextSection(nullptr)) ADD_FAILURE() << "no section";
  SizeResult result{12345, false, false};
  result.bytes = file->GetSizeInBytes("key", result.found, result.valid);
  return result;
}

void ExpectValidSize(uint32_t bytes, const std::string& text) {
  SizeResult r = SizeOf(text);
  EXPECT_EQ(bytes, r.bytes) << text;
  EXPECT_TRUE(r.found) << text;
  EXPECT_TRUE(r.valid) << text;
}

void ExpectInvalidSize(const std::string& text) {
  ConfigFile file("[A]\nkey=" + text + "\n");
  file.ExpectSection("A");
  bool found = false;
  bool valid = true;
  EXPECT_EQ(0u, file->GetSizeInBytes("key", found, valid)) << text;
  EXPECT_TRUE(found) << text;
  EXPECT_FALSE(valid) << text;
}

TEST(DataFile, SizePlainDigitsAreBytes) {
  ExpectValidSize(1024, "1024");
  ExpectValidSize(0, "0");
  ExpectValidSize(15728640, " 15728640 ");
}

TEST(DataFile, SizeUnitsShiftByPowersOfTwo) {
  ExpectValidSize(10240, "10kb");
  ExpectValidSize(3145728, "3mb");
  ExpectValidSize(2147483648u, "2gb");
}

TEST(DataFile, SizeUnitIgnoresCaseAndLeadingBlanks) {
  ExpectValidSize(10240, "10 KB");
  ExpectValidSize(10240, "10kb");
  ExpectValidSize(10240, "10 Kb");
  ExpectValidSize(10240, "10kB");
  ExpectValidSize(5242880, "5\tMB");
  ExpectValidSize(1073741824, "1 gB");
}

TEST(DataFile, SizeWithLeadingZerosIsDecimal) { ExpectValidSize(10240, "0010kb"); }

TEST(DataFile, SizeUnitAloneIsInvalid) {
  ExpectInvalidSize("kb");
  ExpectInvalidSize("k10");
  ExpectInvalidSize(" MB");
}

TEST(DataFile, SizeNegativeIsInvalid) {
  ExpectInvalidSize("-5");
  ExpectInvalidSize("-5kb");
  ExpectInvalidSize("+5");
}

TEST(DataFile, SizeOtherSuffixIsInvalid) {
  for (const char* text :
       {"12 bytes", "10k", "10m", "10g", "10b", "10 kb x", "1.5mb", "10tb", "10kib", "10\r"}) {
    ExpectInvalidSize(text);
  }
}

TEST(DataFile, SizeAbsentOrBlankNotFound) {
  ConfigFile file("[A]\nblank =  \n");
  file.ExpectSection("A");
  for (const char* key : {"blank", "absent", static_cast<const char*>(nullptr)}) {
    bool found = true;
    bool valid = true;
    EXPECT_EQ(0u, file->GetSizeInBytes(key, found, valid));
    EXPECT_FALSE(found);
    EXPECT_FALSE(valid);
  }
}

TEST(DataFile, SizeWrapsAt4gb) {
  ExpectValidSize(0, "4gb");
  ExpectValidSize(1073741824, "5gb");
  ExpectValidSize(0, "4096mb");
  ExpectValidSize(1024, "4194305kb");
}

}  // namespace
