// Test support: a strict parser for one flat JSON object per line, written
// independently of the library's encoder so that the tests do not check the
// encoder against itself.
//
// Accepts exactly an object whose values are strings, integers, true or
// false, with optional blanks between tokens, as RFC 8259 allows them. It
// rejects raw control characters in strings, unknown escapes, lone
// surrogates, malformed UTF-8 and trailing text. Decoded strings are UTF-8.
#ifndef KESTRIN_FLT_STRICT_JSON_H_
#define KESTRIN_FLT_STRICT_JSON_H_

#include <map>
#include <string>
#include <vector>

namespace flt_test {

struct JsonValue {
  enum Kind { STRING, INTEGER, BOOLEAN } kind = STRING;
  std::string text;      // STRING: decoded UTF-8
  long long number = 0;  // INTEGER
  bool flag = false;     // BOOLEAN
};

struct JsonObject {
  std::vector<std::string> keys;  // in the order of the text
  std::map<std::string, JsonValue> values;
};

class StrictJsonParser {
 public:
  explicit StrictJsonParser(const std::string& text) : s_(text) {}

  // True when the whole text is one valid object; `error` tells why not.
  bool Parse(JsonObject* object, std::string* error) {
    bool ok = ParseObject(object) && (SkipBlanks(), pos_ == s_.size());
    if (!ok && error_.empty()) error_ = "trailing text";
    if (!ok && error != nullptr) *error = error_ + " at offset " + std::to_string(pos_);
    return ok;
  }

 private:
  bool Fail(const char* why) {
    if (error_.empty()) error_ = why;
    return false;
  }
  void SkipBlanks() {
    while (pos_ < s_.size() && (s_[pos_] == ' ' || s_[pos_] == '\t')) ++pos_;
  }
  bool Expect(char c) {
    SkipBlanks();
    if (pos_ >= s_.size() || s_[pos_] != c) return Fail("unexpected character");
    ++pos_;
    return true;
  }
  unsigned char At(size_t i) const { return static_cast<unsigned char>(s_[i]); }

  bool ParseObject(JsonObject* object) {
    if (!Expect('{')) return false;
    SkipBlanks();
    if (pos_ < s_.size() && s_[pos_] == '}') return ++pos_, true;
    for (;;) {
      std::string key;
      JsonValue value;
      SkipBlanks();
      if (!ParseString(&key) || !Expect(':') || !ParseValue(&value)) return false;
      if (object->values.count(key) != 0) return Fail("duplicate key");
      object->keys.push_back(key);
      object->values[key] = value;
      SkipBlanks();
      if (pos_ < s_.size() && s_[pos_] == ',') {
        ++pos_;
        continue;
      }
      return Expect('}');
    }
  }

  bool ParseValue(JsonValue* value) {
    SkipBlanks();
    if (pos_ >= s_.size()) return Fail("value missing");
    if (s_[pos_] == '"') {
      value->kind = JsonValue::STRING;
      return ParseString(&value->text);
    }
    if (s_.compare(pos_, 4, "true") == 0) {
      value->kind = JsonValue::BOOLEAN;
      value->flag = true;
      pos_ += 4;
      return true;
    }
    if (s_.compare(pos_, 5, "false") == 0) {
      value->kind = JsonValue::BOOLEAN;
      pos_ += 5;
      return true;
    }
    return ParseInteger(value);
  }

  bool ParseInteger(JsonValue* value) {
    size_t start = pos_;
    if (s_[pos_] == '-') ++pos_;
    if (pos_ >= s_.size() || s_[pos_] < '0' || s_[pos_] > '9') return Fail("bad number");
    if (s_[pos_] == '0' && pos_ + 1 < s_.size() && s_[pos_ + 1] >= '0' && s_[pos_ + 1] <= '9') {
      return Fail("leading zero");
    }
    while (pos_ < s_.size() && s_[pos_] >= '0' && s_[pos_] <= '9') ++pos_;
    value->kind = JsonValue::INTEGER;
    value->number = std::stoll(s_.substr(start, pos_ - start));
    return true;
  }

  static void AppendUtf8(std::string* out, unsigned long cp) {
    if (cp < 0x80) {
      *out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      *out += static_cast<char>(0xC0 | (cp >> 6));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      *out += static_cast<char>(0xE0 | (cp >> 12));
      *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (cp >> 18));
      *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  bool ParseHex4(unsigned long* cp) {
    if (pos_ + 4 > s_.size()) return Fail("short \\u escape");
    *cp = 0;
    for (int i = 0; i < 4; ++i) {
      char c = s_[pos_++];
      int digit = (c >= '0' && c <= '9')   ? c - '0'
                  : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                  : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                           : -1;
      if (digit < 0) return Fail("bad hex digit");
      *cp = *cp * 16 + static_cast<unsigned long>(digit);
    }
    return true;
  }

  bool ParseUnicodeEscape(std::string* out) {
    unsigned long cp;
    if (!ParseHex4(&cp)) return false;
    if (cp >= 0xDC00 && cp <= 0xDFFF) return Fail("lone low surrogate");
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      unsigned long low;
      if (s_.compare(pos_, 2, "\\u") != 0) return Fail("lone high surrogate");
      pos_ += 2;
      if (!ParseHex4(&low) || low < 0xDC00 || low > 0xDFFF) return Fail("bad surrogate pair");
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    }
    AppendUtf8(out, cp);
    return true;
  }

  bool ParseEscape(std::string* out) {
    if (pos_ >= s_.size()) return Fail("cut escape");
    char c = s_[pos_++];
    switch (c) {
      case '"':
        *out += '"';
        return true;
      case '\\':
        *out += '\\';
        return true;
      case '/':
        *out += '/';
        return true;
      case 'b':
        *out += '\b';
        return true;
      case 'f':
        *out += '\f';
        return true;
      case 'n':
        *out += '\n';
        return true;
      case 'r':
        *out += '\r';
        return true;
      case 't':
        *out += '\t';
        return true;
      case 'u':
        return ParseUnicodeEscape(out);
      default:
        return Fail("unknown escape");
    }
  }

  // Copies one raw UTF-8 character of two to four bytes, checking it.
  bool CopyUtf8(std::string* out) {
    unsigned char lead = At(pos_);
    int size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (size == 0 || lead > 0xF4 || pos_ + size > s_.size()) return Fail("bad UTF-8 lead");
    unsigned long cp = lead & (0x7F >> size);
    for (int i = 1; i < size; ++i) {
      unsigned char next = At(pos_ + i);
      if ((next & 0xC0) != 0x80) return Fail("bad UTF-8 continuation");
      cp = (cp << 6) | (next & 0x3F);
    }
    static const unsigned long kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[size]) return Fail("over-long UTF-8");
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return Fail("UTF-8 out of range");
    out->append(s_, pos_, size);
    pos_ += size;
    return true;
  }

  bool ParseString(std::string* out) {
    if (pos_ >= s_.size() || s_[pos_] != '"') return Fail("string expected");
    ++pos_;
    while (pos_ < s_.size()) {
      unsigned char c = At(pos_);
      if (c == '"') return ++pos_, true;
      if (c < 0x20) return Fail("raw control character");
      if (c == '\\') {
        ++pos_;
        if (!ParseEscape(out)) return false;
      } else if (c >= 0x80) {
        if (!CopyUtf8(out)) return false;
      } else {
        *out += static_cast<char>(c);
        ++pos_;
      }
    }
    return Fail("unterminated string");
  }

  const std::string s_;
  size_t pos_ = 0;
  std::string error_;
};

}  // namespace flt_test

#endif  // KESTRIN_FLT_STRICT_JSON_H_
