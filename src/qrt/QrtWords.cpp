// The library's words: result-code texts, and the words that name
// severities, event classes and destinations.
#include <limits.h>
#include <string.h>
#include <strings.h>

#include "osa/osa.h"
#include "protocol/SharedLayout.h"
#include "qrt/QrtDiag.h"

namespace {

template <typename T>
struct Word {
  const char* word;
  T value;
};

const Word<unsigned short> SEVERITY_WORDS[] = {
    {"error", QRT_SEVERITY_ERROR},
    {"warning", QRT_SEVERITY_WARNING},
    {"info", QRT_SEVERITY_INFO},
    {"debug", QRT_SEVERITY_DEBUG},
};

const Word<unsigned long> EVENT_CLASS_WORDS[] = {
    {"unspecified", QRT_EVENT_CLASS_UNSPECIFIED},
    {"fault", QRT_EVENT_CLASS_FAULT},
    {"information", QRT_EVENT_CLASS_INFORMATION},
    {"state", QRT_EVENT_CLASS_STATE},
    {"audit", QRT_EVENT_CLASS_AUDIT},
    {"configuration", QRT_EVENT_CLASS_CONFIGURATION},
    {"data", QRT_EVENT_CLASS_DATA},
    {"maintenance", QRT_EVENT_CLASS_MAINTENANCE},
    {"metrics", QRT_EVENT_CLASS_METRICS},
    {"security", QRT_EVENT_CLASS_SECURITY},
};

const Word<unsigned char> DESTINATION_WORDS[] = {
    {"system", QRT_DESTINATION_SYSTEM_LOG},
    {"private", QRT_DESTINATION_PRIVATE_FILE},
    {"both", QRT_DESTINATION_BOTH},
};

// Looks `word` up in `table`, ASCII case ignored.
template <typename T, size_t N>
int look_up(const Word<T> (&table)[N], const char* word, T* value) {
  if (word == nullptr || value == nullptr) return QRT_ERROR_INVALID_PARAMETER;
  for (const Word<T>& entry : table) {
    if (strcasecmp(entry.word, word) == 0) {
      *value = entry.value;
      return QRT_OK;
    }
  }
  return QRT_ERROR_INVALID_PARAMETER;
}

}  // namespace

extern "C" const char* QrtErrorText(int code) {
  switch (code) {
    case QRT_OK:
      return "success";
    case QRT_ERROR_NO_DAEMON:
      return "the Kestrin daemon is not running";
    case QRT_ERROR_TABLE_FULL:
      return "the registration table is full";
    case QRT_ERROR_QUEUE_FULL:
      return "the daemon's request queue is full";
    case QRT_ERROR_INVALID_HANDLE:
      return "invalid or unregistered handle";
    case QRT_ERROR_INVALID_PARAMETER:
      return "invalid parameter";
    case QRT_ERROR_SEND_FAILED:
      return "the daemon's request queue refused the request";
    case QRT_ERROR_LOCK_FAILED:
      return "cannot lock the registration table";
    case QRT_ERROR_INVALID_STATE:
      return "service call out of order";
    case QRT_ERROR_SYSTEM:
      return "an operating-system call failed";
    case QRT_ERROR_INTERNAL:
      return "internal error in the client library";
    default:
      return "unknown error";
  }
}

extern "C" int QrtDiagSeverityFromWord(const char* word, unsigned short* severity) {
  return look_up(SEVERITY_WORDS, word, severity);
}

extern "C" int QrtDiagEventClassFromWord(const char* word, unsigned long* eventClass) {
  return look_up(EVENT_CLASS_WORDS, word, eventClass);
}

extern "C" int QrtDiagDestinationFromWord(const char* word, unsigned char* destination) {
  return look_up(DESTINATION_WORDS, word, destination);
}

extern "C" int QrtDiagGetKeyFilePath(char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return QRT_ERROR_INVALID_PARAMETER;
  char path[PATH_MAX];
  if (osMapPath(KES_FTOK_TARGET, path, sizeof path) != OS_OK) return QRT_ERROR_INVALID_PARAMETER;
  if (strlen(path) >= size) return QRT_ERROR_INVALID_PARAMETER;
  osLStrCpyn(buffer, path, size);
  return QRT_OK;
}
