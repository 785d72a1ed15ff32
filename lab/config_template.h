// Configuration files made from templates: {{NAME}} stands for a value, {{#LIST}} … {{/LIST}} for a part that is
// repeated for each item of a list, with the item's own values and those around it.
#ifndef LAB_CONFIG_TEMPLATE_H
#define LAB_CONFIG_TEMPLATE_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace lab {

// Fills a template in. Values are the strings and numbers of an object, lists its arrays of objects; an array may be
// empty. Throws std::runtime_error that names the template and a name in it that has no value.
std::string fill_template(const std::string &file, const nlohmann::json &values);

}  // namespace lab

#endif  // LAB_CONFIG_TEMPLATE_H
