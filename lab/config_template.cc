// Fills configuration templates in. Everything comes from the scenario and from the network's numbering; nothing is
// read from the machine. The library expands, and this file adds what it lacks: a name that has no value is refused,
// since the library would leave a hole in a PE's configuration and say nothing.
#include "lab/config_template.h"

#include <ctemplate/template.h>

#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

namespace lab {
namespace {

using nlohmann::json;

void fill_dictionary(const json &values, std::set<std::string> *names, ctemplate::TemplateDictionary *dictionary) {
  for (const auto &[name, value] : values.items()) {
    names->insert(name);
    if (!value.is_array()) {
      dictionary->SetValue(name, value.is_string() ? value.get<std::string>() : value.dump());
      continue;
    }
    for (const json &item : value) fill_dictionary(item, names, dictionary->AddSectionDictionary(name));
  }
}

// The library puts nothing in the place of a name that it does not know: a slip in a template must not go unnoticed.
void refuse_unknown_names(const std::string &text, const std::set<std::string> &names, const std::string &file) {
  static const std::regex name(R"(\{\{[#/]?([A-Z_]+)\}\})");
  for (std::sregex_iterator item(text.begin(), text.end(), name), end; item != end; ++item)
    if (!names.contains((*item)[1].str())) throw std::runtime_error(file + ": " + item->str() + " has no value");
}

// Names of items of lists that are empty here.
// A list without items brings no names along, so the names of items are told here; a new name of an item in
// lab/stage.cc belongs here too.
const std::set<std::string> kItems{"PE",   "VRF",       "NUMBER", "ADDRESS", "NETNS",  "TABLE",    "GROUP",
                                   "DATA", "THRESHOLD", "LINE",   "SITE",    "TUNNEL", "INTERFACE"};

}  // namespace

std::string fill_template(const std::string &file, const json &values) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  if (!in) throw std::runtime_error(file + ": cannot be read");
  ctemplate::TemplateDictionary dictionary(file);
  std::set<std::string> names = kItems;
  fill_dictionary(values, &names, &dictionary);
  refuse_unknown_names(text.str(), names, file);
  const std::unique_ptr<ctemplate::Template> compiled(
      ctemplate::Template::StringToTemplate(text.str(), ctemplate::STRIP_BLANK_LINES));
  std::string result;
  if (!compiled || !compiled->Expand(&result, &dictionary)) throw std::runtime_error(file + ": the template is wrong");
  return result;
}

}  // namespace lab
