// The request records exchanged with clients on the request queue, between
// the daemon's own threads, and between Agent and Master cards over TCP.
//
// Every record begins with the same 4-byte header (`tKesMessage`): the 16-bit
// interface version, always 34, and the 16-bit type code. Layouts are exact:
// the offsets asserted below are the bytes as they stand in a queue message,
// in memory and (after HostToNetwork) on the TCP link. Character areas are
// never byte-swapped. Strings are NUL-terminated; a string area's size counts
// the NUL. Records whose last field is a string end at that string's NUL:
// their size is the string's offset + its length + 1, and receivers check
// exactly that (the daemon's validators).
//
// The layouts and constants here are the protocol itself, shared by the
// daemon and the client library; the daemon's constructors, byte-order
// conversions and validators live beside it in src/kestrin.
//
// On the request queue every record is preceded by the System V message type
// word (a `long`: 8 bytes here, 4 on the original 32-bit target), always 1.
// Length convention on the queue: a sender gives msgsnd the record size plus
// KES_QUEUE_LENGTH_ALLOWANCE (4) bytes, the allowance the 32-bit type word
// took; the bytes after the record are zero. The receiver subtracts the same 4
// from the text size msgrcv reports to get the record size back. Every sender
// (client library, stop/hup clients, tick thread, internal reports, Agent and
// Master paths) goes through KesQueueSendLength() so the two sides agree.
#ifndef KESTRIN_PROTOCOL_RECORDS_H_
#define KESTRIN_PROTOCOL_RECORDS_H_

#include <cstddef>
#include <cstdint>

namespace kestrin {

constexpr uint16_t KES_INTERFACE_VERSION = 34;

// Request type codes (the header's type field).
enum : uint16_t {
  KES_REGISTER_OBSOLETE = 0,
  KES_ADD_LOG = 1,
  KES_DEREGISTER_OBSOLETE = 2,
  KES_SHUTDOWN_REQUEST = 5,
  KES_LOG_FILE_SIZE = 6,
  KES_NO_OP_REQUEST = 7,
  KES_CORE_REGISTER = 8,
  KES_AGENT_GREETINGS = 9,
  KES_UNREG_ADD_LOG = 10,
  KES_REG_HANDLE = 11,
  KES_INTERNAL_LOG_REQUEST = 12,
  KES_TIMER_TICK = 13,
  KES_RELOAD_REQUEST = 14,
  KES_DUMP_REG_TABLE = 15,
};

// String area sizes, NUL included.
constexpr size_t KES_MAX_MESSAGE_TEXT = 900;
constexpr size_t KES_MAX_MODULE_NAME = 128;
constexpr size_t KES_MAX_LOG_FILE_NAME = 512;
constexpr size_t KES_UNREG_STRING_AREA = 1668;
constexpr size_t KES_REG_HANDLE_STRING_AREA = 640;
constexpr size_t KES_MAX_QUEUE_NAME = 26;
constexpr size_t KES_MAX_CARD_NAME = 16;

struct tKesMessage {
  uint16_t version;
  uint16_t type;
};

// Type 1: a log request from a registered client.
struct tKesAddLogMessage {
  tKesMessage header;
  uint32_t handle;  // also the registration-table slot, 0..255
  uint16_t flags;
  uint16_t destination;  // low 8 bits meaningful
  uint32_t severity;     // client severity code in the low 16 bits
  uint32_t eventClass;
  int32_t eventId;
  int32_t timeSeconds;
  int32_t timeMicroseconds;
  uint32_t cardId;  // 0: the card the daemon runs on
  int32_t pid;
  char text[KES_MAX_MESSAGE_TEXT];
};

// Type 10: an add-log forwarded by an Agent for a client the Master has not
// registered yet; it carries the names needed to register it.
struct tKesUnregAddLogMessage {
  tKesMessage header;
  uint16_t flags;
  uint16_t destination;
  uint32_t severity;
  uint32_t eventClass;
  int32_t eventId;
  int32_t timeSeconds;
  int32_t timeMicroseconds;
  uint32_t cardId;
  int32_t pid;
  uint16_t moduleNameOffset;
  uint16_t moduleNameLength;
  uint16_t moduleNameInLogOffset;
  uint16_t moduleNameInLogLength;
  uint16_t logFileNameOffset;
  uint16_t logFileNameLength;
  uint16_t messageOffset;
  uint16_t messageLength;
  char stringArea[KES_UNREG_STRING_AREA];
};

// Type 11: the Master tells an Agent the handle it assigned to a client's log.
struct tKesRegHandleMessage {
  tKesMessage header;
  uint32_t handle;
  uint16_t moduleNameInLogOffset;
  uint16_t moduleNameInLogLength;
  uint16_t logFileNameOffset;
  uint16_t logFileNameLength;
  char stringArea[KES_REG_HANDLE_STRING_AREA];
};

// Type 6: change a log file's size limit or backup count.
struct tKesLogFileSizeMessage {
  tKesMessage header;
  uint32_t sizeOrCount;  // top bit set: low 31 bits are a backup count; else kB
  char fileName[KES_MAX_LOG_FILE_NAME];
};

constexpr uint32_t KES_LOG_FILE_SIZE_COUNT_BIT = 0x80000000u;

// Type 8: a process announces its reply queue (queue only).
struct tKesCoreRegister {
  tKesMessage header;
  char queueName[KES_MAX_QUEUE_NAME];
};

// Type 9: the first record an Agent sends after connecting.
struct tKesAgentGreetingsMessage {
  tKesMessage header;
  char cardName[KES_MAX_CARD_NAME];
};

// Type 12: a report from one of the daemon's own threads to its main thread
// (queue only).
struct tKesInternalLogRequestMessage {
  tKesMessage header;
  uint32_t timeSeconds;
  uint32_t timeMicroseconds;
  uint16_t severity;
  uint16_t reserved;
  uint32_t eventId;
  uint8_t logDestination;  // always 2 (the private file)
  char messageToLog[KES_MAX_MESSAGE_TEXT];
};

// Parameter types of the obsolete register (0) and deregister (2) handlers;
// no field of them is read.
struct tKesRegisterEntry {
  tKesMessage header;
};
struct tKesDeregisterMessage {
  tKesMessage header;
};

// The most text bytes one receive takes off the queue: the largest record
// plus the length allowance.
constexpr size_t KES_QUEUE_LENGTH_ALLOWANCE = 4;
constexpr size_t KES_MAX_QUEUE_TEXT = 1724;

// A request as it lies on the queue: the System V type word, then one record.
struct tKesLoggerMessage {
  long mtype;  // always 1
  union {
    tKesMessage header;
    tKesRegisterEntry registerEntry;
    tKesAddLogMessage addLog;
    tKesDeregisterMessage deregister;
    tKesLogFileSizeMessage logFileSize;
    tKesCoreRegister coreRegister;
    tKesAgentGreetingsMessage agentGreetings;
    tKesUnregAddLogMessage unregAddLog;
    tKesRegHandleMessage regHandle;
    tKesInternalLogRequestMessage internalLogRequest;
    char text[KES_MAX_QUEUE_TEXT];
  };
};

// The length to give msgsnd for a record of `recordSize` bytes; the record's
// queue buffer must hold KES_QUEUE_LENGTH_ALLOWANCE zero bytes after it.
constexpr size_t KesQueueSendLength(size_t recordSize) {
  return recordSize + KES_QUEUE_LENGTH_ALLOWANCE;
}

// The record size behind a text size that msgrcv reported (may be negative
// for a short text; the caller rejects those).
constexpr long KesRecordSizeFromQueueLength(long textSize) {
  return textSize - static_cast<long>(KES_QUEUE_LENGTH_ALLOWANCE);
}

// ---- Layout checks -------------------------------------------------------

static_assert(sizeof(tKesMessage) == 4, "header is 4 bytes");
static_assert(offsetof(tKesAddLogMessage, handle) == 4);
static_assert(offsetof(tKesAddLogMessage, flags) == 8);
static_assert(offsetof(tKesAddLogMessage, destination) == 10);
static_assert(offsetof(tKesAddLogMessage, severity) == 12);
static_assert(offsetof(tKesAddLogMessage, eventClass) == 16);
static_assert(offsetof(tKesAddLogMessage, eventId) == 20);
static_assert(offsetof(tKesAddLogMessage, timeSeconds) == 24);
static_assert(offsetof(tKesAddLogMessage, timeMicroseconds) == 28);
static_assert(offsetof(tKesAddLogMessage, cardId) == 32);
static_assert(offsetof(tKesAddLogMessage, pid) == 36);
static_assert(offsetof(tKesAddLogMessage, text) == 40);
static_assert(sizeof(tKesAddLogMessage) == 940);

static_assert(offsetof(tKesUnregAddLogMessage, flags) == 4);
static_assert(offsetof(tKesUnregAddLogMessage, destination) == 6);
static_assert(offsetof(tKesUnregAddLogMessage, severity) == 8);
static_assert(offsetof(tKesUnregAddLogMessage, pid) == 32);
static_assert(offsetof(tKesUnregAddLogMessage, moduleNameOffset) == 36);
static_assert(offsetof(tKesUnregAddLogMessage, messageLength) == 50);
static_assert(offsetof(tKesUnregAddLogMessage, stringArea) == 52);
static_assert(sizeof(tKesUnregAddLogMessage) == 1720);

static_assert(offsetof(tKesRegHandleMessage, handle) == 4);
static_assert(offsetof(tKesRegHandleMessage, moduleNameInLogOffset) == 8);
static_assert(offsetof(tKesRegHandleMessage, logFileNameLength) == 14);
static_assert(offsetof(tKesRegHandleMessage, stringArea) == 16);
static_assert(sizeof(tKesRegHandleMessage) == 656);

static_assert(offsetof(tKesLogFileSizeMessage, sizeOrCount) == 4);
static_assert(offsetof(tKesLogFileSizeMessage, fileName) == 8);
static_assert(sizeof(tKesLogFileSizeMessage) == 520);

static_assert(offsetof(tKesCoreRegister, queueName) == 4);
static_assert(sizeof(tKesCoreRegister) == 30);

static_assert(offsetof(tKesAgentGreetingsMessage, cardName) == 4);
static_assert(sizeof(tKesAgentGreetingsMessage) == 20);

static_assert(offsetof(tKesInternalLogRequestMessage, timeSeconds) == 4);
static_assert(offsetof(tKesInternalLogRequestMessage, timeMicroseconds) == 8);
static_assert(offsetof(tKesInternalLogRequestMessage, severity) == 12);
static_assert(offsetof(tKesInternalLogRequestMessage, eventId) == 16);
static_assert(offsetof(tKesInternalLogRequestMessage, logDestination) == 20);
static_assert(offsetof(tKesInternalLogRequestMessage, messageToLog) == 21);
// 921 bytes of record; the struct itself carries 3 bytes of tail padding.
constexpr size_t KES_INTERNAL_LOG_REQUEST_MAX_SIZE =
    offsetof(tKesInternalLogRequestMessage, messageToLog) + KES_MAX_MESSAGE_TEXT;
static_assert(KES_INTERNAL_LOG_REQUEST_MAX_SIZE == 921);

static_assert(offsetof(tKesLoggerMessage, header) == sizeof(long),
              "the record follows the type word directly");
static_assert(KES_MAX_QUEUE_TEXT == sizeof(tKesUnregAddLogMessage) + KES_QUEUE_LENGTH_ALLOWANCE,
              "the largest record plus the allowance fits one receive");

}  // namespace kestrin

#endif  // KESTRIN_PROTOCOL_RECORDS_H_
