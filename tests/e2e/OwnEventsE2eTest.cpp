// The daemon's own events through the real daemon: throttled reports of a
// recurring problem, the alarms held back until start-up is complete, and
// the built-in taxonomy entry that stands in for an unreadable taxonomy.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "KestrinServer.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

constexpr char DUMP_END[] = "****************END of registration table dump****************";
constexpr char IN_FUTURE[] = " (In future, similar messages may be suppressed.)";

bool WaitForOwnLogCount(const KestrinServer& server, const std::string& text, int count) {
  return WaitUntil([&]() { return Count(server.OwnLogTexts(), text) >= count; });
}

long long IntegerOf(const flt_test::JsonObject& record, const std::string& key) {
  auto found = record.values.find(key);
  if (found == record.values.end() || found->second.kind != flt_test::JsonValue::INTEGER) {
    return -999999;
  }
  return found->second.number;
}

std::string StringOf(const flt_test::JsonObject& record, const std::string& key) {
  auto found = record.values.find(key);
  if (found == record.values.end() || found->second.kind != flt_test::JsonValue::STRING) {
    return "<missing>";
  }
  return found->second.text;
}

int RecordCount(const KestrinServer& server, int eventId) {
  int count = 0;
  for (const flt_test::JsonObject& record : FaultRecords(server)) {
    count += IntegerOf(record, "eventId") == eventId ? 1 : 0;
  }
  return count;
}

// The system-log lines of the daemon's own event `eventId`.
Texts OwnEventLines(const KestrinServer& server, const std::string& logName, int eventId) {
  Texts found;
  const std::string mark = "\t" + ThisHostName() + "\tKestrin\t[" + std::to_string(server.Pid()) +
                           "]:\teventID=" + std::to_string(eventId) + "; message=";
  for (const std::string& line : server.LogLines(logName)) {
    if (line.find(mark) != std::string::npos) found.push_back(line);
  }
  return found;
}

// The text after "<severity>\t<time>" of a system-log line.
std::string AfterTime(const std::string& line) {
  size_t tab = line.find('\t');
  tab = tab == std::string::npos ? tab : line.find('\t', tab + 1);
  return tab == std::string::npos ? line : line.substr(tab);
}

TEST(E2eOwnEvents, TwelveVersionMismatchesLogTenLinesAndRaiseOneAlarm) {
  KestrinServer server;
  // The daemon's own alarm becomes a fault record only through the taxonomy.
  server.WriteFile("kv/etc/KestrinTaxonomy",
                   "[Version mismatch]\n"
                   "eID=7010\n"
                   "newID=7010\n"
                   "newSev=major\n"
                   "eventClass=fault\n"
                   "alarm=true\n");
  server.Start();
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
  for (int i = 0; i < 12; ++i) server.SendHeader(15, 33);
  server.SendHeader(15);
  ASSERT_TRUE(WaitForOwnLogCount(server, DUMP_END, 1));
  ASSERT_TRUE(WaitUntil([&]() { return RecordCount(server, 7010) >= 1; }));
  // Whatever the mismatches raised is on the queue before this dump.
  server.SendHeader(15);
  ASSERT_TRUE(WaitForOwnLogCount(server, DUMP_END, 2));

  const std::string text =
      "Version mismatch: received a message from IPC queue with version 33; expecting version "
      "34. Ensure that the QRT Library, the Master, and the Agents are all using the same "
      "version.";
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(9, Count(texts, text));
  EXPECT_EQ(1, Count(texts, text + IN_FUTURE));
  int mentions = 0;
  for (const std::string& each : texts) mentions += each.find("Version mismatch") == 0 ? 1 : 0;
  EXPECT_EQ(10, mentions) << "the 11th and 12th are suppressed";
  // The 10th line, with the note, is the last; each is logged under 7010.
  const Texts lines = server.LogLines("Kestrin.log");
  int tagged = 0;
  for (const std::string& line : lines) {
    if (line.find("Version mismatch") == std::string::npos) continue;
    EXPECT_NE(std::string::npos, line.find(" [ERROR] {Kestrin} (7010) - Version mismatch")) << line;
    ++tagged;
  }
  EXPECT_EQ(10, tagged);

  EXPECT_EQ(1, RecordCount(server, 7010));
  std::vector<flt_test::JsonObject> records = FaultRecords(server);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(text, StringOf(records[0], "reason")) << "the first raise's text";
  EXPECT_EQ("systemId=PXR;entityId=" + ThisHostName() + ";entitySubId=Kestrin",
            StringOf(records[0], "definedName"));
  EXPECT_EQ("major", StringOf(records[0], "originalSeverity"));
  Texts events = OwnEventLines(server, "system.log", 7010);
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(0u, events[0].find("<major>\t")) << events[0];
  EXPECT_EQ(events, OwnEventLines(server, "alarms.systemlog", 7010));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

// Both problems are found before the system can take events; their alarms
// are held back and issued, in the order raised, once start-up is complete.
TEST(E2eOwnEvents, AlarmsRaisedDuringStartUpAreIssuedInOrderAfterwards) {
  KestrinServer server;
  std::filesystem::remove(server.Root() + "/kv/etc/KestrinTaxonomy");
  const std::string config = server.Root() + "/kv/etc/Other.conf";
  server.Start({"-c", config});
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
  ASSERT_TRUE(server.WaitForLogLine("system.log", "eventID=7001;"));
  ASSERT_TRUE(server.WaitForLogLine("system.log", "eventID=7002;"));
  Texts own;
  for (const std::string& line : server.LogLines("system.log")) {
    if (line.find("\tKestrin\t[") == std::string::npos) continue;
    if (line.find("eventID=7001;") != std::string::npos) own.push_back("7001");
    if (line.find("eventID=7002;") != std::string::npos) own.push_back("7002");
  }
  EXPECT_EQ(Texts({"7002", "7001"}), own);

  const std::string taxonomy = server.Root() + "/kv/etc/KestrinTaxonomy";
  Texts texts = server.OwnLogTexts();
  ASSERT_EQ(1, Count(texts, "Unable to open config file " + config +
                                " (DataFile::DataFile failed to open file " + config +
                                ".); using default configuration"));
  ASSERT_EQ(1, Count(texts,
                     "Exception trying to open alarm taxonomy: <DataFile::DataFile failed "
                     "to open file " +
                         taxonomy + ".> The system may not be able to raise alarms properly."));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

// Without a taxonomy the daemon maps its own alarm 7001 through a built-in
// entry: an alarm-log line, a fault record and LED 2 lit red.
TEST(E2eOwnEvents, UnreadableTaxonomyRaises7001ThroughTheBuiltInEntry) {
  KestrinServer server;
  std::filesystem::remove(server.Root() + "/kv/etc/KestrinTaxonomy");
  LedFifo led0(server, 0);
  LedFifo led1(server, 1);
  ASSERT_TRUE(led0.Open());
  ASSERT_TRUE(led1.Open());
  server.Start();
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
  ASSERT_TRUE(server.WaitForLogLine("alarms.systemlog", "eventID=7001;"));

  const std::string text =
      "Logging and Alarms - Error reading the alarm taxonomy file.  The system may not be able "
      "to raise most alarms.";
  Texts lines = OwnEventLines(server, "alarms.systemlog", 7001);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].find("<major>\t")) << lines[0];
  EXPECT_EQ("\t" + ThisHostName() + "\tKestrin\t[" + std::to_string(server.Pid()) +
                "]:\teventID=7001; message=" + text +
                "; problemResolution=Contact your local support group.",
            AfterTime(lines[0]));
  // Each file reaches the disk at its own flush: wait for system.log too.
  ASSERT_TRUE(server.WaitForLogLine("system.log", "eventID=7001;"));
  EXPECT_EQ(lines, OwnEventLines(server, "system.log", 7001));

  EXPECT_EQ(std::string("\x80\x09"), led1.WaitForBytes(2)) << "RED_ON on LED 2";
  ASSERT_TRUE(WaitUntil([&]() { return RecordCount(server, 7001) >= 1; }));
  server.SendHeader(15);
  ASSERT_TRUE(WaitForOwnLogCount(server, DUMP_END, 1));
  EXPECT_EQ("", led0.Bytes()) << "the entry leaves LED 1 alone";
  EXPECT_EQ(std::string("\x80\x09"), led1.Bytes());
  EXPECT_EQ(1, Count(server.OwnLogTexts(), "Changing LED 2 state to RED_ON"));

  std::vector<flt_test::JsonObject> records = FaultRecords(server);
  ASSERT_EQ(1u, records.size());
  const flt_test::JsonObject& record = records[0];
  EXPECT_EQ(7001, IntegerOf(record, "eventId"));
  EXPECT_EQ(0, IntegerOf(record, "sequence"));
  EXPECT_EQ("systemId=PXR;entityId=" + ThisHostName() + ";entitySubId=Kestrin",
            StringOf(record, "definedName"));
  EXPECT_EQ("major", StringOf(record, "originalSeverity"));
  EXPECT_EQ(text, StringOf(record, "reason"));
  EXPECT_EQ("", StringOf(record, "alarmSetText"));
  EXPECT_EQ("", StringOf(record, "alarmSetQueue"));
  EXPECT_EQ(4, IntegerOf(record, "severity"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

}  // namespace
}  // namespace kestrin_e2e
