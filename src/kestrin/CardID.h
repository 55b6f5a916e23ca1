// Card identifiers and their printed forms.
//
// Card numbering is fixed in this system: the daemon's own card is always 0,
// and every card ID names chassis 0 ("B"), slot 0.
#ifndef KESTRIN_KESTRIN_CARD_ID_H_
#define KESTRIN_KESTRIN_CARD_ID_H_

#include <stddef.h>
#include <stdint.h>

#include <iosfwd>

namespace kestrin {

// A 32-bit card identifier that prints as an unsigned decimal number.
class CardID {
 public:
  // Keeps the low 32 bits of `id`.
  explicit CardID(unsigned long id) : id_(static_cast<uint32_t>(id)) {}

  uint32_t GetValue() const { return id_; }

  // The ID of the card the daemon runs on: always 0.
  static unsigned long GetIDOfThisCard() { return 0; }

 private:
  uint32_t id_;
};

std::ostream& operator<<(std::ostream& out, const CardID& cardId);

// The short ("B.0") and long ("Chassis=B/SCSlot=0") identifier of a card.
// The text is formatted into a function-local buffer only when the card ID
// differs from the one formatted last. With `buf` null the result points at
// that buffer (valid until a call for another card ID); otherwise the text is
// copied into `buf`, cut to `size` - 1 characters and terminated (nothing is
// written when `size` is 0), and `buf` is returned.
// Not thread-safe: call from the main thread only.
const char* GetShortCardIDString(unsigned long cardId, char* buf = nullptr, size_t size = 0);
const char* GetLongCardIDString(unsigned long cardId, char* buf = nullptr, size_t size = 0);

// The name of chassis `chassis` into `buf` of `size` bytes: "B" for chassis 0,
// otherwise "E" and the number ("E%u"); cut to fit. Returns `buf`. A helper of
// the two functions above, declared here so that it can be tested.
char* GetChassisNumberString(unsigned int chassis, char* buf, size_t size);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_CARD_ID_H_
