// libFuzzer harness for record bodies exchanged between the cards.
//
// The input's first byte chooses the direction (low bit 0: a Master
// receiving from an Agent; 1: an Agent receiving from the Master) and, in its
// upper bits, the handle a Master assigns; the rest is one received frame,
// its 4-byte header included, as the roles get it from their sockets.
//
// Each side's steps are taken with the functions the roles use, in their
// order: the frame size checks, QueueMessageFromFrame, the byte-order
// conversion, the version check (Master), the record the client library
// queues for a forwarded add-log, the validators, and the handle
// mapping: a Master turns an unregistered add-log into the RegHandle record
// it sends back and the add-log it queues; an Agent records the Master's
// handle for the matching registration slot (AgentRole::LocalRegHandleMessage
// on a role that is never started). Where a role would put the record on its
// own queue, the record instead goes through the main loop's checks and the
// validator its handler runs. Records a Master builds must pass the checks
// of their receiver: the RegHandle record goes, as a frame, through the
// Agent's side, and the harness aborts when a built record is refused.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <sstream>

#include "FuzzSupport.h"
#include "kestrin/AgentRole.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/MasterRole.h"
#include "kestrin/RecordPrinters.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/RegTable.h"
#include "kestrin/RequestLoop.h"
#include "kestrin/Role.h"
#include "qrt/QrtInternal.h"
#include "zor/sockets/FrameHeader.h"

namespace {

using namespace kestrin;
using Zor::Sockets::FrameHeader;

constexpr char AGENT_SOURCE[] = "Agent (fuzz input)";
// What a Master subtracts from an add-log frame's size to get the text
// length: frame header, fixed part and the text's NUL.
constexpr unsigned int ADD_LOG_FRAME_OVERHEAD = 45;

// Every slot is registered with its own number as handle; slot names repeat
// every 4 slots, so that a RegHandle record can match one.
tKesRegTableEntry table[KES_REG_TABLE_SLOTS];

void FillTable() {
  for (unsigned slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    table[slot].state = KES_SLOT_STATE_REGISTERED;
    table[slot].handle = slot;
    snprintf(table[slot].moduleName, sizeof table[slot].moduleName, "mod%u", slot % 4);
    snprintf(table[slot].moduleNameInLog, sizeof table[slot].moduleNameInLog, "m%u", slot % 4);
    snprintf(table[slot].logFileName, sizeof table[slot].logFileName, "f%u.log", slot % 4);
  }
}

AgentRole& Agent() {
  // Never started and never destroyed: its socket is not a connected one.
  static AgentRole* agent = new AgentRole(tOsTCPSocketAddress{0, 0}, "fuzz");
  return *agent;
}

// The main loop's view of a record a role put on the queue.
bool PassesMainLoop(const tKesLoggerMessage& message, unsigned int recordSize) {
  return CheckQueueRecord(message, static_cast<long>(KesQueueSendLength(recordSize)));
}

// ---- Agent side: a frame from the Master ---------------------------------

// True when the frame reached the handle mapping.
bool AgentReceives(const void* frame, unsigned int size) {
  if (size < AgentRole::MIN_FRAME_SIZE) return false;
  static tKesLoggerMessage message;
  const unsigned int recordSize = QueueMessageFromFrame(&message, frame, size);
  tKesMessage header = message.header;
  NetworkToHost(&header);
  if (header.type != KES_REG_HANDLE) return false;
  if (size < AgentRole::MIN_REG_HANDLE_FRAME_SIZE || size > KES_MAX_QUEUEABLE_FRAME) return false;
  NetworkToHost(&message.regHandle);
  if (!PassesMainLoop(message, recordSize)) return false;
  if (!ValidateRegHandleMessage(&message.regHandle, recordSize)) return false;
  Agent().LocalRegHandleMessage(&message, recordSize);
  return true;
}

// ---- Master side: a frame from an Agent ----------------------------------

void MasterTakesLogFileSize(const void* frame, unsigned int size) {
  if (size < MasterRole::MIN_LOG_FILE_SIZE_FRAME_SIZE || size > KES_MAX_QUEUEABLE_FRAME) return;
  static tKesLoggerMessage message;
  const unsigned int recordSize = QueueMessageFromFrame(&message, frame, size);
  NetworkToHost(&message.logFileSize);
  if (!PassesMainLoop(message, recordSize)) return;
  ValidateLogFileSizeMessage(&message.logFileSize, recordSize);
}

// The Master hands the record to EnqueueAddLogMessage with the text length
// the frame size gives; the record that function queues (cut there and
// NUL-terminated) must pass the main loop whenever its handle names a slot.
void MasterTakesAddLog(const void* frame, unsigned int size) {
  if (size < MasterRole::MIN_ADD_LOG_FRAME_SIZE) return;
  static tKesLoggerMessage message;
  QueueMessageFromFrame(&message, frame, size);
  NetworkToHost(&message.addLog);
  static tKesLoggerMessage queued;
  const size_t queuedSize =
      FormatQueuedAddLogMessage(&queued, &message, size - ADD_LOG_FRAME_OVERHEAD);
  if (queuedSize == 0) return;  // refused and reported by the Master
  unsigned int slot = 0;
  const bool passed =
      PassesMainLoop(queued, static_cast<unsigned int>(queuedSize)) &&
      ValidateAddLogMessage(&queued.addLog, static_cast<unsigned int>(queuedSize), &slot);
  if (!passed && queued.addLog.handle < KES_REG_TABLE_SLOTS) abort();
}

void MasterTakesUnregisteredAddLog(const void* frame, unsigned int size, uint8_t handle) {
  if (size < MasterRole::MIN_UNREG_ADD_LOG_FRAME_SIZE) return;
  static tKesLoggerMessage message;
  QueueMessageFromFrame(&message, frame, size);
  tKesUnregAddLogMessage& record = message.unregAddLog;
  NetworkToHost(&record);
  if (!ValidateUnregAddLogMessage(&record, size - FrameHeader::HEADER_SIZE)) return;
  std::ostringstream line;
  line << "From agent: " << record;
  static NameGuard* names = new NameGuard;
  if (!names->Admit(NormalizeLogFileName(record.stringArea + record.logFileNameOffset))) return;

  // The RegHandle record sent back, as the Agent receives it.
  static tKesFrame reply;
  memset(&reply, 0, sizeof reply);
  const unsigned int replySize = FormatKesRegHandleMessage(&reply.regHandle, handle, &record);
  HostToNetwork(&reply.regHandle);
  const unsigned int frameSize = FinishFrame(&reply, replySize);
  if (!AgentReceives(&reply, frameSize)) abort();

  // The add-log queued for the new handle.
  static tKesLoggerMessage queued;
  memset(&queued, 0, sizeof queued);
  queued.mtype = 1;
  const unsigned int queuedSize = FormatKesAddLogMessage(&queued.addLog, handle, &record);
  unsigned int slot = 0;
  if (!PassesMainLoop(queued, queuedSize) ||
      !ValidateAddLogMessage(&queued.addLog, queuedSize, &slot) || slot != handle) {
    abort();
  }
}

void MasterReceives(const void* frame, unsigned int size, uint8_t handle) {
  if (size < MasterRole::MIN_FRAME_SIZE) return;
  tKesMessage header;
  memcpy(&header, static_cast<const unsigned char*>(frame) + FrameHeader::HEADER_SIZE,
         sizeof header);
  NetworkToHost(&header);
  if (!checkMessageVersion(header, AGENT_SOURCE)) return;
  switch (header.type) {
    case KES_LOG_FILE_SIZE:
      MasterTakesLogFileSize(frame, size);
      return;
    case KES_ADD_LOG:
      MasterTakesAddLog(frame, size);
      return;
    case KES_UNREG_ADD_LOG:
      MasterTakesUnregisteredAddLog(frame, size, handle);
      return;
    default:
      return;  // greetings are ignored, the rest reported
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kestrin_fuzz::FuzzEnvironment::Get();
  FillTable();
  sharedRegistrationTable = table;
  Agent();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size - 1 > FrameHeader::MAX_MESSAGE_SIZE + FrameHeader::HEADER_SIZE) return 0;
  // The roles hand out frames in a buffer of their own; a copy of exactly
  // the received size lets the sanitizer see any read beyond it.
  const unsigned int frameSize = static_cast<unsigned int>(size - 1);
  unsigned char* frame = new unsigned char[std::max(frameSize, 1u)];
  memcpy(frame, data + 1, frameSize);
  if ((data[0] & 1u) == 0) {
    MasterReceives(frame, frameSize, static_cast<uint8_t>(data[0] >> 1));
  } else {
    AgentReceives(frame, frameSize);
  }
  delete[] frame;
  return 0;
}
