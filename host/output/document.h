// Common part of the document writers: where a recorded value belongs and what it is.
//
// The writer keeps the path of open records, from the root to the deepest. The fields of the deepest one are held until
// a value comes that does not belong to it. A record of a kind that has no children is then written in one piece; a
// record of another kind is opened, its fields are written, and it stays open until a value closes it. So one record of
// each level is in memory and the rest has been sent.
#ifndef HOST_OUTPUT_DOCUMENT_H
#define HOST_OUTPUT_DOCUMENT_H

#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "host/output/output.h"
#include "host/output/schema.h"
#include "platform/reference/cli.h"

namespace output {

using Json = nlohmann::ordered_json;

struct Field {
  const SchemaElement *element;  // of the schema's tables; never null
  Json value;                    // a string, a number or a boolean
};

// What a recorded value is in a document: a string, number or boolean as its element's type wants it. A text that is no
// number stays text. Nullopt: left out.
std::optional<Json> typed_value(const SchemaElement &element, const ref::CliValue &value);

class DocumentWriter : public Writer {
 public:
  DocumentWriter(ByteSink bytes, const Header &header);

  void promise(const SchemaRecord &kind) override;
  void text(std::string_view) override {}
  void value(const ref::CliValue &value) override;
  bool more() override { return !stopped_; }
  void finish() override;

 protected:
  struct Level {
    const SchemaRecord *record;
    std::vector<Field> fields = {};           // not written yet
    bool opened = false;                      // its beginning was written
    bool has_members = false;                 // so was a field or a list
    const SchemaRecord *open_list = nullptr;  // kind of the children written last
    std::vector<RecordId> kinds = {};         // of all children so far
  };

  // The syntax. `depth` is the place in the path, 0 for the root.
  virtual void write_prologue() {}
  virtual void write_whole(const Level &level, size_t depth) = 0;
  virtual void write_opening(Level &level, size_t depth) = 0;
  virtual void write_fields(Level &level, size_t depth) = 0;
  virtual void write_before_child(Level &level, size_t depth, const SchemaRecord &child) = 0;
  virtual void write_empty_list(Level &, size_t, const SchemaRecord &) {}  // where the syntax has any
  virtual void write_closing(Level &level, size_t depth) = 0;

  void send();

  std::string out_;  // written, not sent

 private:
  void enter(const SchemaRecord &record, bool begins);
  void open(const SchemaRecord &record);
  void close_deepest();
  void flush_fields(size_t depth);
  void add_empty_lists(size_t depth);

  ByteSink bytes_;
  std::vector<Level> path_;
  std::vector<const SchemaRecord *> promised_;
  bool stopped_ = false;
};

}  // namespace output

#endif  // HOST_OUTPUT_DOCUMENT_H
