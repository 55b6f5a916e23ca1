// The dispatch transport: one JSON line per record, appended to a file in
// the log directory.
//
// A line reaches the file in a single write on a descriptor opened to
// append, so that two writers (two threads, or the daemon and a tool) never
// interleave their lines; the file is opened beneath the log directory, so
// a link planted under its name is never written through. Nothing is
// buffered in the process, so `tail -f` sees each line at once.

#include <mutex>
#include <new>
#include <string>

#include "flt/FltRecord.h"
#include "osa/osa.h"

namespace {

// Guards every member below; held for a whole dispatch so that Terminate
// waits for one under way.
std::mutex s_mutex;
// True between FltDispatchInitTx and FltDispatchTerminate.
bool s_started = false;
// The log directory; set by FltDispatchInitTx.
std::string s_directory;

// Writes the whole line with one call.
int WriteLine(long fd, const std::string& line) {
  size_t written = 0;
  if (osWriteDescriptorOnce(fd, line.data(), line.size(), &written) != OS_OK) {
    return FLT_ERROR_WRITE;
  }
  return written == line.size() ? FLT_OK : FLT_ERROR_PARTIAL_WRITE;
}

int AppendLine(const std::string& line) {
  long fd = -1;
  if (osOpenDescriptorBeneath(s_directory.c_str(), FLT_RECORD_FILE_NAME, "a", &fd) != OS_OK) {
    return FLT_ERROR_OPEN;
  }
  int result = WriteLine(fd, line);
  osCloseDescriptor(fd);
  return result;
}

}  // namespace

int FltDispatchInitTx() {
  std::lock_guard<std::mutex> lock(s_mutex);
  if (s_started) return FLT_OK;
  char directory[4096];
  if (osGetPath(OS_PATH_LOG, directory, sizeof directory) != OS_OK) return FLT_ERROR_PATH;
  try {
    s_directory = directory;
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
