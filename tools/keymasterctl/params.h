// Key parameters, an owning list to hand to the library and queries on what it returns; and the
// values of options, which are turned into them.
#ifndef KEYMASTERCTL_PARAMS_H
#define KEYMASTERCTL_PARAMS_H

#include <hardware/keymaster_defs.h>

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/keymasterctl/files.h"

// ParamList owns key parameters and the bytes of the byte-valued ones.
class ParamList : NotCopied {
 public:
  // Adds a parameter of any number-valued type; the tag says which width counts.
  void Add(keymaster_tag_t tag, uint64_t value);
  void Add(keymaster_tag_t tag, const Bytes& bytes);
  // Adds what a text says: a value's name, a number, a date, bytes, "yes"; "no" adds nothing.
  // Throws a Failure for text that says nothing.
  void AddText(keymaster_tag_t tag, const std::string& text);
  // Adds what "name=value" says. A flag may stand without "=yes".
  void AddNamed(const std::string& text);
  // Adds these values unless the list has one of that tag.
  void Default(keymaster_tag_t tag, const std::vector<std::string>& texts);
  // Removes every parameter of that tag and returns their values.
  std::vector<uint32_t> Take(keymaster_tag_t tag);

  // Brings the parameters into the order of these tags, others behind them.
  void Sort(const std::vector<keymaster_tag_t>& order);

  bool Contains(keymaster_tag_t tag) const;
  bool Contains(keymaster_tag_t tag, uint32_t value) const;
  std::vector<uint32_t> Values(keymaster_tag_t tag) const;
  // The bytes of a parameter; null where there is none.
  const keymaster_blob_t* BytesOf(keymaster_tag_t tag) const;
  // The set as the library takes it; valid until the list changes.
  const keymaster_key_param_set_t* set();

 private:
  std::vector<keymaster_key_param_t> params_;
  std::deque<Bytes> bytes_;
  keymaster_key_param_set_t set_ = {};
};

// NumberOf returns the value of a parameter that is not byte-valued.
uint64_t NumberOf(const keymaster_key_param_t& param);

// ParseNumber reads digits, or hexadecimal behind "0x"; nothing for any other text, and for a
// number that does not fit. Leading zeros mean nothing.
std::optional<uint64_t> ParseNumber(const std::string& text);
// ParseBytes reads an option that stands for bytes: hexadecimal behind "0x", the content of a
// file behind "@", else the text itself.
Bytes ParseBytes(const std::string& text);
// ParseHex returns the bytes of hexadecimal text, nothing for any other text.
std::optional<Bytes> ParseHex(const std::string& text);
std::string ToHex(const Bytes& bytes);

// DateText writes milliseconds since 1970 as YYYY-MM-DDThh:mm:ssZ.
std::string DateText(uint64_t milliseconds);

// Args are the values of a command's options, by an option's last name without its dashes. The
// parser has checked them.
class Args {
 public:
  std::vector<std::string>* Place(const std::string& name) { return &values_[name]; }

  bool Has(const std::string& name) const { return !Texts(name).empty(); }
  // Returns every value of an option; none where it was not given.
  std::vector<std::string> Texts(const std::string& name) const;
  std::string Text(const std::string& name, const std::string& otherwise = "") const;
  std::optional<uint64_t> Number(const std::string& name) const;
  // Returns the number of a value that the option names as that tag does.
  std::optional<uint32_t> Value(const std::string& name, keymaster_tag_t tag) const;
  // Adds what the application id and data are; a key needs what it was made with.
  void AddBindingTo(ParamList* params) const;

 private:
  std::map<std::string, std::vector<std::string>> values_;
};

#endif  // KEYMASTERCTL_PARAMS_H
