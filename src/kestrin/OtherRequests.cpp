#include "kestrin/OtherRequests.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/LogFile.h"
#include "kestrin/LogFileNames.h"

namespace kestrin {

namespace {

// Reports are composed only when the own log takes information lines.
bool Reporting() { return OwnLogAdmits(KES_SEVERITY_INFO); }

void ReportInfo(const std::string& text) { LogKestrinMessage(KES_SEVERITY_INFO, text, -1); }

// The map's file of `name`, created (and announced) when there is none; nil
// when the name is refused or no more files may be added (reported there).
LogFilePtr FindOrCreateLogFile(const std::string& name) {
  bool created = false;
  LogFilePtr file = FindOrAddLogFile(name, LogFileRequester::CLIENT, &created);
  if (created && Reporting()) {
    ReportInfo("Creating object for file " + name + " in response to LogFileSizeMessage");
  }
  return file;
}

void SetBackupCount(const LogFilePtr& file, const std::string& name, uint32_t count) {
  if (count > MaxAllowedMaxBackupCount) {
    if (Reporting()) {
      ReportInfo("Received LogFileSize requesting " + std::to_string(count) +
                 " back ups; changing to the maximum value of " +
                 std::to_string(MaxAllowedMaxBackupCount));
    }
    count = MaxAllowedMaxBackupCount;
  }
  file->backupCount.Set(count);
  if (!Reporting()) return;
  ReportInfo("Setting number of backups of file " + name + " to " + std::to_string(count) +
             " in response to a LogFileSizeMessage");
}

void SetMaximumSize(const LogFilePtr& file, const std::string& name, uint32_t kilobytes) {
  // The shift is done on the unsigned value and the result read as signed
  // 32-bit: bits shifted out are lost on purpose, so a request of 2097152
  // KiB or more wraps instead of reaching the maximum.
  int32_t size = static_cast<int32_t>(kilobytes << 10);
  long limit = size;
  const char* bound = nullptr;
  if (size > MaxAllowedMaxFileSize) {
    limit = MaxAllowedMaxFileSize;
    bound = "maximum";
  } else if (size < MinAllowedMaxFileSize) {
    limit = MinAllowedMaxFileSize;
    bound = "minimum";
  }
  if (bound != nullptr && Reporting()) {
    ReportInfo("Received a LogFileSize message requesting a file size of " + std::to_string(size) +
               " bytes; changing to the " + bound + " value of " + std::to_string(limit));
  }
  file->maxFileSize.Set(limit);
  if (!Reporting()) return;
  ReportInfo("Setting maximum size of file " + name + " to " + std::to_string(limit) +
             " in response to a LogFileSizeMessage");
}

}  // namespace

void process_set_log_file_size_message(const tKesLogFileSizeMessage* message) {
  const std::string name = NormalizeLogFileName(
      std::string(message->fileName, strnlen(message->fileName, sizeof message->fileName)));
  const uint32_t value = message->sizeOrCount;
  const bool backups = (value & KES_LOG_FILE_SIZE_COUNT_BIT) != 0;
  // The daemon's own files belong to the operator: a client must not be
  // able to shrink them or erase their history.
  if (IsDaemonsOwnFile(name)) {
    ReportOwnFileRequestRefused(name, backups ? "backup count" : "maximum size");
    return;
  }
  LogFilePtr file = FindOrCreateLogFile(name);
  if (file.IsNil()) return;
  if (backups) {
    SetBackupCount(file, name, value & ~KES_LOG_FILE_SIZE_COUNT_BIT);
  } else {
    SetMaximumSize(file, name, value);
  }
}

void process_core_registration(const tKesCoreRegister* /*message*/) {}

void process_deregister_message(const tKesDeregisterMessage* /*message*/) {}

void process_register_message(const tKesRegisterEntry* /*message*/) {
  LogError("ERROR! process_register_message was called. This function is obsolete.");
}

}  // namespace kestrin
