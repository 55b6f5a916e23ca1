// libFuzzer harness for the word parsers: LED state words (mapped, and
// driven through UpdateLEDs into the private root's LED device files),
// taxonomy severity words, event-class words, the client library's severity, event-class and
// destination words, Agent access addresses and address blocks, and the
// boolean and size words of the data files.
//
// The input is the word (cut at its first NUL for the parsers that take a C
// string). The boolean and size words are read back through DataFile, the
// only place that parses them, from a one-entry file in the private root
// (skipped when the word holds a line end, which would end the entry). The
// harness aborts when a parser's result contradicts its contract.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string>

#include "FuzzSupport.h"
#include "kestrin/AgentAccess.h"
#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/DataFile.h"
#include "kestrin/Severity.h"
#include "kestrin/TextForms.h"
#include "qrt/QrtDiag.h"

namespace {

using namespace kestrin;

void StateWord(const char* word) {
  LED_Colour colour = RED;
  LED_States state = OFF;
  if (!LED_Controller::mapStateString(word, &colour, &state)) return;
  if (colour != RED && colour != GREEN && colour != YELLOW) abort();
  if (state < OFF || state > WINK) abort();
  (void)LED_Controller::StateByte(colour, state);
}

// The taxonomy's consumer of state words; any word, known or not, is
// reported or written and never ends the process. (Writing the device files
// costs milliseconds, but only the few known words get that far.)
void DriveLEDs(const char* word) {
  if (strlen(word) > 64) return;
  UpdateLEDs(word, word, 7000);
}

void SeverityWords(const std::string& word) {
  DetailedSeverity severity(word);
  if (severity.GetLevel() < 0 || severity.GetLevel() > 9) abort();
  (void)severity.AsQrtSeverityForFilter();
  (void)GetEventClassFromString(word.c_str());
  unsigned short qrtSeverity = 0;
  if (QrtDiagSeverityFromWord(word.c_str(), &qrtSeverity) == QRT_OK) {
    (void)GetSeverityStringForKestrinMessageContents(qrtSeverity);
  }
  unsigned long eventClass = 0;
  if (QrtDiagEventClassFromWord(word.c_str(), &eventClass) == QRT_OK) {
    (void)GetEventClassString(eventClass);
  }
  unsigned char destination = 0;
  if (QrtDiagDestinationFromWord(word.c_str(), &destination) == QRT_OK) {
    (void)LoggingDestinationAsString(destination);
  }
}

void AddressWords(const std::string& word) {
  uint32_t address = 0;
  (void)ParseIPv4Address(word, &address);
  AddressBlock block{};
  (void)ParseAddressBlock(word, &block);
}

void DataFileWords(const std::string& word) {
  if (word.find_first_of("\r\n") != std::string::npos || word.size() > 400) return;
  static const std::string path =
      kestrin_fuzz::FuzzEnvironment::Get().ConfigDirectory() + "word.dat";
  {
    kestrin_fuzz::RemoveFile(path);
    std::ofstream out(path, std::ios::binary);
    out << "[w]\nk=" << word << "\n";
  }
  DataFile file(path.c_str());
  if (!file.NextSection()) abort();
  bool found = false;
  bool valid = false;
  const bool flag = file.GetBool("k", found, valid);
  if (!valid && flag) abort();
  const uint32_t bytes = file.GetSizeInBytes("k", found, valid);
  if (!valid && bytes != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  const std::string devices = kestrin_fuzz::FuzzEnvironment::Get().Root() + "/dev/";
  std::ofstream(devices + "led0");
  std::ofstream(devices + "led1");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string word = bytes.substr(0, bytes.find('\0'));
  StateWord(word.c_str());
  DriveLEDs(word.c_str());
  SeverityWords(word);
  AddressWords(bytes);
  DataFileWords(word);
  return 0;
}
