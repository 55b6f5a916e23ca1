#include "kestrin/Globals.h"

#include <string>

#include "kestrin/InternalLog.h"
#include "kestrin/Records.h"
#include "zor/RollingFile.h"
#include "zor/sockets/SocketLog.h"

namespace kestrin {

bool Daemonized = false;
unsigned long MainThreadsTaskId = 0;
std::atomic<int> sys5q{-1};
std::string NameOfKestrinsOwnLog = "Kestrin.log";

LogFilePtr systemlog;
LogFilePtr logger;
LogFilePtr alarmLog;
LogFileMap logFileMap;
LogFilePtr logFileArray[KES_MAX_HANDLES];
char Hostname[256] = "UnknownHost";

RoleType KestrinsRoleType = ROLE_DEFAULT;
std::atomic<int> MESSAGES_BEFORE_SLEEP{80};
std::atomic<int> SLEEP_TIME{10};
int MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
std::string ConfigDirectoryName = "/kv/etc/";
std::string PathnameOfConfigFile;
bool UsingDefaultPathnameOfConfigFile = true;
std::string PathnameOfTaxonomyFile;

namespace {
constexpr char systemLoggerName[] = "system.log";
constexpr char alarmLoggerName[] = "alarms.systemlog";
}  // namespace

void initialize_standard_log_files() {
  AppFw::SmartPointerNTS<Zor::LogInterface> internalLogger(new KestrinsInternalLogger);
  Zor::RollingFile::SetLogger(internalLogger);
  Zor::Sockets::SetLogger(internalLogger);

  systemlog = LogFilePtr(new LogFile(systemLoggerName));
  systemlog->SetIsOperationalLog(true);
  logger = LogFilePtr(new LogFile(NameOfKestrinsOwnLog));
  alarmLog = LogFilePtr(new LogFile(alarmLoggerName));
  alarmLog->SetIsOperationalLog(true);

  logFileMap[systemLoggerName] = systemlog;
  logFileMap[NameOfKestrinsOwnLog] = logger;
  logFileMap[alarmLoggerName] = alarmLog;

  if (!logger.IsNil() && logger->severityFilter.Get().AsQrtSeverityForFilter() >= 4) {
    LogKestrinMessage(KES_SEVERITY_INFO,
                      "***** Kestrin is starting up. Interface version " +
                          std::to_string(KES_INTERFACE_VERSION) + " *****",
                      static_cast<unsigned long>(-1));
  }
}

void FlushFiles() {
  Zor::RollingFile::ReportCompressionFailures();
  for (auto& entry : logFileMap) entry.second->Flush();
}

void ReopenMovedFiles() {
  for (auto& entry : logFileMap) entry.second->ReopenIfMoved();
}

void WriteOutFiles() {
  for (auto& entry : logFileMap) entry.second->WriteOut();
}

}  // namespace kestrin
