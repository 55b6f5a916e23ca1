// The exception family of the foundation library.
//
// Zor::Generic is the base of everything the library throws; in practice only
// critical sections throw (OsaErrorException), everything else reports through
// its logger and carries on. Each exception names its thrower as class,
// method and failing OS call, e.g.
// "GenericCriticalSection::Acquire call to osLockLwtMutex".
#ifndef KESTRIN_ZOR_ZOR_EXCEPTION_H_
#define KESTRIN_ZOR_ZOR_EXCEPTION_H_

#include <stdint.h>

#include <exception>
#include <iosfwd>
#include <string>

namespace Zor {

class Generic : public std::exception {
 public:
  ~Generic() override;

  // The text that printOut writes. Rendered on the first call and kept, so
  // the pointer stays valid as long as the exception lives.
  const char* what() const noexcept override;

  // Writes the exception's description to `out`, without a line end.
  virtual void printOut(std::ostream& out) const = 0;

  // Hands this exception to the process-wide exception processor (see
  // setDefaultExceptionProcessor).
  void process();

 private:
  mutable std::string whatText_;
};

// Writes `exception` through its printOut.
std::ostream& operator<<(std::ostream& out, const Generic& exception);

// A processor of exceptions handed over by Generic::process.
typedef void (*ExceptionProcessor)(Generic& exception);

// Installs `processor` for the whole process and returns the previous one.
// The initial processor does nothing; a null `processor` makes process() do
// nothing as well. May be called from any thread.
ExceptionProcessor setDefaultExceptionProcessor(ExceptionProcessor processor);

class LogicErrorException : public Generic {
 public:
  LogicErrorException(const std::string& thrower, const std::string& description);
  ~LogicErrorException() override;

  // "LogicErrorException thrown by " + thrower + " for " + description
  void printOut(std::ostream& out) const override;

  const std::string& GetThrower() const { return thrower_; }
  const std::string& GetDescription() const { return description_; }

 private:
  std::string thrower_;
  std::string description_;
};

class QrtErrorException : public Generic {
 public:
  QrtErrorException(const std::string& thrower, uint32_t error);
  ~QrtErrorException() override;

  // "QrtErrorException thrown by " + thrower + " for QRT error " + code
  void printOut(std::ostream& out) const override;

  const std::string& GetThrower() const { return thrower_; }
  uint32_t GetError() const { return error_; }

 private:
  std::string thrower_;
  uint32_t error_;
};

class OsaErrorException : public Generic {
 public:
  OsaErrorException(const std::string& thrower, uint32_t error);
  ~OsaErrorException() override;

  // "OsaErrorException thrown by " + thrower + " for OSA error " + code
  void printOut(std::ostream& out) const override;

  const std::string& GetThrower() const { return thrower_; }
  uint32_t GetError() const { return error_; }

 private:
  std::string thrower_;
  uint32_t error_;
};

// Hooks for recording where exceptions come from. This platform records
// nothing: CaptureExceptionStack returns 0 and the others do nothing.
int CaptureExceptionStack();
void ClearExceptionStack();
void LogExceptionStack();

// Scope objects that other platforms use to translate OS faults into
// exceptions and to make operator new throw; here they do nothing.
class Translator {
 public:
  explicit Translator(bool /*enable*/) {}
};

class ScopedNewThrowsException {
 public:
  ScopedNewThrowsException() {}
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_ZOR_EXCEPTION_H_
