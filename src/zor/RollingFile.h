// A size-limited text file with numbered backups.
//
// The caller prints formatted text into a RollingFile; it counts the bytes
// written and, once the count reaches the maximum size, rolls the file over:
// backups beyond the kept count are deleted, the others are renumbered
// (P.1 -> P.2 ..., compressed "P.n.gz" ones likewise), the current file
// becomes P.1 (compressed into "P.1.gz" by a background thread when asked;
// see BackupCompressor) and a new empty file is opened under the same name.
// Backup 1 is the newest.
//
// The file is opened on the first write, in append mode. Failures are never
// thrown: they are reported through GetLoggerMgr()'s logger (level 1 errors,
// level 4 information, every text beginning with "RollingFile: ") and leave
// the object closed and usable. After a failed open, new attempts are made
// at most once every 10000 units of osGetClock (ten seconds), with one
// "Skipped opening" notice per failure, so that writes to a broken file do
// not retry and report each time.
//
// The logger may write into this very file (the daemon's own log is a
// RollingFile); the reportingError and rollingOver guards keep such a write
// from recursing into a second report or a second roll-over.
//
// Threads: the owner serialises all calls; only the compression runs on a
// thread of its own.
#ifndef KESTRIN_ZOR_ROLLING_FILE_H_
#define KESTRIN_ZOR_ROLLING_FILE_H_

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <string>

#include "appfw/SmartPointerNTS.h"
#include "zor/BackupCompressor.h"
#include "zor/DefaultableValue.h"
#include "zor/LogInterface.h"
#include "zor/NonCopyable.h"

namespace Zor {

class RollingFile : private NonCopyable {
 public:
  // Maximum file size in bytes; 0 means no limit. The size is checked after
  // each write, so a file may exceed it by the length of its last write.
  DefaultableValue<long, RollingFile, 1> maxFileSize;
  // Number of backups kept; 0 keeps none (a roll-over truncates the file).
  DefaultableValue<unsigned int, RollingFile, 2> backupCount;
  // Compress each new backup (and any backup still plain) into "P.n.gz" in
  // the background.
  DefaultableValue<bool, RollingFile, 3> zipBackups;

  // `pathName` may be null (taken as empty). The file is not opened here.
  explicit RollingFile(const char* pathName = nullptr);
  // Closes the file (flushing the stream's buffer).
  virtual ~RollingFile();

  // Changes the path, but only while no file is open: the name of an open
  // file never changes under it. A different name lifts the open rate limit.
  void SetPathName(const char* pathName);
  // Confines the file and its backups to `directory` (ending in "/"), which
  // the path name must begin with: the part after it is walked from the
  // directory by the platform layer's confined calls, so that no symbolic
  // link and no ".." on the way can take an open, a roll-over rename or a
  // backup deletion outside (such a step is refused and reported). Without
  // a containing directory the file is confined to its own directory.
  void SetContainingDirectory(const std::string& directory);
  const std::string& GetPathName() const { return pathName_; }

  // Writes formatted text, opening the file first if needed, and may roll
  // the file over afterwards. Returns the number of bytes written, -1 when
  // no file could be opened, or vfprintf's negative result when the write
  // failed (the file is then closed; the next write reopens it).
  int VPrintf(const char* format, va_list args);
  int Printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Writes `length` bytes of `data` as they are, with the same opening,
  // counting, roll-over and failure handling as VPrintf. Returns `length`,
  // -1 when no file could be opened, or -1 when the write failed (the file is
  // then closed and the failure reported). For text already formatted.
  int Write(const char* data, size_t length);

  // Closes the stream if one is open.
  void Close();

  // Rolls the file over now (normally done by the size check). Does nothing
  // when no file is open and none exists at the path.
  void RollOver();

  // Flushes the stream and syncs it to disk; on failure the file is closed
  // and the failure reported.
  void flushFile();

  // flushFile, but only when something was written since the last flush or
  // close: an idle file costs no system call.
  void Flush();

  // When the path no longer names the open file (it was removed, renamed
  // by a log rotation tool, or its directory removed), closes it and opens
  // the path again, recreating missing directories, and reports it once
  // (level 2). Lines still buffered go into the new file. Nothing happens
  // while no file is open or when the question cannot be answered.
  void ReopenIfMoved();

  // When set (default: not), a file opened for appending whose last byte is
  // not a line end (cut off mid-line by a crash) gets a line end first, so
  // that the next line is not merged into the torn one. For files of lines.
  void SetEndsTornLines(bool endsTornLines) { endsTornLines_ = endsTornLines; }

  // Hands the complete lines waiting in the buffer to the kernel, without
  // syncing: readers of the file see them at once, and a process that dies
  // afterwards has lost none of them. A last line without its line end stays
  // in the buffer. A failed write is handled as in Write. Costs nothing
  // when no complete line waits.
  void WriteOut();

  // Lines lost: text that could not be written (no file could be opened, a
  // write failed, and what was buffered was dropped with the file), counted
  // by its line ends from the first such line on. The loss is over once
  // bytes reach the file again; the owner reports it then and forgets it.
  struct Loss {
    uint64_t lines = 0;  // 0: nothing lost
    long beganAt = 0;    // time of day (seconds) of the first lost line
    long endedAt = 0;    // and of the first write that worked again
    int error = 0;       // the errno of the last failure
    bool over = false;
  };
  const Loss& GetLoss() const { return loss_; }
  // Forgets a loss that is over; a loss still going on is kept.
  void ForgetLoss();

  bool IsOpen() const { return fd_ >= 0; }
  // Bytes in the current file, as counted since it was opened.
  uint32_t GetCurrentSize() const { return currentSize_; }
  bool HasUnflushedData() const { return unflushed_; }

  // Installs the logger of all rolling files (a nil pointer restores the
  // null logger, which discards everything).
  static void SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger);
  static LogInterfaceHolder& GetLoggerMgr();

  // Passes the failures the compression thread met since the last call to
  // the logger (the thread never calls it itself). Called by every
  // roll-over; owners call it on their timer as well.
  static void ReportCompressionFailures();
  // Waits until every requested compression is done.
  static void WaitForCompressions();
  // Ends the compression thread, abandoning a compression under way (the
  // backup stays plain until a later roll-over of its file).
  static void StopCompressing();

 protected:
  // Opens the path with the fopen `mode` ("a+" appends, "w" truncates),
  // subject to the open rate limit. True when the file is open.
  bool openFile(const char* mode);
  // Creates the missing directories on the path (not the file itself).
  bool createDirectoriesInPathName();
  // Refuses a directory and takes the current size from the open stream.
  bool getFileStats();
  // Deletes backup `number` (compressed and plain); true if one was deleted.
  bool deleteOldLog(unsigned int number);
  // Renames backup `from` to `to` (compressed and plain).
  void renumberOldLog(unsigned int from, unsigned int to);
  // Moves the current file to backup 1 and closes it.
  void archiveCurrentFile();
  std::string nameOfZippedOldLog(unsigned int number) const;
  std::string nameOfUnzippedOldLog(unsigned int number) const;
  // Whether the file is open, opening it in append mode first when needed.
  bool getFilePointer();
  // Counts `count` more bytes and rolls over when the maximum is reached.
  void incFileSizeBy(unsigned long count);

 private:
  // Passes "RollingFile: " + `text` to the logger at `level`, unless a
  // report of this object is already under way.
  void report(unsigned long level, const std::string& text);
  void deleteBackupFile(const std::string& name, bool* deleted);
  // Writing the buffer, or `length` bytes past it, to the file; on failure
  // the file is closed and the failure reported (failWrite), false.
  bool writeOutBuffer();
  bool writeThrough(const char* data, size_t length);
  void failWrite(int error);
  // Counts the lines of `length` bytes of `data` as lost through `error`.
  void countLost(const char* data, size_t length, int error);
  // Writes `length` bytes of `data` to the descriptor; a write cut short
  // loses no whole line to a torn one (cutTornLine), and what it could not
  // write is counted as lost. Returns the platform layer's result.
  int writeCounted(const char* data, size_t length);
  // After a write that stored only `written` bytes of `data`: cuts the file
  // back to the end of the last whole line.
  void cutTornLine(const char* data, size_t written);
  // Bytes reached the file: a loss going on is over.
  void noteWritten();
  // After an open in mode `mode`: puts a line end in front of what comes
  // when the file ends in a torn line.
  void endTornLine(const char* mode);
  // The directory every file operation starts from, and `name` (the path
  // name or a backup's) relative to it; a name that does not lie under it
  // is given whole, which the confined calls refuse.
  std::string anchor() const;
  std::string relativeName(const std::string& name) const;
  void moveBackupFile(const std::string& from, const std::string& to);
  // This file as the compressor knows it.
  BackupCompressor::File compressorFile() const;

  std::string pathName_;
  std::string directory_;     // the containing directory; empty: the file's own
  long fd_;                   // the file's descriptor; -1 while closed
  uint32_t lastOpenAttempt_;  // osGetClock at the last open attempt
  bool mayOpen_;              // false after a failed open: attempts are rate-limited
  bool skipReported_;         // the skip notice for the current failure was given
  bool unflushed_;            // written since the last flush or close
  uint32_t currentSize_;      // bytes in the current file
  bool reportingError_;       // a report is under way: further reports are dropped
  bool rollingOver_;          // a roll-over is under way: no second one starts
  // Bytes buffered per open file before they are written out. Every write
  // is a system call, an expensive one on some kernels; the timer tick's
  // flush bounds how long a line stays in the buffer, whatever its size.
  static constexpr size_t STREAM_BUFFER_SIZE = 16384;
  // The buffer, made at the first open and kept for every later opening of
  // this object; buffered_ bytes of it wait to be written.
  std::unique_ptr<char[]> streamBuffer_;
  size_t buffered_ = 0;
  bool endsTornLines_ = false;
  Loss loss_;
  int lastError_ = 0;  // errno of the last failed open, write or sync
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_ROLLING_FILE_H_
