// The output schema of cli_schema.h as tables.
#ifndef HOST_OUTPUT_SCHEMA_H
#define HOST_OUTPUT_SCHEMA_H

#include <span>

#include "cli_schema.h"

namespace output {

struct SchemaType {
  const char *name;
  const char *description;
};

struct SchemaRecord {
  cli_record id;
  const char *name;
  cli_record parent;  // CLI_RECORD_NONE: the root
  const char *description;
};

struct SchemaElement {
  int number;
  const char *name;
  cli_type type;
  cli_record record;
  bool begins;  // a value opens a new instance of the record
  const char *description;
};

const SchemaType &type_of(cli_type type);
std::span<const SchemaType> all_types();
const SchemaRecord &record_of(cli_record record);
std::span<const SchemaRecord> all_records();    // parents before their children
std::span<const SchemaElement> all_elements();  // by number, hence those of a record together
// The element with a number; null: none.
const SchemaElement *find_element(int number);
// Whether records stand under this one.
bool has_children(cli_record record);

}  // namespace output

#endif  // HOST_OUTPUT_SCHEMA_H
