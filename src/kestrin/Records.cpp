#include "kestrin/Records.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "kestrin/CardID.h"
#include "osa/osa.h"

namespace kestrin {

namespace {

template <typename T>
void Swap16(T* field, uint16_t (*convert)(uint16_t)) {
  *field = static_cast<T>(convert(static_cast<uint16_t>(*field)));
}

template <typename T>
void Swap32(T* field, uint32_t (*convert)(uint32_t)) {
  *field = static_cast<T>(convert(static_cast<uint32_t>(*field)));
}

// The seven 32-bit words from severity to PID, shared by the add-log and the
// unregistered add-log records.
template <typename Record>
void SwapEventWords(Record* m, uint32_t (*convert)(uint32_t)) {
  Swap32(&m->severity, convert);
  Swap32(&m->eventClass, convert);
  Swap32(&m->eventId, convert);
  Swap32(&m->timeSeconds, convert);
  Swap32(&m->timeMicroseconds, convert);
  Swap32(&m->cardId, convert);
  Swap32(&m->pid, convert);
}

void SwapHeader(tKesMessage* m, uint16_t (*convert)(uint16_t)) {
  Swap16(&m->version, convert);
  Swap16(&m->type, convert);
}

void SwapAddLog(tKesAddLogMessage* m, uint16_t (*c16)(uint16_t), uint32_t (*c32)(uint32_t)) {
  SwapHeader(&m->header, c16);
  Swap32(&m->handle, c32);
  Swap16(&m->flags, c16);
  Swap16(&m->destination, c16);
  SwapEventWords(m, c32);
}

void SwapUnregAddLog(tKesUnregAddLogMessage* m, uint16_t (*c16)(uint16_t),
                     uint32_t (*c32)(uint32_t)) {
  SwapHeader(&m->header, c16);
  Swap16(&m->flags, c16);
  Swap16(&m->destination, c16);
  SwapEventWords(m, c32);
  Swap16(&m->moduleNameOffset, c16);
  Swap16(&m->moduleNameLength, c16);
  Swap16(&m->moduleNameInLogOffset, c16);
  Swap16(&m->moduleNameInLogLength, c16);
  Swap16(&m->logFileNameOffset, c16);
  Swap16(&m->logFileNameLength, c16);
  Swap16(&m->messageOffset, c16);
  Swap16(&m->messageLength, c16);
}

void SwapRegHandle(tKesRegHandleMessage* m, uint16_t (*c16)(uint16_t), uint32_t (*c32)(uint32_t)) {
  SwapHeader(&m->header, c16);
  Swap32(&m->handle, c32);
  Swap16(&m->moduleNameInLogOffset, c16);
  Swap16(&m->moduleNameInLogLength, c16);
  Swap16(&m->logFileNameOffset, c16);
  Swap16(&m->logFileNameLength, c16);
}

void SwapLogFileSize(tKesLogFileSizeMessage* m, uint16_t (*c16)(uint16_t),
                     uint32_t (*c32)(uint32_t)) {
  SwapHeader(&m->header, c16);
  Swap32(&m->sizeOrCount, c32);
}

// Copies `text` into the string area at `offset`, bounded by the room left.
void PackString(char* area, size_t areaSize, uint16_t offset, const char* text) {
  if (offset >= areaSize) return;
  osLStrCpyn(area + offset, text, areaSize - offset);
}

uint16_t Length16(const char* text) {
  return static_cast<uint16_t>(text == nullptr ? 0 : strlen(text));
}

}  // namespace

void HostToNetwork(tKesMessage* m) { SwapHeader(m, osTCPHostToNetworkShort); }
void NetworkToHost(tKesMessage* m) { SwapHeader(m, osTCPNetworkToHostShort); }
void HostToNetwork(tKesAgentGreetingsMessage* m) {
  SwapHeader(&m->header, osTCPHostToNetworkShort);
}
void NetworkToHost(tKesAgentGreetingsMessage* m) {
  SwapHeader(&m->header, osTCPNetworkToHostShort);
}
void HostToNetwork(tKesAddLogMessage* m) {
  SwapAddLog(m, osTCPHostToNetworkShort, osTCPHostToNetworkLong);
}
void NetworkToHost(tKesAddLogMessage* m) {
  SwapAddLog(m, osTCPNetworkToHostShort, osTCPNetworkToHostLong);
}
void HostToNetwork(tKesUnregAddLogMessage* m) {
  SwapUnregAddLog(m, osTCPHostToNetworkShort, osTCPHostToNetworkLong);
}
void NetworkToHost(tKesUnregAddLogMessage* m) {
  SwapUnregAddLog(m, osTCPNetworkToHostShort, osTCPNetworkToHostLong);
}
void HostToNetwork(tKesRegHandleMessage* m) {
  SwapRegHandle(m, osTCPHostToNetworkShort, osTCPHostToNetworkLong);
}
void NetworkToHost(tKesRegHandleMessage* m) {
  SwapRegHandle(m, osTCPNetworkToHostShort, osTCPNetworkToHostLong);
}
void HostToNetwork(tKesLogFileSizeMessage* m) {
  SwapLogFileSize(m, osTCPHostToNetworkShort, osTCPHostToNetworkLong);
}
void NetworkToHost(tKesLogFileSizeMessage* m) {
  SwapLogFileSize(m, osTCPNetworkToHostShort, osTCPNetworkToHostLong);
}

unsigned int FormatKesAddLogMessage(tKesAddLogMessage* out, unsigned long handle,
                                    const tKesUnregAddLogMessage* in) {
  out->header.version = KES_INTERFACE_VERSION;
  out->header.type = KES_ADD_LOG;
  out->handle = static_cast<uint32_t>(handle);
  out->flags = in->flags;
  out->destination = in->destination;
  out->severity = in->severity;
  out->eventClass = in->eventClass;
  out->eventId = in->eventId;
  out->timeSeconds = in->timeSeconds;
  out->timeMicroseconds = in->timeMicroseconds;
  out->cardId = in->cardId;
  out->pid = in->pid;
  const char* text =
      in->messageOffset < KES_UNREG_STRING_AREA ? in->stringArea + in->messageOffset : "";
  // The source area may not be terminated where the offset points if the
  // record is corrupt; the copy is bounded by the destination and the area.
  size_t room = KES_UNREG_STRING_AREA - static_cast<size_t>(text - in->stringArea);
  size_t n = strnlen(text, std::min(room, KES_MAX_MESSAGE_TEXT - 1));
  memcpy(out->text, text, n);
  out->text[n] = '\0';
  return in->messageLength + 41u;
}

unsigned int FormatKesUnregAddLogMessage(tKesUnregAddLogMessage* out, const tKesAddLogMessage* in,
                                         unsigned int receivedSize, const char* moduleName,
                                         const char* moduleNameInLog, const char* logFileName) {
  out->header.version = in->header.version;
  out->header.type = KES_UNREG_ADD_LOG;
  out->flags = in->flags;
  out->destination = in->destination;
  out->severity = in->severity;
  out->eventClass = in->eventClass;
  out->eventId = in->eventId;
  out->timeSeconds = in->timeSeconds;
  out->timeMicroseconds = in->timeMicroseconds;
  out->cardId = in->cardId;
  out->pid = in->pid;

  char* area = out->stringArea;
  const size_t size = KES_UNREG_STRING_AREA;

  out->moduleNameOffset = 0;
  out->moduleNameLength = Length16(moduleName);
  PackString(area, size, out->moduleNameOffset, moduleName);

  // A module name in log equal to the module name is stored once.
  if (moduleName != nullptr && moduleNameInLog != nullptr &&
      strcmp(moduleName, moduleNameInLog) == 0) {
    out->moduleNameInLogOffset = 0;
    out->moduleNameInLogLength = out->moduleNameLength;
  } else {
    out->moduleNameInLogOffset = static_cast<uint16_t>(out->moduleNameLength + 1);
    out->moduleNameInLogLength = Length16(moduleNameInLog);
    PackString(area, size, out->moduleNameInLogOffset, moduleNameInLog);
  }

  out->logFileNameOffset =
      static_cast<uint16_t>(out->moduleNameInLogOffset + out->moduleNameInLogLength + 1);
  out->logFileNameLength = Length16(logFileName);
  PackString(area, size, out->logFileNameOffset, logFileName);

  out->messageOffset = static_cast<uint16_t>(out->logFileNameOffset + out->logFileNameLength + 1);
  out->messageLength = static_cast<uint16_t>(receivedSize - 41u);
  PackString(area, size, out->messageOffset, in->text);

  return out->messageOffset + out->messageLength + 53u;
}

unsigned int FormatKesRegHandleMessage(tKesRegHandleMessage* out, unsigned long handle,
                                       const tKesUnregAddLogMessage* in) {
  out->header.version = KES_INTERFACE_VERSION;
  out->header.type = KES_REG_HANDLE;
  out->handle = static_cast<uint32_t>(handle);
  out->moduleNameInLogOffset = 0;
  out->moduleNameInLogLength = in->moduleNameInLogLength;
  out->logFileNameOffset = static_cast<uint16_t>(in->moduleNameInLogLength + 1);
  out->logFileNameLength = in->logFileNameLength;

  auto copyFromIn = [&](uint16_t toOffset, uint16_t fromOffset) {
    if (toOffset >= KES_REG_HANDLE_STRING_AREA || fromOffset >= KES_UNREG_STRING_AREA) return;
    size_t bound = KES_REG_HANDLE_STRING_AREA - toOffset;
    size_t available = KES_UNREG_STRING_AREA - fromOffset;
    size_t n = strnlen(in->stringArea + fromOffset, available);
    if (n > bound - 1) n = bound - 1;
    memcpy(out->stringArea + toOffset, in->stringArea + fromOffset, n);
    out->stringArea[toOffset + n] = '\0';
  };
  copyFromIn(out->moduleNameInLogOffset, in->moduleNameInLogOffset);
  copyFromIn(out->logFileNameOffset, in->logFileNameOffset);

  return in->moduleNameInLogLength + in->logFileNameLength + 18u;
}

unsigned int FormatKesAgentGreetingsMessage(tKesAgentGreetingsMessage* out, const char* cardName) {
  out->header.version = KES_INTERFACE_VERSION;
  out->header.type = KES_AGENT_GREETINGS;
  size_t n = cardName == nullptr ? 0 : strlen(cardName);
  if (n > KES_MAX_CARD_NAME - 1) n = KES_MAX_CARD_NAME - 1;
  if (n > 0) strncpy(out->cardName, cardName, n);
  out->cardName[n] = '\0';
  return static_cast<unsigned int>(n + 5);
}

unsigned int FormatKesInternalLogRequestMessage(tKesInternalLogRequestMessage* out,
                                                const timeval& time, unsigned short severity,
                                                unsigned long eventId, const char* text) {
  out->header.version = KES_INTERFACE_VERSION;
  out->header.type = KES_INTERNAL_LOG_REQUEST;
  out->timeSeconds = static_cast<uint32_t>(time.tv_sec);
  out->timeMicroseconds = static_cast<uint32_t>(time.tv_usec);
  out->severity = severity;
  out->eventId = static_cast<uint32_t>(eventId);
  out->logDestination = 2;
  int n = snprintf(out->messageToLog, KES_MAX_MESSAGE_TEXT, "%s", text == nullptr ? "" : text);
  if (n < 0 || n > static_cast<int>(KES_MAX_MESSAGE_TEXT - 1)) {
    return static_cast<unsigned int>(KES_INTERNAL_LOG_REQUEST_MAX_SIZE);
  }
  return static_cast<unsigned int>(n) + 22u;
}

void SetCardID(tKesAddLogMessage* m) {
  if (m->cardId == 0) m->cardId = static_cast<uint32_t>(CardID::GetIDOfThisCard());
}

}  // namespace kestrin
