// Reading Kestrin.conf.
//
// The "config" section holds the role, the main loop's pacing and the
// default handling of every log file; every other section is named after a
// log file and overrides that file's handling. Each read starts from the
// built-in defaults and switches every known file back to the defaults
// first, so the result depends only on the file's present content (apart
// from the role, which only the start-up read may set, and files, which
// once known stay known).
#include "kestrin/Configuration.h"

#include <cstdlib>
#include <memory>
#include <string>

#include "kestrin/AgentAccess.h"
#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/DataFile.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/LogFile.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/RegTable.h"
#include "kestrin/TextForms.h"

namespace kestrin {

namespace {

using MaxFileSizeSetting = Zor::DefaultableValue<long, Zor::RollingFile, 1>;
using BackupCountSetting = Zor::DefaultableValue<unsigned int, Zor::RollingFile, 2>;
using ZipBackupsSetting = Zor::DefaultableValue<bool, Zor::RollingFile, 3>;

constexpr char CONFIG_SECTION[] = "config";
constexpr int MAX_MESSAGES_BEFORE_SLEEP = 1000;
constexpr int DEFAULT_MESSAGES_BEFORE_SLEEP = 80;
constexpr int MAX_SLEEP_TIME = 500;
constexpr int DEFAULT_SLEEP_TIME = 10;

// True until the first read_private_config_file (the start-up read) begins.
bool s_firstCall = true;

// The defaults for all files as a read builds them up.
struct FileDefaults {
  long fileSize = 1048576;
  unsigned int backupCount = 3;
  bool zipBackups = true;
  DetailedSeverity logLevel = DetailedSeverity::DEBUG_LEVEL;
};

// One section being read; `clamp` is set for file sections, where an
// out-of-range size or count is pulled into range instead of ignored.
struct SectionReader {
  const DataFile& file;
  const std::string& section;
  bool clamp;
};

// Reports through the own log; the text is composed only when it will be
// taken.
template <typename Compose>
void Report(unsigned short severity, Compose compose) {
  if (OwnLogAdmits(severity)) {
    LogKestrinMessage(severity, compose(), static_cast<unsigned long>(-1));
  }
}

std::string ReadFrom(const SectionReader& reader) {
  return " read from " + reader.section + " section of configuration file";
}

// ---- Level words ----------------------------------------------------------

struct LevelWord {
  const char* word;  // lower case
  DetailedSeverity::SeverityLevel level;
  const char* printed;
  bool reduced;  // more severe than Major, which is the most a filter may be
};

constexpr LevelWord LEVEL_WORDS[] = {
    {"debug", DetailedSeverity::DEBUG_LEVEL, "debug", false},
    {"info", DetailedSeverity::INFO_LEVEL, "info", false},
    {"informational", DetailedSeverity::INFO_LEVEL, "info", false},
    {"notice", DetailedSeverity::NOTICE_LEVEL, "notice", false},
    {"warn", DetailedSeverity::WARN_LEVEL, "warning", false},
    {"warning", DetailedSeverity::WARN_LEVEL, "warning", false},
    {"minor", DetailedSeverity::MINOR_LEVEL, "minor", false},
    {"major", DetailedSeverity::MAJOR_LEVEL, "major", false},
    {"error", DetailedSeverity::MAJOR_LEVEL, "error", true},
    {"crit", DetailedSeverity::MAJOR_LEVEL, "critical", true},
    {"critical", DetailedSeverity::MAJOR_LEVEL, "critical", true},
    {"alert", DetailedSeverity::MAJOR_LEVEL, "alert", true},
    {"emerg", DetailedSeverity::MAJOR_LEVEL, "emergency", true},
    {"emergency", DetailedSeverity::MAJOR_LEVEL, "emergency", true},
};

const LevelWord* FindLevelWord(const std::string& lowerCaseWord) {
  for (const LevelWord& entry : LEVEL_WORDS) {
    if (lowerCaseWord == entry.word) return &entry;
  }
  return nullptr;
}

// ---- Per-file settings: each returns whether `value` is to be used ------

bool ReadFileSize(const SectionReader& reader, long* value) {
  bool found = false;
  bool valid = false;
  uint32_t size = reader.file.GetSizeInBytes("FileSize", found, valid);
  if (!found) return false;
  if (!valid) {
    Report(KES_SEVERITY_WARNING,
           [&] { return "Invalid FileSize" + ReadFrom(reader) + "; using the default"; });
    return false;
  }
  // Compared as the signed 32-bit long of the cards: 2 GiB and more count
  // as negative, so below the minimum.
  const long n = static_cast<int32_t>(size);
  auto prefix = [&] { return "FileSize of " + std::to_string(n) + ReadFrom(reader); };
  if (n >= MinAllowedMaxFileSize && n <= MaxAllowedMaxFileSize) {
    Report(KES_SEVERITY_DEBUG, prefix);
    *value = n;
    return true;
  }
  if (!reader.clamp) {
    Report(KES_SEVERITY_WARNING,
           [&] { return prefix() + " is outside the valid range; using the default"; });
    return false;
  }
  if (n > MinAllowedMaxFileSize - 1) {
    Report(KES_SEVERITY_WARNING, [&] {
      return prefix() + " is greater than the maximum of " + std::to_string(MaxAllowedMaxFileSize) +
             "; using the maximum.";
    });
    *value = MaxAllowedMaxFileSize;
  } else {
    Report(KES_SEVERITY_WARNING, [&] {
      return prefix() + " is less than the minimum of " + std::to_string(MinAllowedMaxFileSize) +
             "; using the minimum.";
    });
    *value = MinAllowedMaxFileSize;
  }
  return true;
}

bool ReadBackupCount(const SectionReader& reader, unsigned int* value) {
  bool found = false;
  // Unsigned on purpose: a negative count is a huge one, so out of range.
  const unsigned int n = static_cast<unsigned int>(reader.file.GetInt("BackupCount", found));
  if (!found) return false;
  auto prefix = [&] { return "BackupCount of " + std::to_string(n) + ReadFrom(reader); };
  if (n <= MaxAllowedMaxBackupCount) {
    Report(KES_SEVERITY_DEBUG, prefix);
    *value = n;
    return true;
  }
  if (!reader.clamp) {
    Report(KES_SEVERITY_WARNING,
           [&] { return prefix() + " is outside the valid range; using the default"; });
    return false;
  }
  Report(KES_SEVERITY_WARNING, [&] {
    return prefix() + " is greater than the maximum of " +
           std::to_string(MaxAllowedMaxBackupCount) + "; using the maximum.";
  });
  *value = MaxAllowedMaxBackupCount;
  return true;
}

// ZipBackups and RollOnStartUp.
bool ReadBoolean(const SectionReader& reader, const char* key, bool* value) {
  bool found = false;
  bool valid = false;
  const bool flag = reader.file.GetBool(key, found, valid);
  if (!found) return false;
  if (!valid) {
    Report(KES_SEVERITY_WARNING, [&] {
      return std::string("Invalid ") + key + ReadFrom(reader) + "; using the default";
    });
    return false;
  }
  Report(KES_SEVERITY_DEBUG,
         [&] { return std::string(key) + " of " + (flag ? "true" : "false") + ReadFrom(reader); });
  *value = flag;
  return true;
}

bool ReadLogLevel(const SectionReader& reader, DetailedSeverity* value) {
  std::string word = reader.file.GetTrimmedString("LogLevel");
  if (word.empty()) return false;
  AsciiStringToLowerCase(word);
  const LevelWord* entry = FindLevelWord(word);
  if (entry == nullptr) {
    Report(KES_SEVERITY_WARNING, [&] {
      return "Invalid LogLevel (" + word + ")" + ReadFrom(reader) + "; using default";
    });
    return false;
  }
  Report(KES_SEVERITY_DEBUG, [&] {
    return std::string("LogLevel of ") + entry->printed +
           (entry->reduced ? " (reduced to Major, the most severe allowed)" : "") +
           ReadFrom(reader);
  });
  *value = entry->level;
  return true;
}

// ---- The role ------------------------------------------------------------

// The words of the RoleType printer (Role.h), spelled out here so that the
// configuration does not depend on the roles, which depend on it.
std::string RoleWord(RoleType role) {
  switch (role) {
    case ROLE_AGENT:
      return "Agent";
    case ROLE_MASTER:
      return "Master";
    case ROLE_SOLO:
      return "Solo";
    case ROLE_DEFAULT:
      return "Default";
  }
  return std::to_string(static_cast<int>(role));
}

// The role a configured word names; empty names no role (automatic). False
// for any other word.
bool ParseRole(const std::string& word, RoleType* role) {
  struct RoleName {
    const char* word;
    RoleType role;
  };
  static constexpr RoleName ROLE_NAMES[] = {
      {"", ROLE_DEFAULT}, {"Agent", ROLE_AGENT}, {"Master", ROLE_MASTER}, {"Solo", ROLE_SOLO}};
  for (const RoleName& name : ROLE_NAMES) {
    if (word == name.word) {
      *role = name.role;
      return true;
    }
  }
  return false;
}

void ReadRole(const DataFile& file, bool firstCall) {
  // Untrimmed on purpose: "Role=Agent" names a role, "Role = Agent" does not.
  const std::string raw = file.GetString("Role");
  RoleType role = ROLE_DEFAULT;
  const bool valid = ParseRole(raw, &role);
  if (firstCall) {
    if (!valid) {
      LogError(
          "Invalid Role specified in Kestrin.conf; unable to determine which role to play and "
          "therefore exiting.");
      exit(1);
    }
    KestrinsRoleType = role;
    Report(KES_SEVERITY_DEBUG,
           [&] { return "Role of \"" + RoleWord(role) + "\" read from configuration"; });
    return;
  }
  // A re-read never changes the role: the role's threads and sockets exist.
  if (!valid) {
    Report(KES_SEVERITY_WARNING,
           [&] { return "Invalid Role of " + raw + " specified in Kestrin.conf; ignoring."; });
  } else if (!raw.empty() && role != KestrinsRoleType) {
    Report(KES_SEVERITY_WARNING, [&] {
      return "Role of " + RoleWord(role) + " read from configuration does  not match the active " +
             "role of " + RoleWord(KestrinsRoleType) +
             "; must restart Kestrin to change roles; ignoring the new role.";
    });
  }
}

// ---- Sections -------------------------------------------------------------

void ReadSleepParameters(const DataFile& file) {
  int messages = file.GetInt("MessagesBeforeSleep");
  Report(KES_SEVERITY_DEBUG, [&] {
    return "Number of log requests to process before sleeping = " + std::to_string(messages);
  });
  if (messages < 1 || messages > MAX_MESSAGES_BEFORE_SLEEP) {
    messages = messages > MAX_MESSAGES_BEFORE_SLEEP ? MAX_MESSAGES_BEFORE_SLEEP
                                                    : DEFAULT_MESSAGES_BEFORE_SLEEP;
    Report(KES_SEVERITY_WARNING, [&] {
      return "MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to " +
             std::to_string(messages);
    });
  }
  MESSAGES_BEFORE_SLEEP = messages;

  int sleepTime = file.GetInt("SleepTime");
  Report(KES_SEVERITY_DEBUG, [&] {
    return "Sleep time between batches of log requests = " + std::to_string(sleepTime) +
           " milliseconds";
  });
  if (sleepTime < 1 || sleepTime > MAX_SLEEP_TIME) {
    sleepTime = DEFAULT_SLEEP_TIME;
    Report(KES_SEVERITY_WARNING, [&] {
      return "SLEEP_TIME deemed to be unreasonable. Resetting to " +
             std::to_string(DEFAULT_SLEEP_TIME) + "ms";
    });
  }
  SLEEP_TIME = sleepTime;
}

// ---- Limits and the Master's peers -------------------------------------------

constexpr int MIN_MAX_LOG_FILES = 16;
constexpr int MAX_MAX_LOG_FILES = 65536;
constexpr unsigned long MAX_AGENTS_LIMIT = 65535;
constexpr unsigned long MAX_AGENT_IDLE_SECONDS = 86400;

// A whole decimal number from `minimum` to `maximum` under `key`, reported
// either way; false (after a warning naming `fallback`) when the key is
// given but is no such number, and when it is absent.
bool ReadBoundedNumber(const DataFile& file, const char* key, unsigned long minimum,
                       unsigned long maximum, const char* fallback, unsigned long* value) {
  const std::string text = file.GetTrimmedString(key);
  if (text.empty()) return false;
  const SectionReader reader{file, file.GetSectionName(), false};
  unsigned long n = 0;
  bool digits = text.size() <= 9;
  for (char c : text) {
    digits = digits && c >= '0' && c <= '9';
    if (digits) n = n * 10 + static_cast<unsigned long>(c - '0');
  }
  if (!digits || n < minimum || n > maximum) {
    Report(KES_SEVERITY_WARNING, [&] {
      return std::string(key) + " of " + text + ReadFrom(reader) + " is not a number from " +
             std::to_string(minimum) + " to " + std::to_string(maximum) + "; using " + fallback;
    });
    return false;
  }
  Report(KES_SEVERITY_DEBUG, [&] { return std::string(key) + " of " + text + ReadFrom(reader); });
  *value = n;
  return true;
}

void ReadMaxLogFiles(const DataFile& file) {
  unsigned long limit = 0;
  MaxLogFiles = ReadBoundedNumber(file, "MaxLogFiles", MIN_MAX_LOG_FILES, MAX_MAX_LOG_FILES,
                                  "the default of 512", &limit)
                    ? static_cast<int>(limit)
                    : KES_DEFAULT_MAX_LOG_FILES;
}

void ReadListenAddress(const DataFile& file, AgentAccess* access) {
  const std::string text = file.GetTrimmedString("ListenAddress");
  if (text.empty()) return;
  const SectionReader reader{file, file.GetSectionName(), false};
  if (!ParseIPv4Address(text, &access->listenAddress)) {
    Report(KES_SEVERITY_WARNING, [&] {
      return "Invalid ListenAddress (" + text + ")" + ReadFrom(reader) +
             "; listening on the Master's address";
    });
    return;
  }
  access->listenAddressSet = true;
  Report(KES_SEVERITY_DEBUG, [&] { return "ListenAddress of " + text + ReadFrom(reader); });
}

// Entries that do not parse are reported and left out: a list that names
// nobody valid lets nobody in, rather than everyone.
void ReadAllowedAgents(const DataFile& file, AgentAccess* access) {
  const std::string text = file.GetTrimmedString("AllowedAgents");
  if (text.empty()) return;
  const SectionReader reader{file, file.GetSectionName(), false};
  access->restricted = true;
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    const std::string entry =
        TrimWhiteSpace(text.substr(start, comma == std::string::npos ? comma : comma - start));
    AddressBlock block;
    if (ParseAddressBlock(entry, &block)) {
      access->allowed.push_back(block);
    } else {
      Report(KES_SEVERITY_WARNING, [&] {
        return "Invalid entry (" + entry + ") in AllowedAgents" + ReadFrom(reader) +
               "; ignoring it";
      });
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  Report(KES_SEVERITY_DEBUG, [&] { return "AllowedAgents of " + text + ReadFrom(reader); });
}

void ReadAgentAccess(const DataFile& file, AgentAccess* access) {
  ReadListenAddress(file, access);
  ReadAllowedAgents(file, access);
  unsigned long value = 0;
  if (ReadBoundedNumber(file, "MaxAgents", 1, MAX_AGENTS_LIMIT, "no limit", &value)) {
    access->maxAgents = static_cast<unsigned int>(value);
  }
  if (ReadBoundedNumber(file, "AgentIdleTimeout", 1, MAX_AGENT_IDLE_SECONDS, "no time-out",
                        &value)) {
    access->idleTimeoutSeconds = value;
  }
}

void ReadConfigSection(const DataFile& file, bool firstCall, FileDefaults* defaults,
                       AgentAccess* access) {
  ReadRole(file, firstCall);
  ReadSleepParameters(file);
  ReadMaxLogFiles(file);
  ReadAgentAccess(file, access);
  // Out-of-range defaults are ignored, not clamped.
  const SectionReader reader{file, file.GetSectionName(), false};
  ReadFileSize(reader, &defaults->fileSize);
  ReadBackupCount(reader, &defaults->backupCount);
  ReadBoolean(reader, "ZipBackups", &defaults->zipBackups);
  ReadLogLevel(reader, &defaults->logLevel);
}

// Gives a file's setting its own value when the reader said "ok", else makes
// it follow the shared default.
template <typename Setting, typename T>
void Apply(Setting& setting, bool ok, const T& value) {
  if (ok) {
    setting.Set(value);
  } else {
    setting.UseDefault(true);
  }
}

// Applies a file section; a file no client has registered yet is created.
void InitializeFileSection(const DataFile& file) {
  const std::string& section = file.GetSectionName();
  // A section whose name would lead outside the log directory is ignored
  // (and reported) like a client's request for it.
  LogFilePtr entry =
      FindOrAddLogFile(NormalizeLogFileName(section), LogFileRequester::CONFIGURATION, nullptr);
  if (entry.IsNil()) return;
  LogFile& logFile = *entry;
  const SectionReader reader{file, section, true};

  long size = 0;
  Apply(logFile.maxFileSize, ReadFileSize(reader, &size), size);
  unsigned int backups = 0;
  Apply(logFile.backupCount, ReadBackupCount(reader, &backups), backups);
  bool zip = false;
  Apply(logFile.zipBackups, ReadBoolean(reader, "ZipBackups", &zip), zip);
  DetailedSeverity level;
  Apply(logFile.severityFilter, ReadLogLevel(reader, &level), level);

  bool roll = false;
  logFile.SetRollOnStartUp(ReadBoolean(reader, "RollOnStartUp", &roll) && roll);
}

// Reads every section in file order; returns whether a "config" section
// was among them.
bool ReadSections(DataFile& file, bool firstCall, FileDefaults* defaults, AgentAccess* access) {
  bool foundConfig = false;
  while (file.NextSection()) {
    const std::string& name = file.GetSectionName();
    if (name.empty()) continue;
    if (name == CONFIG_SECTION) {
      foundConfig = true;
      ReadConfigSection(file, firstCall, defaults, access);
    } else {
      InitializeFileSection(file);
    }
  }
  return foundConfig;
}

void SetClassWideDefaults(const FileDefaults& defaults) {
  MaxFileSizeSetting::SetDefault(defaults.fileSize);
  BackupCountSetting::SetDefault(defaults.backupCount);
  ZipBackupsSetting::SetDefault(defaults.zipBackups);
  LogFile::SeverityFilter::SetDefault(defaults.logLevel);
}

// The listening address is taken at start-up only: the Master listens
// once. Every other setting applies to the connections that come next.
void ApplyAgentAccess(AgentAccess access, bool firstCall) {
  const AgentAccess current = GetAgentAccess();
  if (!firstCall && (access.listenAddressSet != current.listenAddressSet ||
                     access.listenAddress != current.listenAddress)) {
    Report(KES_SEVERITY_WARNING, [] {
      return std::string(
          "ListenAddress read from configuration differs from the one in use; must restart "
          "Kestrin to change it; ignoring the new address.");
    });
    access.listenAddressSet = current.listenAddressSet;
    access.listenAddress = current.listenAddress;
  }
  SetAgentAccess(access);
}

void RollFilesOverOnStartUp() {
  for (auto& entry : logFileMap) {
    if (!entry.second.IsNil() && entry.second->ShouldRollOnStartUp()) entry.second->RollOver();
  }
}

// Opens the configuration file; on failure `reason` holds the reader's text.
std::unique_ptr<DataFile> OpenConfigFile(std::string* reason) {
  try {
    return std::unique_ptr<DataFile>(new DataFile(PathnameOfConfigFile.c_str()));
  } catch (const std::string& text) {
    *reason = text;
  } catch (const char* text) {
    *reason = text == nullptr ? "" : text;
  }
  return nullptr;
}

void ReportUnopenableConfigFile(const std::string& reason) {
  Report(KES_SEVERITY_ERROR, [&] {
    return "Unable to open config file " + PathnameOfConfigFile + " (" + reason +
           "); using default configuration";
  });
  // A missing file at the default place is an ordinary installation; one
  // named on the command line that cannot be read is an operator's mistake.
  if (!UsingDefaultPathnameOfConfigFile) {
    RaiseKestrinAlarm(1, KES_SEVERITY_ERROR, EventId_ErrorReadingConfigFile, "", 1);
  }
}

}  // namespace

void SetAllFilesToUseDefaults() {
  for (auto& entry : logFileMap) {
    if (entry.second.IsNil()) continue;
    LogFile& file = *entry.second;
    file.maxFileSize.UseDefault(true);
    file.backupCount.UseDefault(true);
    file.zipBackups.UseDefault(true);
    file.severityFilter.UseDefault(true);
  }
}

void read_private_config_file() {
  const bool firstCall = s_firstCall;
  s_firstCall = false;
  FileDefaults defaults;
  SetAllFilesToUseDefaults();
  // Settings a read does not find take their defaults again.
  MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
  AgentAccess access;

  std::string reason;
  std::unique_ptr<DataFile> file = OpenConfigFile(&reason);
  if (file == nullptr) {
    ReportUnopenableConfigFile(reason);
    ApplyAgentAccess(access, firstCall);
    return;
  }
  const bool foundConfig = ReadSections(*file, firstCall, &defaults, &access);
  SetClassWideDefaults(defaults);
  ApplyAgentAccess(access, firstCall);
  if (firstCall) RollFilesOverOnStartUp();
  UpdateLogFiltersInSharedMemory();
  if (!foundConfig) {
    Report(KES_SEVERITY_WARNING, [&] {
      return std::string("Didn't find '") + CONFIG_SECTION + "' section of " + PathnameOfConfigFile;
    });
  }
}

void reload_configuration() {
  read_private_config_file();
  load_configuration_file();
}

void MarkNextConfigurationReadAsFirstForTesting() { s_firstCall = true; }

}  // namespace kestrin
