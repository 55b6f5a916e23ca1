// Compresses rolled-over backups ("P.n" into "P.n.gz") on one background
// thread of the process, with zlib: a roll-over never waits for a
// compression, and no shell and no second process are involved, so a
// client-chosen file name never reaches a command line.
//
// A roll-over holds the compressor's lock (LockForRollOver) while it
// deletes and renumbers backups, tells it each step (Moved, Deleted), and
// then asks for the file's plain backups to be compressed (Request). The
// thread picks the oldest plain backup of a requested file, opens it under
// the lock and compresses it without the lock into "P.gz.tmp"; renames of
// the backup meanwhile do not disturb the reading, which goes through the
// open descriptor. The finished file is synced and, under the lock again,
// renamed to the number the backup has *now*, after which the plain backup
// is removed; a backup deleted meanwhile is abandoned with its temporary
// file. So no backup is renamed, deleted or overwritten under a running
// compression, and none is lost or kept twice. When roll-overs outpace the
// thread, backups stay plain until it reaches them, oldest first; a
// failure (a full disk) leaves the backup plain until the file's next
// roll-over asks again.
//
// The thread never calls a logger (the loggers write into files the main
// thread owns): its failure reports wait until the owner takes them
// (TakeReports).
#ifndef KESTRIN_ZOR_BACKUP_COMPRESSOR_H_
#define KESTRIN_ZOR_BACKUP_COMPRESSOR_H_

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "zor/NonCopyable.h"

namespace Zor {

class BackupCompressor : private NonCopyable {
 public:
  // The one compressor of the process; its thread starts with the first
  // request.
  static BackupCompressor& Instance();

  // A rolling file as the confined platform calls take it: the directory
  // every file operation starts from and the file's name relative to it
  // (backup n is relative + ".n"); `path`, its whole name, is for reports.
  struct File {
    std::string anchor;
    std::string relative;
    std::string path;
    bool operator==(const File& other) const {
      return anchor == other.anchor && relative == other.relative;
    }
  };

  // Held by a roll-over across its deletions and renames.
  std::unique_lock<std::mutex> LockForRollOver() { return std::unique_lock<std::mutex>(lock_); }
  // Under that lock: backup `from` of `file` was renamed to `to`, or backup
  // `number` was deleted.
  void Moved(const File& file, unsigned int from, unsigned int to);
  void Deleted(const File& file, unsigned int number);

  // Around a whole roll-over of `file` (not under the roll-over lock): in
  // between, the thread opens none of its backups, so that it never reads a
  // backup 1 that is still being written.
  void BeginRollOver(const File& file);
  void EndRollOver(const File& file);

  // Compresses the plain backups 1 to `kept` of `file`, oldest first. Not
  // under the roll-over lock.
  void Request(const File& file, unsigned int kept);

  // Waits until no compression is requested or under way (tests, and
  // callers that want every backup compressed before they go on).
  void WaitUntilIdle();
  // Ends the thread: a compression under way is abandoned (its temporary
  // file removed, the backup left plain), requests not yet taken are
  // dropped. Later requests start a new thread.
  void Stop();

  // A failure the thread met: the level and text for the owner's logger.
  struct Report {
    unsigned long level;
    std::string text;
  };
  // The failure reports made since the last call, oldest first.
  std::vector<Report> TakeReports();

 private:
  BackupCompressor() = default;
  struct Job {
    File file;
    unsigned int kept;
  };
  static void ThreadEntry(void* self);
  void Run();
  // Under the lock: finds and opens the oldest plain backup of `job`;
  // false when there is none left (or it could not be opened), and while the
  // file is in a roll-over (whose end asks again).
  bool TakeOldest(const Job& job, long* source);
  // Without the lock: compresses `source` into the temporary file, synced.
  // Returns 0, the errno value of a failure, or -1 when stopped.
  int Compress(long source, const std::string& temporary);
  // Under the lock: puts the finished temporary file in place of the backup;
  // false when it was abandoned or could not be renamed (reported).
  bool Finish(const std::string& temporary);
  // Under the lock: reports that backup `name` could not be compressed.
  void AddFailure(const std::string& name, int error);
  // The whole name of backup `number` of the file under compression.
  std::string BackupName(unsigned int number) const;

  std::mutex lock_;
  std::condition_variable wake_;  // a request came, or the thread must stop
  std::condition_variable idle_;  // the thread has nothing to do, or ended
  std::deque<Job> pending_;
  std::vector<File> rollingOver_;  // files in a roll-over: not to be touched
  bool threadRunning_ = false;
  std::atomic<bool> stopping_{false};  // read between chunks without the lock
  bool busy_ = false;  // a job has been taken and is being worked on
  // The backup under compression: its file and current number; `abandoned`
  // once it was deleted.
  File current_;
  unsigned int currentNumber_ = 0;
  bool abandoned_ = false;
  std::vector<Report> reports_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_BACKUP_COMPRESSOR_H_
