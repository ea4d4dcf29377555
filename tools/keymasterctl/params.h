// Key parameters: an owning list to hand to the library, and queries on what it returns.
#ifndef KEYMASTERCTL_PARAMS_H
#define KEYMASTERCTL_PARAMS_H

#include <hardware/keymaster_defs.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "files.h"

// ParamList owns key parameters and the bytes of the byte-valued ones.
class ParamList {
 public:
  ParamList() = default;
  ParamList(const ParamList&) = delete;
  ParamList& operator=(const ParamList&) = delete;
  ~ParamList();

  // Adds a parameter of any number-valued type; the tag says which width counts.
  void Add(keymaster_tag_t tag, uint64_t value);
  void AddFlag(keymaster_tag_t tag) { Add(tag, 1); }
  void Add(keymaster_tag_t tag, const Bytes& bytes);
  // Adds what "name=value" says. A flag may stand without "=yes", and with "=no" adds nothing.
  // Throws a Failure for text that says nothing.
  void AddText(const std::string& text);

  bool Contains(keymaster_tag_t tag) const;
  // The set as the library takes it; valid until the list changes.
  const keymaster_key_param_set_t* set();

 private:
  std::vector<keymaster_key_param_t> params_;
  std::deque<Bytes> bytes_;
  keymaster_key_param_set_t set_ = {};
};

// NumberOf returns the value of a parameter that is not byte-valued.
uint64_t NumberOf(const keymaster_key_param_t& param);
// ValuesOf returns the values of every entry with that tag.
std::vector<uint32_t> ValuesOf(const keymaster_key_param_set_t& set, keymaster_tag_t tag);

// ParseNumber reads digits, or hexadecimal behind "0x"; nothing for any other text, and for a
// number that does not fit. Leading zeros mean nothing.
std::optional<uint64_t> ParseNumber(const std::string& text);
// ParseBytes reads an option that stands for bytes: hexadecimal behind "0x", the content of a
// file behind "@", else the text itself.
Bytes ParseBytes(const std::string& text);
// ParseHex returns the bytes of hexadecimal text, nothing for any other text.
std::optional<Bytes> ParseHex(const std::string& text);
std::string ToHex(const Bytes& bytes);

// ParseDate reads YYYY-MM-DD[Thh:mm:ss] (UTC) or plain seconds since 1970; returns milliseconds
// since 1970. Throws a Failure.
uint64_t ParseDate(const std::string& text);
// DateText is the inverse, with seconds.
std::string DateText(uint64_t milliseconds);

#endif  // KEYMASTERCTL_PARAMS_H
