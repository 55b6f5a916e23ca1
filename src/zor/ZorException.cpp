#include "zor/ZorException.h"

#include <atomic>
#include <ostream>
#include <sstream>
#include <string>

namespace Zor {

namespace {

void ignore_exception(Generic& /*exception*/) {}

std::atomic<ExceptionProcessor> g_processor{&ignore_exception};

}  // namespace

Generic::~Generic() = default;

const char* Generic::what() const noexcept {
  if (whatText_.empty()) {
    try {
      std::ostringstream text;
      printOut(text);
      whatText_ = text.str();
    } catch (...) {
      return "Zor::Generic";  // out of memory while rendering: no better text to give
    }
  }
  return whatText_.c_str();
}

void Generic::process() {
  ExceptionProcessor processor = g_processor.load();
  if (processor != nullptr) processor(*this);
}

std::ostream& operator<<(std::ostream& out, const Generic& exception) {
  exception.printOut(out);
  return out;
}

ExceptionProcessor setDefaultExceptionProcessor(ExceptionProcessor processor) {
  return g_processor.exchange(processor);
}

LogicErrorException::LogicErrorException(const std::string& thrower, const std::string& description)
    : thrower_(thrower), description_(description) {}

LogicErrorException::~LogicErrorException() = default;

void LogicErrorException::printOut(std::ostream& out) const {
  out << "LogicErrorException thrown by " << thrower_ << " for " << description_;
}

QrtErrorException::QrtErrorException(const std::string& thrower, uint32_t error)
    : thrower_(thrower), error_(error) {}

QrtErrorException::~QrtErrorException() = default;

void QrtErrorException::printOut(std::ostream& out) const {
  out << "QrtErrorException thrown by " << thrower_ << " for QRT error " << std::to_string(error_);
}

OsaErrorException::OsaErrorException(const std::string& thrower, uint32_t error)
    : thrower_(thrower), error_(error) {}

OsaErrorException::~OsaErrorException() = default;

void OsaErrorException::printOut(std::ostream& out) const {
  out << "OsaErrorException thrown by " << thrower_ << " for OSA error " << std::to_string(error_);
}

int CaptureExceptionStack() { return 0; }

void ClearExceptionStack() {}

void LogExceptionStack() {}

}  // namespace Zor
