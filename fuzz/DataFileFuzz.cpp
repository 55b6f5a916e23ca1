// libFuzzer harness for the data files: DataFile itself, and the two readers
// built on it, Kestrin.conf (read_private_config_file) and the alarm
// taxonomy (load_configuration_file).
//
// The input's first byte chooses the reader (its value modulo 3: the bare
// section walk with every getter, the configuration, the taxonomy); the rest
// is the file, written into the private root's configuration directory. The
// configuration's start-up read, the only one that may end the process over
// a bad role, is made once at start-up on an empty file, as a daemon makes
// it; every input is then a re-read. The state the readers change (the
// table of log files, the refused names, the pacing, the Agent access list,
// the alarm map) is put back before each input, so that inputs do not see
// each other.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <fstream>
#include <string>

#include "FuzzSupport.h"
#include "kestrin/AgentAccess.h"
#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/Configuration.h"
#include "kestrin/DataFile.h"
#include "kestrin/Globals.h"
#include "kestrin/LogFileNames.h"

namespace {

using namespace kestrin;

std::string& ConfigPath() {
  static std::string path = kestrin_fuzz::FuzzEnvironment::Get().ConfigDirectory() + "Kestrin.conf";
  return path;
}
std::string& TaxonomyPath() {
  static std::string path =
      kestrin_fuzz::FuzzEnvironment::Get().ConfigDirectory() + "KestrinTaxonomy";
  return path;
}
std::string& PlainPath() {
  static std::string path = kestrin_fuzz::FuzzEnvironment::Get().ConfigDirectory() + "plain.dat";
  return path;
}

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  kestrin_fuzz::RemoveFile(path);
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!out) abort();
}

void ResetReaderState() {
  logFileMap.clear();
  ResetLogFileNamesForTesting();
  SetAgentAccess(AgentAccess());
  KestrinsRoleType = ROLE_SOLO;
  MESSAGES_BEFORE_SLEEP = 80;
  SLEEP_TIME = 10;
  MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
  AlarmMap.clear();
}

// Every section, every getter, for the keys the daemon asks for and a few
// others; the getters' documented invariants are checked.
void WalkPlain() {
  static const char* const KEYS[] = {"",         "Role",       "MaxFileSize", "BackupCount",
                                     "Severity", "ZipBackups", "key",         "LED1"};
  DataFile file(PlainPath().c_str());
  int sections = 0;
  while (file.NextSection() && ++sections < 10000) {
    for (const char* key : KEYS) {
      bool found = false;
      bool valid = false;
      (void)file.GetString(key);
      (void)file.GetTrimmedString(key);
      (void)file.GetInt(key);
      const int number = file.GetInt(key, found);
      if (!found && number != 0) abort();
      const bool flag = file.GetBool(key, found, valid);
      if (!valid && flag) abort();
      const uint32_t bytes = file.GetSizeInBytes(key, found, valid);
      if (!valid && bytes != 0) abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kestrin_fuzz::FuzzEnvironment::Get();
  PathnameOfConfigFile = ConfigPath();
  UsingDefaultPathnameOfConfigFile = false;
  PathnameOfTaxonomyFile = TaxonomyPath();
  WriteFile(ConfigPath(), nullptr, 0);
  read_private_config_file();
  ResetReaderState();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  ResetReaderState();
  switch (data[0] % 3) {
    case 0:
      WriteFile(PlainPath(), data + 1, size - 1);
      WalkPlain();
      break;
    case 1:
      WriteFile(ConfigPath(), data + 1, size - 1);
      read_private_config_file();
      break;
    default:
      WriteFile(TaxonomyPath(), data + 1, size - 1);
      load_configuration_file();
      break;
  }
  ResetReaderState();
  return 0;
}
