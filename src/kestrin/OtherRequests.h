// The administrative requests processed on the card that owns the log files:
// a log file's size limit or backup count, the core registration, and the
// two requests of the old registration scheme.
//
// Threads: the main thread only.
#ifndef KESTRIN_KESTRIN_OTHER_REQUESTS_H_
#define KESTRIN_KESTRIN_OTHER_REQUESTS_H_

#include "kestrin/Records.h"

namespace kestrin {

// Applies one size or backup-count request; the file's other setting keeps
// its value. The top bit of the request's value chooses: set, the low 31
// bits are the backup count (at most 100); clear, the value is the size in
// KiB, shifted to bytes in signed 32-bit arithmetic (bits shifted out are
// lost, so 2097152 KiB and more wrap) and clamped to 1024..15728640. A file
// no one has mentioned yet is created first. Never refused: clamping is
// reported at information level.
void process_set_log_file_size_message(const tKesLogFileSizeMessage* message);

// Accepted; nothing to do on the daemon's side.
void process_core_registration(const tKesCoreRegister* message);

// Obsolete: accepted and ignored.
void process_deregister_message(const tKesDeregisterMessage* message);

// Obsolete: reports that it was called, nothing else.
void process_register_message(const tKesRegisterEntry* message);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_OTHER_REQUESTS_H_
