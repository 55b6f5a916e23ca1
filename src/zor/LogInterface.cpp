#include "zor/LogInterface.h"

namespace Zor {

namespace {

// The null logger wrapped as a non-deletable object, shared by every holder.
AppFw::SmartPointerNTS<LogInterface> null_logger_pointer() {
  return AppFw::SmartPointerNTS<LogInterface>(NullLogger::Instance(), false);
}

}  // namespace

LogInterface::~LogInterface() = default;

void LogInterface::Log(const char* text, unsigned long level, unsigned long code,
                       unsigned long kind) {
  DoLogging(text, static_cast<unsigned short>(level), code, static_cast<unsigned char>(kind));
}

void LogInterface::Log(const std::string& text, unsigned long level, unsigned long code,
                       unsigned long kind) {
  Log(text.c_str(), level, code, kind);
}

NullLogger::~NullLogger() = default;

NullLogger* NullLogger::Instance() {
  static NullLogger logger;
  return &logger;
}

void NullLogger::DoLogging(const char* /*text*/, unsigned short /*level*/, unsigned long /*code*/,
                           unsigned char /*kind*/) {}

LogInterfaceHolder::LogInterfaceHolder() : logger_(null_logger_pointer()) {}

void LogInterfaceHolder::SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger) {
  if (logger.IsNil()) {
    ClearLogger();
  } else {
    logger_ = logger;
  }
}

void LogInterfaceHolder::ClearLogger() { logger_ = null_logger_pointer(); }

}  // namespace Zor
