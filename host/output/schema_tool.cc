// Prints the output schema in one of four forms: md, xsd, json, yang. The committed documents are what it prints.
#include <cstring>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <pugixml.hpp>
#include <string>

#include "host/output/header.h"
#include "host/output/schema.h"

namespace {

using namespace output;
using Json = nlohmann::ordered_json;

#define OCTET "(25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])"
#define ADDRESS "(" OCTET R"(\.){3})" OCTET
#define DATE "[0-9]{4}-(0[1-9]|1[0-2])-(0[1-9]|[12][0-9]|3[01])"
#define TIME "([01][0-9]|2[0-3]):[0-5][0-9]:([0-5][0-9]|60)"
// What the values of a type look like, in the syntax that both schema languages have; null: anything.
const char *pattern_of(TypeId type) {
  switch (type) {
    case CLI_TYPE_ADDRESS:
      return ADDRESS;
    case CLI_TYPE_SOURCE:
      return ADDRESS R"(|\*)";
    case kTime:
      return DATE "T" TIME R"((\.[0-9]+)?Z)";
    default:
      return nullptr;
  }
}
#undef TIME
#undef DATE
#undef ADDRESS
#undef OCTET

// Those that every instance has come first, as they do in documents.
template <typename Visit>
void for_elements(RecordId record, Visit visit) {
  for (const bool always : {true, false})
    for (const SchemaElement &element : all_elements())
      if (element.record == record && element.always == always) visit(element);
}

template <typename Visit>
void for_children(RecordId record, Visit visit) {
  for (const SchemaRecord &child : all_records())
    if (child.parent == record) visit(child);
}

// ------------------------------------------------------------------------------------------------------ JSON schema

Json json_type(TypeId type) {
  switch (type) {
    case CLI_TYPE_NUMBER:
      return {{"type", "integer"}};
    case CLI_TYPE_BOOLEAN:
      return {{"type", "boolean"}};
    case CLI_TYPE_DURATION:
    case kFactor:
      return {{"type", "number"}, {"minimum", 0}};
    default:
      break;
  }
  Json schema = {{"type", "string"}};
  if (const char *pattern = pattern_of(type)) schema["pattern"] = std::string("^(") + pattern + ")$";
  return schema;
}

Json json_record(const SchemaRecord &record) {
  Json schema = {{"description", record.description}, {"type", "object"}, {"properties", Json::object()}};
  Json &properties = schema["properties"];
  Json required = Json::array();
  for_elements(record.id, [&](const SchemaElement &element) {
    properties[element.name] = {{"$ref", std::string("#/$defs/") + type_of(element.type).name},
                                {"description", element.description}};
    if (element.always) required.push_back(element.name);
  });
  for_children(record.id, [&](const SchemaRecord &child) {
    properties[child.name] = {{"type", "array"}, {"items", {{"$ref", std::string("#/$defs/") + child.name}}}};
  });
  if (!required.empty()) schema["required"] = required;
  schema["additionalProperties"] = false;
  return schema;
}

void print_json() {
  Json schema = {{"$schema", "https://json-schema.org/draft/2020-12/schema"},
                 {"title", record_of(CLI_RECORD_DOCUMENT).name}};
  schema.update(json_record(record_of(CLI_RECORD_DOCUMENT)));
  Json &definitions = schema["$defs"] = Json::object();
  for (size_t i = 0; i < all_types().size(); i++) {
    Json &type = definitions[all_types()[i].name] = json_type(static_cast<TypeId>(i));
    type["description"] = all_types()[i].description;
  }
  for (const SchemaRecord &record : all_records())
    if (record.parent != CLI_RECORD_NONE) definitions[record.name] = json_record(record);
  std::cout << schema.dump(2) << '\n';
}

// -------------------------------------------------------------------------------------------------------------- XSD

void annotate(pugi::xml_node node, const char *text) {
  node.append_child("xs:annotation").append_child("xs:documentation").text().set(text);
}

const char *xsd_base(TypeId type) {
  switch (type) {
    case CLI_TYPE_NUMBER:
      return "xs:integer";
    case CLI_TYPE_BOOLEAN:
      return "xs:boolean";
    case CLI_TYPE_DURATION:
    case kFactor:
      return "xs:double";
    default:
      return "xs:string";
  }
}

void restrict_type(pugi::xml_node restriction, TypeId type) {
  const auto facet = [&restriction](const char *name, const char *value) {
    restriction.append_child(name).append_attribute("value") = value;
  };
  if (const char *pattern = pattern_of(type)) facet("xs:pattern", pattern);
  if (type == CLI_TYPE_DURATION || type == kFactor) facet("xs:minInclusive", "0");
}

pugi::xml_node append_member(pugi::xml_node group, const char *name, const char *type) {
  pugi::xml_node node = group.append_child("xs:element");
  node.append_attribute("name") = name;
  node.append_attribute("type") = type;
  return node;
}

// What every instance has comes first. The other fields of records without children are in order; elsewhere fields and
// children mix, since a command may record a field behind a list.
void append_record_type(pugi::xml_node schema, const SchemaRecord &record) {
  pugi::xml_node type = schema.append_child("xs:complexType");
  type.append_attribute("name") = record.name;
  annotate(type, record.description);
  const bool mixed = has_children(record.id);
  pugi::xml_node sequence = type.append_child("xs:sequence"), group = sequence;
  if (mixed) {
    group = sequence.append_child("xs:choice");
    group.append_attribute("minOccurs") = "0";
    group.append_attribute("maxOccurs") = "unbounded";
  }
  for_elements(record.id, [&](const SchemaElement &element) {
    pugi::xml_node node =
        mixed && element.always ? sequence.insert_child_before("xs:element", group) : group.append_child("xs:element");
    node.append_attribute("name") = element.name;
    node.append_attribute("type") = type_of(element.type).name;
    if (!mixed && !element.always) node.append_attribute("minOccurs") = "0";
    annotate(node, element.description);
  });
  for_children(record.id, [&](const SchemaRecord &child) { append_member(group, child.name, child.name); });
}

void print_xsd() {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node schema = document.append_child("xs:schema");
  schema.append_attribute("xmlns:xs") = "http://www.w3.org/2001/XMLSchema";
  const char *root = record_of(CLI_RECORD_DOCUMENT).name;
  append_member(schema, root, root);
  for (size_t i = 0; i < all_types().size(); i++) {
    const auto id = static_cast<TypeId>(i);
    pugi::xml_node type = schema.append_child("xs:simpleType");
    type.append_attribute("name") = type_of(id).name;
    annotate(type, type_of(id).description);
    pugi::xml_node restriction = type.append_child("xs:restriction");
    restriction.append_attribute("base") = xsd_base(id);
    restrict_type(restriction, id);
  }
  for (const SchemaRecord &record : all_records()) append_record_type(schema, record);
  document.save(std::cout, "  ");
}

// ------------------------------------------------------------------------------------------------------------- YANG

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

const char *yang_type(TypeId type) {
  switch (type) {
    case CLI_TYPE_NUMBER:
      return "type int64;";
    case CLI_TYPE_BOOLEAN:
      return "type boolean;";
    case CLI_TYPE_DURATION:
      return "type duration;";
    case CLI_TYPE_ADDRESS:
      return "type inet:ipv4-address-no-zone;";
    case CLI_TYPE_SOURCE:
      return "type source;";
    case kFactor:
      return "type factor;";
    case kTime:
      return "type yang:date-and-time;";
    default:
      return "type string;";
  }
}

constexpr const char *kYangBegin = R"(
  import ietf-inet-types {
    prefix inet;
  }
  import ietf-yang-types {
    prefix yang;
  }

  organization "libmvpn";
  description
    "The state that the views of pimhostd and mdt-reflector show: what a view prints behind `| yang` is data of this
     module. Printed by schema_tool; docs/output-schema.md says what the records and their fields are.";
)";

constexpr const char *kYangTypes = R"(
  typedef duration {
    type decimal64 {
      fraction-digits 6;
      range "0..max";
    }
    units "seconds";
  }
  typedef factor {
    type decimal64 {
      fraction-digits 6;
      range "0..max";
    }
  }
  typedef source {
    type union {
      type inet:ipv4-address-no-zone;
      type enumeration {
        enum "*" {
          description "Any source.";
        }
      }
    }
  }

)";

void print_yang_leaf(const SchemaElement &element, const std::string &indent) {
  std::cout << indent << "leaf " << element.name << " {\n" << indent << "  " << yang_type(element.type) << '\n';
  if (element.always) std::cout << indent << "  mandatory true;\n";
  std::cout << indent << "  description\n"
            << indent << "    " << quoted(element.description) << ";\n"
            << indent << "}\n";
}

// Lists of state have no keys: an entry may stand there twice.
void print_yang_record(const SchemaRecord &record, const std::string &indent) {
  const bool root = record.parent == CLI_RECORD_NONE;
  std::cout << indent << (root ? "container " : "list ") << record.name << " {\n";
  if (root) std::cout << indent << "  presence \"A view was shown.\";\n" << indent << "  config false;\n";
  std::cout << indent << "  description\n" << indent << "    " << quoted(record.description) << ";\n";
  for_elements(record.id, [&](const SchemaElement &element) { print_yang_leaf(element, indent + "  "); });
  for_children(record.id, [&](const SchemaRecord &child) { print_yang_record(child, indent + "  "); });
  std::cout << indent << "}\n";
}

void print_yang() {
  std::cout << "module " << kStateModule << " {\n  yang-version 1.1;\n  namespace \"urn:libmvpn:state\";\n"
            << "  prefix mvpn-s;\n"
            << kYangBegin << "\n  revision " << kSchemaDate << " {\n    description \"Schema version " << kSchemaVersion
            << ".\";\n  }\n"
            << kYangTypes;
  print_yang_record(record_of(CLI_RECORD_DOCUMENT), "  ");
  std::cout << "}\n";
}

// --------------------------------------------------------------------------------------------------------- Markdown

constexpr const char *introduction = R"(# Output schema

`| json`, `| xml` and `| yang` behind a show command give what the command shows as a document; `pimctl --json` and `--xml` answer
every command with one. This page, the XML schema [`schema/mvpn-output.xsd`](schema/mvpn-output.xsd), the JSON schema
[`schema/mvpn-output.schema.json`](schema/mvpn-output.schema.json) and the YANG module
[`libmvpn-state`](../yang/libmvpn-state.yang) are printed by `schema_tool` (`md`, `xsd`, `json`, `yang`) from the lists in
`platform/cli_schema.h`, which modules record under, and the columns of the host's own views in `host/output/view.h`. The
writers use both, too.

A document is a tree of records. In XML a record is an element with its fields and its child records inside. In JSON it
is an object; the child records of one kind are an array under the kind's name. The root is a JSON object, an XML
element `mvpn-output`.

- **Header.** Every document begins with `schema-version`, `hostname` and `time`, each line of `monitor json` included.
  OpenMetrics text (`show metrics`) is no document.
- **Empty lists.** A list that the view shows is there, `[]` when it is empty. One that the view does not show is left
  out, as is a field that it does not show or that has no value. In XML an empty list is no element.
- **Names.** A thing has one name, whichever view shows it: a VRF, an MDT SAFI entry or a BGP neighbour is one kind of
  record, of which a view shows some fields. `mdt-source` and `mdt-group` are a provider's source and group,
  `customer-source` and `customer-group` a customer's; `vrf` names the VRF that something belongs to. A name ends with its
  unit (`-seconds`, `-kbps`, `-bytes`) unless that goes without saying: an MTU is in bytes, what is counted has none.
- **Errors.** A command that fails gives a document with `error`, whose `reason` also goes to standard error as text, with
  a line and a mark in front when the line was not understood. `pimctl` writes the document itself when `pimhostd` cannot:
  its hostname is then the machine's. A command that shows nothing and is done gives the header, and what it says as
  `note`.
- **Interrupted listings.** Documents are written while the command runs. When the operator stops a listing by Ctrl-C, or
  it becomes longer than the daemon keeps for a client, the document is closed where it is: it stays valid and says
  `interrupted`. A list that had not begun by then is left out. A document whose connection broke ends anywhere, and so
  does one that the operator of a terminal left at a page; `pimctl` exits with another status than 0 for the first.

## YANG

Two YANG modules (RFC 7950) describe configuration and state; `mvpn` installs them in `/usr/share/yang/modules/mvpn`.

- [`libmvpn-configuration`](../yang/libmvpn-configuration.yang) is the configuration: `show running-config | yang` prints it
  as data of that module, with passwords only when they are asked for by `passwords`.
- [`libmvpn-state`](../yang/libmvpn-state.yang) is what the other views show: `| yang` behind one of them gives its document
  as data of that module, a container `mvpn-output` without configuration.

Both print JSON as RFC 7951 has it, in which numbers of 64 bits and decimal ones are strings. A validator takes them as they
are:

```
pimctl 'show running-config | yang' > config.json
yanglint -t config -p /usr/share/yang/modules/mvpn /usr/share/yang/modules/mvpn/libmvpn-configuration.yang config.json
pimctl 'show mvpn mdt | yang' > state.json
yanglint -t data -p /usr/share/yang/modules/mvpn /usr/share/yang/modules/mvpn/libmvpn-state.yang state.json
```

## Versions

`schema-version` is MAJOR.MINOR. MAJOR rises, and MINOR becomes 0, with a change that a reader of the former version does
not survive: a name, a type, a unit or a meaning changes, or something goes. MINOR rises when something is added; readers
pass over what they do not know. It stands in `host/output/header.h`, with the date that is the YANG module's revision, and
rises at most once between two releases. A change of what `libmvpn-configuration` says gets another revision there.

Numbers of elements below 3000 are part of the interface between module and host; the host's own follow. An element keeps
its number; a number is not used twice.

)";

void print_types() {
  std::cout << "## Types\n\n| type | value | JSON | XML |\n|---|---|---|---|\n";
  for (size_t i = 0; i < all_types().size(); i++) {
    const auto id = static_cast<TypeId>(i);
    std::cout << "| " << type_of(id).name << " | " << type_of(id).description << " | "
              << json_type(id)["type"].get<std::string>() << " | " << xsd_base(id) << " |\n";
  }
}

// "mvpn-output / vrf / mdt-route".
std::string path_of(const SchemaRecord &record) {
  if (record.parent == CLI_RECORD_NONE) return record.name;
  return path_of(record_of(record.parent)) + " / " + record.name;
}

void print_record(const SchemaRecord &record) {
  std::cout << "\n### " << record.name << "\n\n`" << path_of(record) << "`. " << record.description << '\n';
  std::cout << "\n| field | number | type | |\n|---|---|---|---|\n";
  for_elements(record.id, [](const SchemaElement &element) {
    std::cout << "| `" << element.name << "` | " << element.number << " | " << type_of(element.type).name << " | "
              << element.description << " |\n";
  });
}

void print_markdown() {
  std::cout << introduction;
  print_types();
  std::cout << "\n## Records\n";
  for (const SchemaRecord &record : all_records()) print_record(record);
}

}  // namespace

int main(int argc, char **argv) try {
  const char *form = argc == 2 ? argv[1] : "";
  if (std::strcmp(form, "md") == 0)
    print_markdown();
  else if (std::strcmp(form, "xsd") == 0)
    print_xsd();
  else if (std::strcmp(form, "json") == 0)
    print_json();
  else if (std::strcmp(form, "yang") == 0)
    print_yang();
  else {
    std::cerr << "usage: schema_tool md|xsd|json|yang\n";
    return 2;
  }
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception &error) {
  std::cerr << "schema_tool: " << error.what() << '\n';
  return 1;
}
