// The syntax of the three forms. Lines break where a record ends, so that tools that work line by line get whole
// records.
#include "host/output/output.h"

#include <cstdio>
#include <pugixml.hpp>

#include "host/output/document.h"

namespace output {
namespace {

// ------------------------------------------------------------------------------------------------------------- text

class TextWriter : public Writer {
 public:
  explicit TextWriter(ByteSink bytes) : bytes_(std::move(bytes)) {}
  void text(std::string_view text) override {
    if (!stopped_ && !text.empty() && !bytes_(text)) stopped_ = true;
  }
  bool more() override { return !stopped_; }
  void finish() override {}

 private:
  ByteSink bytes_;
  bool stopped_ = false;
};

// ------------------------------------------------------------------------------------------------------------- JSON
//
// {
//   "schema-version": "1.0",
//   "vrf": [
//     {
//       "name": "red",
//       "mdt-route": [
//         {"source":"10.0.0.1","group":"239.1.1.1"},
//
// A record of a kind without children stands on a line of its own.
class JsonWriter : public DocumentWriter {
 public:
  // in_a_line: without what makes it readable for people.
  JsonWriter(ByteSink bytes, const Header &header, bool in_a_line = false)
      : DocumentWriter(std::move(bytes), header), in_a_line_(in_a_line) {}

 protected:
  void write_whole(const Level &level, size_t) override {
    Json object = Json::object();
    for (const Field &field : level.fields) object[field.element->name] = shown(field);
    out_ += object.dump();
  }
  void write_opening(Level &, size_t) override { out_ += '{'; }
  void write_fields(Level &level, size_t depth) override {
    close_list(level, depth);
    for (const Field &field : level.fields) {
      begin_member(level, depth, field.element->name);
      out_ += shown(field).dump();
    }
  }
  void write_before_child(Level &level, size_t depth, const SchemaRecord &child) override {
    if (level.open_list == &child) {
      out_ += ',';
    } else {
      close_list(level, depth);
      begin_member(level, depth, child.name);
      out_ += '[';
    }
    new_line(item_indent(depth));
  }
  void write_empty_list(Level &level, size_t depth, const SchemaRecord &child) override {
    close_list(level, depth);
    begin_member(level, depth, child.name);
    out_ += "[]";
  }
  void write_closing(Level &level, size_t depth) override {
    close_list(level, depth);
    new_line(depth == 0 ? 0 : item_indent(depth - 1));
    out_ += '}';
  }

  virtual Json shown(const Field &field) const { return field.value; }

 private:
  static size_t member_indent(size_t depth) { return 2 + 4 * depth; }
  static size_t item_indent(size_t depth) { return 4 + 4 * depth; }

  void new_line(size_t indent) {
    if (in_a_line_) return;
    out_ += '\n';
    out_.append(indent, ' ');
  }
  void close_list(Level &level, size_t depth) {
    if (level.open_list == nullptr) return;
    new_line(member_indent(depth));
    out_ += ']';
    level.open_list = nullptr;
  }
  void begin_member(Level &level, size_t depth, const char *name) {
    if (level.has_members) out_ += ',';
    level.has_members = true;
    new_line(member_indent(depth));
    out_ += Json(name).dump() + (in_a_line_ ? ":" : ": ");
  }

  const bool in_a_line_;
};

// ------------------------------------------------------------------------------------------------------------- YANG
//
// JSON in an object that names the module. RFC 7951 has numbers of 64 bits and decimal ones as strings.
class YangWriter : public JsonWriter {
 public:
  YangWriter(ByteSink bytes, const Header &header) : JsonWriter(std::move(bytes), header) {}

  bool instead(const std::function<std::string()> &yang_data) override {
    instead_ = true;
    out_ = yang_data();
    send();
    return true;
  }
  void finish() override {
    if (!instead_) JsonWriter::finish();
  }

 protected:
  void write_prologue() override { out_ += std::string("{\"") + kStateModule + ':' + root() + "\": "; }
  void write_closing(Level &level, size_t depth) override {
    JsonWriter::write_closing(level, depth);
    if (depth == 0) out_ += '}';
  }
  Json shown(const Field &field) const override {
    if (!field.value.is_number()) return field.value;
    if (field.element->type == CLI_TYPE_NUMBER) return field.value.dump();
    char text[48];
    std::snprintf(text, sizeof text, "%.6f", field.value.get<double>());
    return text;
  }

 private:
  static const char *root() { return record_of(CLI_RECORD_DOCUMENT).name; }

  bool instead_ = false;
};

// -------------------------------------------------------------------------------------------------------------- XML

class StringWriter : public pugi::xml_writer {
 public:
  explicit StringWriter(std::string &out) : out_(out) {}
  void write(const void *data, size_t size) override { out_.append(static_cast<const char *>(data), size); }

 private:
  std::string &out_;
};

std::string xml_text(const Json &value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

void append_field(pugi::xml_node parent, const Field &field) {
  parent.append_child(field.element->name).text().set(xml_text(field.value).c_str());
}

// A record of a kind without children stands on a line of its own, and so does every field of the others.
class XmlWriter : public DocumentWriter {
 public:
  using DocumentWriter::DocumentWriter;

 protected:
  void write_prologue() override { out_ += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"; }
  void write_whole(const Level &level, size_t) override {
    pugi::xml_document document;
    pugi::xml_node node = document.append_child(level.record->name);
    for (const Field &field : level.fields) append_field(node, field);
    print(node);
  }
  void write_opening(Level &level, size_t) override { out_ += std::string("<") + level.record->name + '>'; }
  void write_fields(Level &level, size_t depth) override {
    for (const Field &field : level.fields) {
      pugi::xml_document document;
      append_field(document, field);
      new_line(depth + 1);
      print(document.first_child());
    }
  }
  void write_before_child(Level &, size_t depth, const SchemaRecord &) override { new_line(depth + 1); }
  void write_closing(Level &level, size_t depth) override {
    new_line(depth);
    out_ += std::string("</") + level.record->name + '>';
  }

 private:
  void new_line(size_t depth) {
    out_ += '\n';
    out_.append(2 * depth, ' ');
  }
  void print(pugi::xml_node node) {
    StringWriter writer(out_);
    node.print(writer, "", pugi::format_raw, pugi::encoding_utf8);
  }
};

}  // namespace

std::unique_ptr<Writer> text_writer(ByteSink bytes) { return std::make_unique<TextWriter>(std::move(bytes)); }
std::unique_ptr<Writer> json_writer(ByteSink bytes, const Header &header) {
  return std::make_unique<JsonWriter>(std::move(bytes), header);
}
std::unique_ptr<Writer> json_line_writer(ByteSink bytes, const Header &header) {
  return std::make_unique<JsonWriter>(std::move(bytes), header, true);
}
std::unique_ptr<Writer> xml_writer(ByteSink bytes, const Header &header) {
  return std::make_unique<XmlWriter>(std::move(bytes), header);
}
std::unique_ptr<Writer> yang_writer(ByteSink bytes, const Header &header) {
  return std::make_unique<YangWriter>(std::move(bytes), header);
}
std::unique_ptr<Writer> writer_of(Format format, ByteSink bytes, const Header &header) {
  switch (format) {
    case Format::json:
      return json_writer(std::move(bytes), header);
    case Format::json_line:
      return json_line_writer(std::move(bytes), header);
    case Format::xml:
      return xml_writer(std::move(bytes), header);
    case Format::yang:
      return yang_writer(std::move(bytes), header);
    default:
      return text_writer(std::move(bytes));
  }
}

void record_failure(ref::CliSink &sink, uint32_t status, const std::string &reason) {
  ref::CliValue value;
  value.element = kFailureColumns[0].number;
  value.text = reason;
  sink.value(value);
  value.element = kFailureColumns[1].number;
  value.type = ref::CliValueType::unsigned_number;
  value.unsigned_number = status;
  sink.value(value);
}

}  // namespace output
