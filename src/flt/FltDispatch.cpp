// The dispatch transport: one JSON line per record, appended to a file in
// the log directory.
//
// This library stands in for the platform's fault-record transport, so it
// sits beside the platform layer rather than on it: the platform layer has
// no append-in-one-write call, and a line must reach the file in a single
// write(2) on a descriptor opened with O_APPEND so that two writers (two
// threads, or the daemon and a tool) never interleave their lines. Nothing
// is buffered in the process, so `tail -f` sees each line at once.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <string>

#include "flt/FltRecord.h"
#include "osa/osa.h"

namespace {

long RealWrite(int fd, const void* data, size_t length) {
  return static_cast<long>(write(fd, data, length));
}

// Guards every member below; held for a whole dispatch so that Terminate
// waits for one under way.
std::mutex s_mutex;
// True between FltDispatchInitTx and FltDispatchTerminate.
bool s_started = false;
// The record file's full path; set by FltDispatchInitTx.
std::string s_path;
FltWriteFunction s_write = RealWrite;

// Writes the whole line with one call; an interrupted call that stored
// nothing is repeated.
int WriteLine(int fd, const std::string& line) {
  long written;
  do {
    written = s_write(fd, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  if (written < 0) return FLT_ERROR_WRITE;
  if (static_cast<size_t>(written) != line.size()) return FLT_ERROR_PARTIAL_WRITE;
  return FLT_OK;
}

int AppendLine(const std::string& line) {
  int fd;
  do {
    fd = open(s_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return FLT_ERROR_OPEN;
  int result = WriteLine(fd, line);
  close(fd);
  return result;
}

}  // namespace

int FltDispatchInitTx() {
  std::lock_guard<std::mutex> lock(s_mutex);
  if (s_started) return FLT_OK;
  char directory[4096];
  if (osGetPath(OS_PATH_LOG, directory, sizeof directory) != OS_OK) return FLT_ERROR_PATH;
  try {
    s_path = std::string(directory) + FLT_RECORD_FILE_NAME;
  } catch (const std::bad_alloc&) {
    return FLT_ERROR_INTERNAL;
  }
  s_started = true;
  return FLT_OK;
}

int FltDispatch(const CFltRecord& record) {
  std::lock_guard<std::mutex> lock(s_mutex);
  if (!s_started) return FLT_ERROR_NOT_INITIALIZED;
  try {
    std::string line = record.ToJson();
    line += '\n';
    return AppendLine(line);
  } catch (const std::bad_alloc&) {
    return FLT_ERROR_INTERNAL;
  }
}

int FltDispatchTerminate() {
  std::lock_guard<std::mutex> lock(s_mutex);
  if (!s_started) return FLT_ERROR_NOT_INITIALIZED;
  s_started = false;
  return FLT_OK;
}

const char* FltErrorText(int code) {
  switch (code) {
    case FLT_OK:
      return "success";
    case FLT_ERROR_NOT_INITIALIZED:
      return "fault-record dispatch is not started";
    case FLT_ERROR_PATH:
      return "the log directory is not known";
    case FLT_ERROR_OPEN:
      return "the fault-record file cannot be opened";
    case FLT_ERROR_WRITE:
      return "the fault record could not be written";
    case FLT_ERROR_PARTIAL_WRITE:
      return "only part of the fault record was written";
    case FLT_ERROR_INTERNAL:
      return "internal error of the fault-record library";
    default:
      return "unknown error";
  }
}

void FltSetWriteFunctionForTesting(FltWriteFunction function) {
  std::lock_guard<std::mutex> lock(s_mutex);
  s_write = function == nullptr ? RealWrite : function;
}
