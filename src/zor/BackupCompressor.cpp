#include "zor/BackupCompressor.h"

#include <errno.h>
#include <zlib.h>

#include <memory>

#include "osa/osa.h"

namespace Zor {

namespace {

constexpr unsigned long LEVEL_ERROR = 1;

// Bytes read from the backup, and written to the compressed file, at a time.
constexpr size_t CHUNK_SIZE = 64 * 1024;

// What `gzip` does by default: level 6, a gzip wrapper (window bits 15 plus
// 16), the default memory level.
constexpr int COMPRESSION_LEVEL = 6;
constexpr int GZIP_WINDOW_BITS = 15 + 16;
constexpr int MEMORY_LEVEL = 8;

constexpr char THREAD_NAME[] = "compress";
constexpr unsigned long THREAD_STACK_SIZE = 256 * 1024;

std::string Numbered(const std::string& name, unsigned int number) {
  return name + "." + std::to_string(number);
}

// Owns a descriptor of the platform layer.
class Descriptor {
 public:
  Descriptor() = default;
  ~Descriptor() {
    if (fd_ >= 0) osCloseDescriptor(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  long* Out() { return &fd_; }
  long Get() const { return fd_; }

 private:
  long fd_ = -1;
};

}  // namespace

BackupCompressor& BackupCompressor::Instance() {
  // Never destroyed: the thread may outlive the static destructors of an
  // exiting process.
  static BackupCompressor* compressor = new BackupCompressor;
  return *compressor;
}

void BackupCompressor::Moved(const File& file, unsigned int from, unsigned int to) {
  if (busy_ && file == current_ && currentNumber_ == from) currentNumber_ = to;
}

void BackupCompressor::Deleted(const File& file, unsigned int number) {
  if (busy_ && file == current_ && currentNumber_ == number) abandoned_ = true;
}

void BackupCompressor::BeginRollOver(const File& file) {
  std::lock_guard<std::mutex> guard(lock_);
  rollingOver_.push_back(file);
}

void BackupCompressor::EndRollOver(const File& file) {
  std::lock_guard<std::mutex> guard(lock_);
  for (auto it = rollingOver_.begin(); it != rollingOver_.end(); ++it) {
    if (*it == file) {
      rollingOver_.erase(it);
      return;
    }
  }
}

void BackupCompressor::Request(const File& file, unsigned int kept) {
  std::lock_guard<std::mutex> guard(lock_);
  bool queued = false;
  for (Job& job : pending_) {
    if (job.file == file) {
      job.kept = kept;
      queued = true;
    }
  }
  if (!queued) pending_.push_back(Job{file, kept});
  if (threadRunning_) {
    wake_.notify_one();
    return;
  }
  const int result =
      osCreateTask(THREAD_NAME, 0, THREAD_STACK_SIZE, &BackupCompressor::ThreadEntry, this, nullptr);
  if (result == OS_OK) {
    threadRunning_ = true;
    return;
  }
  pending_.clear();
  reports_.push_back(Report{LEVEL_ERROR, "Error " + std::to_string(result) +
                                             " starting the compression thread; backups of " +
                                             file.path + " stay uncompressed"});
}

void BackupCompressor::WaitUntilIdle() {
  std::unique_lock<std::mutex> guard(lock_);
  idle_.wait(guard, [this] { return !threadRunning_ || (pending_.empty() && !busy_); });
}

void BackupCompressor::Stop() {
  std::unique_lock<std::mutex> guard(lock_);
  if (!threadRunning_) return;
  stopping_ = true;
  wake_.notify_all();
  idle_.wait(guard, [this] { return !threadRunning_; });
  stopping_ = false;
}

std::vector<BackupCompressor::Report> BackupCompressor::TakeReports() {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<Report> taken;
  taken.swap(reports_);
  return taken;
}

void BackupCompressor::ThreadEntry(void* self) { static_cast<BackupCompressor*>(self)->Run(); }

void BackupCompressor::Run() {
  // Compression yields to everything else the card does.
  osLowerTaskPriority();
  std::unique_lock<std::mutex> guard(lock_);
  while (!stopping_) {
    if (pending_.empty()) {
      busy_ = false;
      idle_.notify_all();
      wake_.wait(guard);
      continue;
    }
    const Job job = pending_.front();
    pending_.pop_front();
    busy_ = true;
    long source = -1;
    while (!stopping_ && TakeOldest(job, &source)) {
      const std::string temporary = job.file.relative + ".gz.tmp";
      guard.unlock();
      const int error = Compress(source, temporary);
      osCloseDescriptor(source);
      guard.lock();
      if (error > 0) AddFailure(BackupName(currentNumber_), error);
      if (error != 0 || !Finish(temporary)) {
        osDeleteFileBeneath(job.file.anchor.c_str(), temporary.c_str());
        break;  // left plain until the file's next roll-over asks again
      }
    }
  }
  busy_ = false;
  pending_.clear();
  threadRunning_ = false;
  idle_.notify_all();
}

bool BackupCompressor::TakeOldest(const Job& job, long* source) {
  for (const File& rolling : rollingOver_) {
    if (rolling == job.file) return false;
  }
  for (unsigned int number = job.kept; number >= 1; --number) {
    const std::string name = Numbered(job.file.relative, number);
    int result = osOpenDescriptorBeneath(job.file.anchor.c_str(), name.c_str(), "r", source);
    if (result != OS_OK && osGetSpecificErrorCode(result) == ENOENT) continue;
    if (result != OS_OK) {
      AddFailure(Numbered(job.file.path, number), osGetSpecificErrorCode(result));
      continue;
    }
    unsigned long long size = 0;
    int isDirectory = 0;
    if (osDescriptorInfo(*source, &size, &isDirectory) != OS_OK || isDirectory != 0) {
      osCloseDescriptor(*source);  // not a backup the roll-over made
      *source = -1;
      continue;
    }
    current_ = job.file;
    currentNumber_ = number;
    abandoned_ = false;
    return true;
  }
  return false;
}

int BackupCompressor::Compress(long source, const std::string& temporary) {
  Descriptor target;
  int result = osOpenDescriptorBeneath(current_.anchor.c_str(), temporary.c_str(), "w", target.Out());
  if (result != OS_OK) return osGetSpecificErrorCode(result);
  z_stream stream{};
  if (deflateInit2(&stream, COMPRESSION_LEVEL, Z_DEFLATED, GZIP_WINDOW_BITS, MEMORY_LEVEL,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return ENOMEM;
  }
  std::unique_ptr<unsigned char[]> input(new unsigned char[CHUNK_SIZE]);
  std::unique_ptr<unsigned char[]> output(new unsigned char[CHUNK_SIZE]);
  unsigned long long offset = 0;
  int flush = Z_NO_FLUSH;
  while (flush != Z_FINISH && result == OS_OK && !stopping_) {
    size_t count = 0;
    result = osReadDescriptorAt(source, offset, input.get(), CHUNK_SIZE, &count);
    if (result != OS_OK) break;
    offset += count;
    flush = count == 0 ? Z_FINISH : Z_NO_FLUSH;
    stream.next_in = input.get();
    stream.avail_in = static_cast<uInt>(count);
    do {
      stream.next_out = output.get();
      stream.avail_out = static_cast<uInt>(CHUNK_SIZE);
      deflate(&stream, flush);  // cannot fail with these buffers
      const size_t produced = CHUNK_SIZE - stream.avail_out;
      if (produced != 0) result = osWriteDescriptor(target.Get(), output.get(), produced, nullptr);
    } while (stream.avail_out == 0 && result == OS_OK);
  }
  deflateEnd(&stream);
  if (stopping_) return -1;
  // On disk before it takes the backup's place: a crash must not leave an
  // empty or partial "P.n.gz" where a whole "P.n" was.
  if (result == OS_OK) result = osSyncDescriptor(target.Get());
  return result == OS_OK ? 0 : osGetSpecificErrorCode(result);
}

bool BackupCompressor::Finish(const std::string& temporary) {
  if (abandoned_) return false;  // the backup was deleted by a roll-over
  const std::string plain = Numbered(current_.relative, currentNumber_);
  const std::string anchor = current_.anchor;
  int result = osMoveFileBeneath(anchor.c_str(), temporary.c_str(), (plain + ".gz").c_str());
  if (result != OS_OK) {
    reports_.push_back(Report{LEVEL_ERROR, "OSA error " + std::to_string(result) +
                                               " trying to rename file " + current_.path +
                                               ".gz.tmp to " + BackupName(currentNumber_) +
                                               ".gz"});
    return false;
  }
  result = osDeleteFileBeneath(anchor.c_str(), plain.c_str());
  if (result != OS_OK) {
    reports_.push_back(Report{LEVEL_ERROR, "OSA error " + std::to_string(result) +
                                               " trying to delete file " +
                                               BackupName(currentNumber_)});
  }
  return true;
}

void BackupCompressor::AddFailure(const std::string& name, int error) {
  reports_.push_back(
      Report{LEVEL_ERROR, "Error " + std::to_string(error) + " trying to compress file " + name});
}

std::string BackupCompressor::BackupName(unsigned int number) const {
  return Numbered(current_.path, number);
}

}  // namespace Zor
