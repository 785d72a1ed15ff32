// The output schema as tables: the lists of cli_schema.h, which modules record under, and the host's views behind them.
#ifndef HOST_OUTPUT_SCHEMA_H
#define HOST_OUTPUT_SCHEMA_H

#include <span>
#include <string_view>

#include "host/output/view.h"
#include "platform/cli_schema.h"

namespace output {

struct SchemaType {
  const char *name;         // as documents and the schema files write it
  const char *description;  // one sentence
};

// A record: one of cli_record, or of the numbers behind them, which the records of views have.
using RecordId = int;

struct SchemaRecord {
  RecordId id;              // its place in the tables, from 1
  const char *name;         // of an instance in documents
  RecordId parent;          // CLI_RECORD_NONE: the root
  const char *description;  // a sentence or two
};

struct SchemaElement {
  int number;               // its own for ever
  const char *name;         // of the field in documents
  TypeId type;              // what typed_value() makes of it
  RecordId record;          // that it is a field of
  bool begins;              // a value opens a new instance of the record
  bool always;              // every instance has it
  const char *description;  // a sentence or two
};

// For numbers that are in the tables; all live as long as the program.
const SchemaType &type_of(TypeId type);
std::span<const SchemaType> all_types();
const SchemaRecord &record_of(RecordId record);
std::span<const SchemaRecord> all_records();    // parents before their children
std::span<const SchemaElement> all_elements();  // by number
// The element under which documents have what is recorded under a number; null: none.
const SchemaElement *find_element(int number);
// Null: none.
const SchemaRecord *find_record(std::string_view name, RecordId parent);
// Whether records stand under this one.
bool has_children(RecordId record);

}  // namespace output

#endif  // HOST_OUTPUT_SCHEMA_H
