// Requests about log files and the registration table: the log-file-size
// record (type 6) and the bare dump request (type 15).
#include <string.h>

#include "protocol/Records.h"
#include "osa/osa.h"
#include "qrt/QrtConnection.h"
#include "qrt/QrtDiag.h"

namespace {

using kestrin::tKesLoggerMessage;

constexpr unsigned long MAX_SIZE_OR_COUNT = 0x7fffffffUL;
constexpr size_t FILE_NAME_OFFSET = offsetof(kestrin::tKesLogFileSizeMessage, fileName);

// Sends one log-file-size record: `sizeOrCount` is a size in KiB, or a
// backup count with the top bit set.
int send_log_file_size(const char* logFileName, uint32_t sizeOrCount) {
  if (logFileName == nullptr || logFileName[0] == '\0') return QRT_ERROR_INVALID_PARAMETER;
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  kestrin::tKesLogFileSizeMessage& record = message.logFileSize;
  record.header.version = kestrin::KES_INTERFACE_VERSION;
  record.header.type = kestrin::KES_LOG_FILE_SIZE;
  record.sizeOrCount = sizeOrCount;
  osLStrCpyn(record.fileName, logFileName, sizeof record.fileName);
  size_t recordSize = FILE_NAME_OFFSET + strlen(record.fileName) + 1;
  return qrt::send_to_daemon(&message, kestrin::KesQueueSendLength(recordSize), 1);
}

int set_size(const char* logFileName, unsigned long kilobytes) {
  if (kilobytes > MAX_SIZE_OR_COUNT) return QRT_ERROR_INVALID_PARAMETER;
  return send_log_file_size(logFileName, static_cast<uint32_t>(kilobytes));
}

int set_backups(const char* logFileName, unsigned long count) {
  if (count > MAX_SIZE_OR_COUNT) return QRT_ERROR_INVALID_PARAMETER;
  return send_log_file_size(logFileName,
                            static_cast<uint32_t>(count) | kestrin::KES_LOG_FILE_SIZE_COUNT_BIT);
}

int dump_table() {
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  message.header.version = kestrin::KES_INTERFACE_VERSION;
  message.header.type = kestrin::KES_DUMP_REG_TABLE;
  return qrt::send_to_daemon(&message, kestrin::KesQueueSendLength(sizeof message.header), 1);
}

}  // namespace

extern "C" int QrtDiagSetLogFileSize(const char* logFileName, unsigned long kilobytes) {
  try {
    return set_size(logFileName, kilobytes);
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}

extern "C" int QrtDiagSetLogFileBackups(const char* logFileName, unsigned long count) {
  try {
    return set_backups(logFileName, count);
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}

extern "C" int QrtDiagDumpRegistrationTable(void) {
  try {
    return dump_table();
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}
