#include "kestrin/CardID.h"

#include <stdio.h>

#include <ostream>

#include "osa/osa.h"

namespace kestrin {

namespace {

constexpr size_t SHORT_CARD_ID_SIZE = 50;
constexpr size_t LONG_CARD_ID_SIZE = 100;
constexpr size_t CHASSIS_NAME_SIZE = 16;

// Every card of this system sits in chassis 0, slot 0.
unsigned int ChassisOfCard(unsigned long /*cardId*/) { return 0; }
unsigned int SlotOfCard(unsigned long /*cardId*/) { return 0; }

void FormatShortCardID(unsigned long cardId, char* out, size_t size) {
  char chassis[CHASSIS_NAME_SIZE];
  GetChassisNumberString(ChassisOfCard(cardId), chassis, sizeof chassis);
  snprintf(out, size, "%s.%u", chassis, SlotOfCard(cardId));
}

void FormatLongCardID(unsigned long cardId, char* out, size_t size) {
  char chassis[CHASSIS_NAME_SIZE];
  GetChassisNumberString(ChassisOfCard(cardId), chassis, sizeof chassis);
  snprintf(out, size, "Chassis=%s/SCSlot=%u", chassis, SlotOfCard(cardId));
}

const char* CopyOut(const char* text, char* buf, size_t size) {
  if (buf == nullptr) return text;
  return osLStrCpyn(buf, text, size);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const CardID& cardId) {
  return out << static_cast<unsigned long>(cardId.GetValue());
}

const char* GetShortCardIDString(unsigned long cardId, char* buf, size_t size) {
  static char text[SHORT_CARD_ID_SIZE];
  static bool formatted = false;
  static unsigned long formatted_id = 0;
  if (!formatted || cardId != formatted_id) {
    FormatShortCardID(cardId, text, sizeof text);
    formatted_id = cardId;
    formatted = true;
  }
  return CopyOut(text, buf, size);
}

const char* GetLongCardIDString(unsigned long cardId, char* buf, size_t size) {
  static char text[LONG_CARD_ID_SIZE];
  static bool formatted = false;
  static unsigned long formatted_id = 0;
  if (!formatted || cardId != formatted_id) {
    FormatLongCardID(cardId, text, sizeof text);
    formatted_id = cardId;
    formatted = true;
  }
  return CopyOut(text, buf, size);
}

char* GetChassisNumberString(unsigned int chassis, char* buf, size_t size) {
  if (buf == nullptr || size == 0) return buf;
  if (chassis == 0) return osLStrCpyn(buf, "B", size);
  snprintf(buf, size, "E%u", chassis);
  return buf;
}

}  // namespace kestrin
