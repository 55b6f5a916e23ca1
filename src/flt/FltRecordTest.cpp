#include <gtest/gtest.h>

#include <string>

#include "flt/FltRecord.h"
#include "flt/StrictJson.h"

namespace {

using flt_test::JsonObject;
using flt_test::JsonValue;
using flt_test::StrictJsonParser;

std::string Encoded(const std::string& text) {
  std::string out;
  FltAppendJsonString(out, text.data(), text.size());
  return out;
}

// Parses `json` strictly and returns the decoded "reason".
std::string DecodedReason(const std::string& json) {
  JsonObject object;
  std::string error;
  EXPECT_TRUE(StrictJsonParser(json).Parse(&object, &error)) << error << "\n" << json;
  return object.values["reason"].text;
}

CFltRecord FullRecord() {
  CFltRecord record;
  record.setEventId(7001);
  record.setNotificationSequenceNumber(42);
  record.setDefinedName("systemId=PXR;entityId=card7;entitySubId=Disk");
  record.setRaiseTime(1700000000);
  record.setIsClear(false);
  record.setOriginalSeverity("major");
  record.setReason("Disk full");
  record.setAlarmSetText("set text");
  record.setAlarmSetQueueName("AlarmQ");
  record.setSeverity(4);
  return record;
}

TEST(FltRecord, FieldsStartEmpty) {
  CFltRecord record;
  EXPECT_EQ(
      "{\"eventId\":0,\"sequence\":0,\"definedName\":\"\",\"raiseTime\":0,\"isClear\":false,"
      "\"originalSeverity\":\"\",\"reason\":\"\",\"alarmSetText\":\"\",\"alarmSetQueue\":\"\","
      "\"severity\":0}",
      record.ToJson());
}

TEST(FltRecord, JsonCarriesEveryFieldUnderItsKeyInOrder) {
  EXPECT_EQ(
      "{\"eventId\":7001,\"sequence\":42,"
      "\"definedName\":\"systemId=PXR;entityId=card7;entitySubId=Disk\","
      "\"raiseTime\":1700000000,\"isClear\":false,\"originalSeverity\":\"major\","
      "\"reason\":\"Disk full\",\"alarmSetText\":\"set text\",\"alarmSetQueue\":\"AlarmQ\","
      "\"severity\":4}",
      FullRecord().ToJson());
}

TEST(FltRecord, GettersReturnWhatSettersStored) {
  CFltRecord record = FullRecord();
  record.setIsClear(true);
  EXPECT_EQ(7001, record.getEventId());
  EXPECT_EQ(42u, record.getNotificationSequenceNumber());
  EXPECT_EQ("systemId=PXR;entityId=card7;entitySubId=Disk", record.getDefinedName());
  EXPECT_EQ(1700000000, record.getRaiseTime());
  EXPECT_TRUE(record.getIsClear());
  EXPECT_EQ("major", record.getOriginalSeverity());
  EXPECT_EQ("Disk full", record.getReason());
  EXPECT_EQ("set text", record.getAlarmSetText());
  EXPECT_EQ("AlarmQ", record.getAlarmSetQueueName());
  EXPECT_EQ(4, record.getSeverity());
}

TEST(FltRecord, NegativeNumbersAndClearFlagAreWritten) {
  CFltRecord record;
  record.setEventId(-1);
  record.setRaiseTime(-5);
  record.setSeverity(-2);
  record.setIsClear(true);
  record.setNotificationSequenceNumber(4294967295u);
  std::string json = record.ToJson();
  EXPECT_NE(std::string::npos, json.find("\"eventId\":-1,"));
  EXPECT_NE(std::string::npos, json.find("\"sequence\":4294967295,"));
  EXPECT_NE(std::string::npos, json.find("\"raiseTime\":-5,"));
  EXPECT_NE(std::string::npos, json.find("\"isClear\":true,"));
  EXPECT_NE(std::string::npos, json.find("\"severity\":-2}"));
}

TEST(FltRecord, NullTextsCountAsEmpty) {
  CFltRecord record = FullRecord();
  record.setDefinedName(nullptr);
  record.setOriginalSeverity(nullptr);
  record.setReason(nullptr);
  record.setAlarmSetText(nullptr);
  record.setAlarmSetQueueName(nullptr);
  EXPECT_EQ("", record.getDefinedName());
  EXPECT_EQ("", record.getOriginalSeverity());
  EXPECT_EQ("", record.getReason());
  EXPECT_EQ("", record.getAlarmSetText());
  EXPECT_EQ("", record.getAlarmSetQueueName());
}

TEST(FltRecordJson, QuotesAndBackslashesAreEscaped) {
  EXPECT_EQ("\"say \\\"hi\\\" C:\\\\dir\\\\\"", Encoded("say \"hi\" C:\\dir\\"));
}

TEST(FltRecordJson, TabsAndLineEndsTakeShortEscapes) {
  EXPECT_EQ("\"a\\tb\\nc\\rd\\be\\ff\"", Encoded("a\tb\nc\rd\be\ff"));
}

TEST(FltRecordJson, OtherControlCharactersBecomeUnicodeEscapes) {
  EXPECT_EQ("\"\\u0001\\u001f\\u007f\\u001b[0m\"", Encoded("\x01\x1f\x7f\x1b[0m"));
}

TEST(FltRecordJson, EmbeddedNulIsEscapedNotCut) {
  EXPECT_EQ("\"a\\u0000b\"", Encoded(std::string("a\0b", 3)));
}

TEST(FltRecordJson, WellFormedUtf8PassesUnchanged) {
  const std::string text = "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\xA5";  // café € and a 4-byte one
  EXPECT_EQ("\"" + text + "\"", Encoded(text));
}

TEST(FltRecordJson, InvalidBytesBecomeLatin1Escapes) {
  // A lone continuation byte, a lone lead byte, 0xFF and a cut sequence.
  EXPECT_EQ("\"\\u0080x\\u00c3y\\u00ff\\u00e2\\u0082\"", Encoded("\x80x\xC3y\xFF\xE2\x82"));
}

TEST(FltRecordJson, OverlongSurrogateAndOutOfRangeFormsAreEscapedBytewise) {
  EXPECT_EQ("\"\\u00c0\\u00af\"", Encoded("\xC0\xAF"));                        // over-long '/'
  EXPECT_EQ("\"\\u00e0\\u0080\\u00af\"", Encoded("\xE0\x80\xAF"));             // over-long 3-byte
  EXPECT_EQ("\"\\u00ed\\u00a0\\u0080\"", Encoded("\xED\xA0\x80"));             // surrogate U+D800
  EXPECT_EQ("\"\\u00f4\\u0090\\u0080\\u0080\"", Encoded("\xF4\x90\x80\x80"));  // above U+10FFFF
}

TEST(FltRecordJson, MessageWithEveryHazardParsesStrictlyAndDecodesBack) {
  const std::string hazards = "He said \"stop\"\t\\path\\ \x01\x02\n\r end";
  CFltRecord record = FullRecord();
  record.setReason(hazards.c_str());
  EXPECT_EQ(hazards, DecodedReason(record.ToJson()));
}

TEST(FltRecordJson, InvalidUtf8StillParsesStrictly) {
  CFltRecord record = FullRecord();
  record.setReason("bad \xFF\xFE byte \xC3");
  // Each invalid byte decodes as the Latin-1 character of the same value.
  EXPECT_EQ("bad \xC3\xBF\xC3\xBE byte \xC3\x83", DecodedReason(record.ToJson()));
}

TEST(FltRecordJson, EveryByteValueYieldsValidJson) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all += static_cast<char>(byte);
  CFltRecord record;
  record.setReason(all.c_str());
  record.setDefinedName(all.c_str());
  JsonObject object;
  std::string error;
  EXPECT_TRUE(StrictJsonParser(record.ToJson()).Parse(&object, &error)) << error;
}

// The strict parser must itself reject what is not JSON, or the tests above
// would prove nothing.
TEST(StrictJsonParser, RejectsRawControlCharactersBadEscapesAndBadUtf8) {
  auto parses = [](const std::string& text) {
    JsonObject object;
    return StrictJsonParser(text).Parse(&object, nullptr);
  };
  EXPECT_FALSE(parses("{\"a\":\"x\ty\"}"));
  EXPECT_FALSE(parses("{\"a\":\"x\\qy\"}"));
  EXPECT_FALSE(parses("{\"a\":\"\xFF\"}"));
  EXPECT_FALSE(parses("{\"a\":\"\xC0\xAF\"}"));
  EXPECT_FALSE(parses("{\"a\":\"\\ud800\"}"));
  EXPECT_FALSE(parses("{\"a\":1} x"));
  EXPECT_FALSE(parses("{\"a\":01}"));
  EXPECT_FALSE(parses("{\"a\":1,\"a\":2}"));
  JsonObject good;
  EXPECT_TRUE(StrictJsonParser("{\"a\":\"\\u00e9\",\"b\":-3,\"c\":true}").Parse(&good, nullptr));
  EXPECT_EQ("\xC3\xA9", good.values["a"].text);
  EXPECT_EQ(-3, good.values["b"].number);
  EXPECT_TRUE(good.values["c"].flag);
}

}  // namespace
