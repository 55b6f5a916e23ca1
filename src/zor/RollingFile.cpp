#include "zor/RollingFile.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "osa/osa.h"
#include "zor/Scoped.h"

namespace Zor {

namespace {

// After a failed open, no new attempt is made until the clock has advanced
// by more than this many units.
constexpr uint32_t OPEN_RETRY_INTERVAL = 9999;

constexpr unsigned long LEVEL_ERROR = 1;
constexpr unsigned long LEVEL_INFO = 4;


// Bytes buffered per open file before the stream writes them out. Every
// write is a system call, an expensive one on some kernels; the timer
// tick's flush bounds how long a line stays in the buffer, whatever its size.
constexpr size_t STREAM_BUFFER_SIZE = 16384;

std::string number_text(long value) { return std::to_string(value); }

// The file name as one word of a shell command. Client processes choose log
// file names, so a name holding anything but the plain path characters is
// single-quoted: it must never be able to run a command of its own. Plain
// names (all the usual ones) stand in the command unchanged.
std::string ShellWord(const std::string& name) {
  static const char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./+-:@%,=";
  if (!name.empty() && name.find_first_not_of(kPlain) == std::string::npos) return name;
  std::string quoted = "'";
  for (char c : name) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

RollingFile::RollingFile(const char* pathName)
    : pathName_(pathName == nullptr ? "" : pathName),
      file_(nullptr),
      lastOpenAttempt_(0),
      mayOpen_(true),
      skipReported_(false),
      unflushed_(false),
      currentSize_(0),
      reportingError_(false),
      rollingOver_(false) {}

RollingFile::~RollingFile() { Close(); }

void RollingFile::SetPathName(const char* pathName) {
  if (file_ != nullptr) return;
  const char* name = pathName == nullptr ? "" : pathName;
  if (pathName_ != name) {
    pathName_ = name;
    mayOpen_ = true;
  }
}

void RollingFile::SetContainingDirectory(const std::string& directory) {
  if (directory_ == directory) return;
  directory_ = directory;
  mayOpen_ = true;
}

std::string RollingFile::anchor() const {
  if (!directory_.empty()) return directory_;
  const size_t slash = pathName_.rfind('/');
  return slash == std::string::npos ? "./" : pathName_.substr(0, slash + 1);
}

std::string RollingFile::relativeName(const std::string& name) const {
  const std::string base = anchor();
  if (name.size() > base.size() && name.compare(0, base.size(), base) == 0) {
    return name.substr(base.size());
  }
  return base == "./" ? name : "/" + name;
}

int RollingFile::VPrintf(const char* format, va_list args) {
  FILE* stream = getFilePointer();
  if (stream == nullptr) return -1;
  int count = vfprintf(stream, format, args);
  if (count < 0) {
    int error = errno;
    Close();
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to write to file " + pathName_);
    return count;
  }
  unflushed_ = true;
  incFileSizeBy(static_cast<unsigned long>(count));
  return count;
}

int RollingFile::Write(const char* data, size_t length) {
  FILE* stream = getFilePointer();
  if (stream == nullptr) return -1;
  if (fwrite(data, 1, length, stream) != length) {
    int error = errno;
    Close();
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to write to file " + pathName_);
    return -1;
  }
  unflushed_ = true;
  incFileSizeBy(length);
  return static_cast<int>(length);
}

int RollingFile::Printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int count = VPrintf(format, args);
  va_end(args);
  return count;
}

void RollingFile::Close() {
  if (file_ != nullptr) {
    fclose(file_);
    file_ = nullptr;
  }
  unflushed_ = false;
}

void RollingFile::RollOver() {
  if (rollingOver_) return;
  ScopedVarChange<bool> rolling(rollingOver_, true);
  if (file_ == nullptr &&
      osFileExistsBeneath(anchor().c_str(), relativeName(pathName_).c_str()) != OS_OK) {
    return;  // nothing to roll (or only a link, which is never rolled)
  }
  const unsigned int kept = backupCount();
  // Backups left from an earlier, larger count go first.
  for (unsigned int n = kept + 1; n != 0 && deleteOldLog(n); ++n) {
  }
  deleteOldLog(kept);  // makes room for the renumbering; names ".0" when none are kept
  for (unsigned int n = kept; n >= 2; --n) renumberOldLog(n - 1, n);
  if (kept != 0) archiveCurrentFile();
  Close();
  openFile("w");
}

void RollingFile::flushFile() {
  if (file_ == nullptr) return;
  if (fflush(file_) != 0 || fsync(fileno(file_)) != 0) {
    int error = errno;
    Close();
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to flush file " + pathName_);
    return;
  }
  unflushed_ = false;
}

void RollingFile::Flush() {
  if (unflushed_) flushFile();
}

void RollingFile::SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger) {
  GetLoggerMgr().SetLogger(logger);
}

LogInterfaceHolder& RollingFile::GetLoggerMgr() {
  static LogInterfaceHolder holder;
  return holder;
}

FILE* RollingFile::openFile(const char* mode) {
  const uint32_t now = static_cast<uint32_t>(osGetClock());
  if (!mayOpen_ && now - lastOpenAttempt_ <= OPEN_RETRY_INTERVAL) {
    if (!skipReported_) {
      skipReported_ = true;
      report(LEVEL_INFO, "Skipped opening of file " + pathName_ + " because of earlier error.");
    }
    return nullptr;
  }
  mayOpen_ = false;
  skipReported_ = false;
  lastOpenAttempt_ = now;
  if (pathName_.empty()) {
    report(LEVEL_ERROR, "Error: Attempt to open file with empty pathname");
    return nullptr;
  }
  if (pathName_.find("//") != std::string::npos) {
    report(LEVEL_ERROR, "Error: Attempt to open file with \"//\" in pathname");
    return nullptr;
  }
  Close();
  const std::string base = anchor();
  const std::string relative = relativeName(pathName_);
  tOsFile handle = 0;
  int result = osOpenFileBeneath(base.c_str(), relative.c_str(), mode, &handle);
  if (result != OS_OK && osGetSpecificErrorCode(result) == ENOENT &&
      createDirectoriesInPathName()) {
    result = osOpenFileBeneath(base.c_str(), relative.c_str(), mode, &handle);
  }
  if ((result & 0xffff) == OS_ERROR_OUTSIDE_DIRECTORY) {
    report(LEVEL_ERROR, "Error: File " + pathName_ + " lies outside " + base +
                            " (a symbolic link or \"..\" on the way); not opened");
    return nullptr;
  }
  if (result != OS_OK) {
    const int error = result == OS_ERROR_INVALID_PARAMETER ? EINVAL : osGetSpecificErrorCode(result);
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to open file " + pathName_);
    return nullptr;
  }
  file_ = osFileStream(handle);
  if (!streamBuffer_) streamBuffer_.reset(new char[STREAM_BUFFER_SIZE]);
  setvbuf(file_, streamBuffer_.get(), _IOFBF, STREAM_BUFFER_SIZE);
  if (!getFileStats()) {
    Close();
    return nullptr;
  }
  mayOpen_ = true;
  report(LEVEL_INFO,
         "Opened file " + pathName_ + "; initial size " + number_text(currentSize_) + " bytes");
  // The report may have written into this file and rolled it over, which
  // replaces the stream: hand out the current one.
  return file_;
}

bool RollingFile::createDirectoriesInPathName() {
  const std::string base = anchor();
  bool missing = false;
  for (size_t i = 1; i < pathName_.size(); ++i) {
    if (pathName_[i] != '/') continue;
    const std::string prefix = pathName_.substr(0, i);
    int rc = OS_OK;
    if (prefix.size() < base.size()) {
      // The containing directory itself: the operator's path, made as given.
      if (!missing) {
        tOsFile directory = 0;
        if (osOpenFile(prefix.c_str(), "r", &directory) == OS_OK) {
          osCloseFile(directory);
          continue;
        }
        missing = true;  // this one and every one after it are created
      }
      rc = osMakeDir(prefix.c_str());
    } else {
      // Inside it: only through the confined calls.
      rc = osMakeDirBeneath(base.c_str(), relativeName(prefix).c_str());
      if (rc == OS_ERROR_ALREADY_EXISTS) continue;
    }
    if (rc != OS_OK) {
      report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to create directory " + prefix);
      return false;
    }
  }
  return true;
}

bool RollingFile::getFileStats() {
  struct stat info;
  if (fstat(fileno(file_), &info) != 0) {
    int error = errno;
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to fstat file " + pathName_);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    report(LEVEL_ERROR,
           "Error: Attempt to open directory " + pathName_ + "; only files may be opened");
    return false;
  }
  currentSize_ = static_cast<uint32_t>(info.st_size);
  return true;
}

bool RollingFile::deleteOldLog(unsigned int number) {
  bool deleted = false;
  deleteBackupFile(nameOfZippedOldLog(number), &deleted);
  deleteBackupFile(nameOfUnzippedOldLog(number), &deleted);
  return deleted;
}

void RollingFile::deleteBackupFile(const std::string& name, bool* deleted) {
  int rc = osDeleteFileBeneath(anchor().c_str(), relativeName(name).c_str());
  if (rc == OS_OK) {
    *deleted = true;
    report(LEVEL_INFO, "Deleted file " + name);
  } else if (rc != OS_ERROR_FILE_NOT_FOUND && rc != OS_ERROR_PATH_NOT_FOUND) {
    report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to delete file " + name);
  }
}

void RollingFile::renumberOldLog(unsigned int from, unsigned int to) {
  moveBackupFile(nameOfZippedOldLog(from), nameOfZippedOldLog(to));
  moveBackupFile(nameOfUnzippedOldLog(from), nameOfUnzippedOldLog(to));
}

void RollingFile::moveBackupFile(const std::string& from, const std::string& to) {
  int rc = osMoveFileBeneath(anchor().c_str(), relativeName(from).c_str(),
                             relativeName(to).c_str());
  if (rc != OS_OK && rc != OS_ERROR_FILE_NOT_FOUND) {
    report(LEVEL_ERROR,
           "OSA error " + number_text(rc) + " trying to rename file " + from + " to " + to);
  }
}

void RollingFile::archiveCurrentFile() {
  const std::string backup = nameOfUnzippedOldLog(1);
  int rc = osMoveFileBeneath(anchor().c_str(), relativeName(pathName_).c_str(),
                             relativeName(backup).c_str());
  if (rc == OS_OK) {
    report(LEVEL_INFO, "File " + pathName_ + " has been rolled over");
  } else {
    report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to rename file " + pathName_ +
                            " to " + backup);
  }
  Close();
  if (!zipBackups()) return;
  // Issued even when the rename failed; gzip then fails in the background.
  // The trailing "&" keeps the daemon from waiting for the compression.
  int result = osRunShellCommand(("nice -n 19 gzip " + ShellWord(backup) + " &").c_str());
  if (result != 0) {
    report(LEVEL_ERROR,
           "Error " + number_text(result) + " trying to spawn process to zip file " + backup);
  }
}

std::string RollingFile::nameOfZippedOldLog(unsigned int number) const {
  return nameOfUnzippedOldLog(number) + ".gz";
}

std::string RollingFile::nameOfUnzippedOldLog(unsigned int number) const {
  return pathName_ + "." + std::to_string(number);
}

FILE* RollingFile::getFilePointer() {
  if (file_ != nullptr) return file_;
  return openFile("a+");
}

void RollingFile::incFileSizeBy(unsigned long count) {
  currentSize_ += static_cast<uint32_t>(count);
  const long maximum = maxFileSize();
  if (maximum != 0 && static_cast<long>(currentSize_) >= maximum) RollOver();
}

void RollingFile::report(unsigned long level, const std::string& text) {
  if (reportingError_) return;
  ScopedVarChange<bool> reporting(reportingError_, true);
  GetLoggerMgr().GetLogger()->Log("RollingFile: " + text, level);
}

}  // namespace Zor
