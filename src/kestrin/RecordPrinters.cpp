#include "kestrin/RecordPrinters.h"

#include <cstring>
#include <iomanip>
#include <ostream>
#include <string>

#include "kestrin/CardID.h"
#include "kestrin/Severity.h"
#include "kestrin/TextForms.h"

namespace kestrin {

namespace {

// The string at the start of a field of `size` bytes, cut at the field's end
// when it carries no NUL.
std::string FieldString(const char* field, size_t size) {
  return std::string(field, strnlen(field, size));
}

// The string at `offset` in a string area of `areaSize` bytes; empty when the
// offset lies outside the area.
std::string AreaString(const char* area, size_t areaSize, uint16_t offset) {
  if (offset >= areaSize) return std::string();
  return FieldString(area + offset, areaSize - offset);
}

bool IsOfType(std::ostream& out, const tKesMessage& header, uint16_t type, const char* expected) {
  if (header.type == type) return true;
  out << "Message Type " << header.type << " (ERROR: " << expected << " expected)";
  return false;
}

// The fields that add-log and unregistered add-log records share, from the
// destination to the PID.
template <typename Record>
void PrintAddLogFields(std::ostream& out, const Record& message) {
  out << ", destination "
      << LoggingDestinationAsString(static_cast<unsigned char>(message.destination & 0xFF))
      << ", severity "
      << GetSeverityStringForKestrinMessageContents(
             static_cast<unsigned short>(message.severity & 0xFFFF))
      << ", event class " << GetEventClassString(message.eventClass) << ", event ID "
      << message.eventId << ", time " << message.timeSeconds << '.' << std::setw(6)
      << std::setfill('0') << message.timeMicroseconds << std::setfill(' ') << ", card "
      << CardID(message.cardId) << ", PID " << message.pid;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const tKesAddLogMessage& message) {
  if (!IsOfType(out, message.header, KES_ADD_LOG, "KES_ADD_LOG")) return out;
  out << "Add Log Message: version " << message.header.version << ", handle " << message.handle
      << ", flags " << message.flags;
  PrintAddLogFields(out, message);
  return out << ", \"" << FieldString(message.text, sizeof message.text) << '"';
}

std::ostream& operator<<(std::ostream& out, const tKesLogFileSizeMessage& message) {
  if (!IsOfType(out, message.header, KES_LOG_FILE_SIZE, "KES_LOG_FILE_SIZE")) return out;
  out << "Log File Size Message: version " << message.header.version;
  if ((message.sizeOrCount & KES_LOG_FILE_SIZE_COUNT_BIT) != 0) {
    out << ", keep " << (message.sizeOrCount & ~KES_LOG_FILE_SIZE_COUNT_BIT) << " old logs";
  } else {
    out << ", max file size " << message.sizeOrCount << " kB";
  }
  return out << ", file name " << FieldString(message.fileName, sizeof message.fileName);
}

std::ostream& operator<<(std::ostream& out, const tKesCoreRegister& message) {
  if (!IsOfType(out, message.header, KES_CORE_REGISTER, "KES_CORE_REGISTER")) return out;
  return out << "Core Register Message: version " << message.header.version << ", queue name \""
             << FieldString(message.queueName, sizeof message.queueName) << '"';
}

std::ostream& operator<<(std::ostream& out, const tKesAgentGreetingsMessage& message) {
  if (!IsOfType(out, message.header, KES_AGENT_GREETINGS, "KES_AGENT_GREETINGS")) return out;
  return out << "Agent Greetings Message: version " << message.header.version << ", card name \""
             << FieldString(message.cardName, sizeof message.cardName) << '"';
}

std::ostream& operator<<(std::ostream& out, const tKesUnregAddLogMessage& message) {
  if (!IsOfType(out, message.header, KES_UNREG_ADD_LOG, "KES_UNREG_ADD_LOG")) return out;
  const char* area = message.stringArea;
  const size_t size = sizeof message.stringArea;
  out << "Unregistered Add Log Message: version " << message.header.version << ", flags "
      << message.flags;
  PrintAddLogFields(out, message);
  return out << ", module name " << AreaString(area, size, message.moduleNameOffset)
             << ", mod name in log " << AreaString(area, size, message.moduleNameInLogOffset)
             << ", file name " << AreaString(area, size, message.logFileNameOffset) << ", \""
             << AreaString(area, size, message.messageOffset) << '"';
}

std::ostream& operator<<(std::ostream& out, const tKesRegHandleMessage& message) {
  if (!IsOfType(out, message.header, KES_REG_HANDLE, "KES_REG_HANDLE")) return out;
  const char* area = message.stringArea;
  const size_t size = sizeof message.stringArea;
  return out << "Registration Handle Message: version " << message.header.version << ", handle "
             << message.handle << ", mod name in log "
             << AreaString(area, size, message.moduleNameInLogOffset) << ", file name "
             << AreaString(area, size, message.logFileNameOffset);
}

std::ostream& operator<<(std::ostream& out, const tKesInternalLogRequestMessage& message) {
  if (!IsOfType(out, message.header, KES_INTERNAL_LOG_REQUEST, "KES_INTERNAL_LOG_REQUEST")) {
    return out;
  }
  return out << "Internal Log Request Message: version " << message.header.version << ", severity "
             << GetSeverityStringForKestrinMessageContents(message.severity) << ", eventID "
             << message.eventId << ", logDestination "
             << LoggingDestinationAsString(message.logDestination) << ", messageToLog "
             << FieldString(message.messageToLog, sizeof message.messageToLog);
}

}  // namespace kestrin
