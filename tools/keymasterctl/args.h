// What the command line says.
#ifndef KEYMASTERCTL_ARGS_H
#define KEYMASTERCTL_ARGS_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/keymasterctl/params.h"

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

#endif  // KEYMASTERCTL_ARGS_H
