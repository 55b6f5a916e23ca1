// The logging interface through which the foundation library reports.
//
// The library never writes logs itself: each class reports through a
// LogInterfaceHolder, which holds a NullLogger (discarding everything) until
// the application installs its own LogInterface.
//
// Levels are the client severity codes: 1 error, 2 warning, 4 information,
// 8 debug.
#ifndef KESTRIN_ZOR_LOG_INTERFACE_H_
#define KESTRIN_ZOR_LOG_INTERFACE_H_

#include <string>

#include "appfw/SmartPointerNTS.h"

namespace Zor {

class LogInterface {
 public:
  virtual ~LogInterface();

  // Passes `text` to DoLogging with `level` cut to 16 bits and `kind` to 8.
  void Log(const char* text, unsigned long level, unsigned long code = 0, unsigned long kind = 0);
  void Log(const std::string& text, unsigned long level, unsigned long code = 0,
           unsigned long kind = 0);

 protected:
  // Records one message. `text` is valid only during the call. Called on
  // whichever thread logs; an implementation shared by threads must lock.
  virtual void DoLogging(const char* text, unsigned short level, unsigned long code,
                         unsigned char kind) = 0;
};

// Discards every message.
class NullLogger : public LogInterface {
 public:
  ~NullLogger() override;

  // The process's one null logger (a function-local static; never deleted
  // through a smart pointer).
  static NullLogger* Instance();

 protected:
  void DoLogging(const char* text, unsigned short level, unsigned long code,
                 unsigned char kind) override;
};

// Holds the logger a class reports through. Not thread-safe: the logger is
// installed at start-up, before other threads log through the holder.
class LogInterfaceHolder {
 public:
  // Holds the null logger.
  LogInterfaceHolder();

  // Holds `logger`; a nil pointer means ClearLogger().
  void SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger);

  // Goes back to the null logger.
  void ClearLogger();

  // The held logger, never nil. The reference stays valid until the next
  // SetLogger or ClearLogger.
  const AppFw::SmartPointerNTS<LogInterface>& GetLogger() const { return logger_; }

 private:
  AppFw::SmartPointerNTS<LogInterface> logger_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_LOG_INTERFACE_H_
