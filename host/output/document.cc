// Sorts recorded values into records and gives them their types. The order of the values decides: a value of another
// record closes what it does not stand under, and one that begins its record opens the next instance. Text that neither
// JSON nor XML can carry is replaced, since much of it comes from other machines.
#include "host/output/document.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace output {
namespace {

template <typename Number>
std::optional<Number> number_in(const std::string &text) {
  Number number{};
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc{} && stop == end ? std::optional(number) : std::nullopt;
}

bool is_plain(unsigned char c) { return c >= 0x20 && c < 0x7F; }

// The text with what neither kind of document can carry, bytes that are no UTF-8 and control characters, replaced.
std::string carried_text(const std::string &text) {
  if (std::all_of(text.begin(), text.end(), is_plain)) return text;
  const auto valid = Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
  std::string carried;
  for (const char c : valid) {
    const bool control = static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
    if (control)
      carried += "\uFFFD";
    else
      carried += c;
  }
  return carried;
}

bool is_false_text(const std::string &text) {
  return text.empty() || text == "No" || text == "False" || text == "FALSE";
}

Json boolean_of(const ref::CliValue &value) {
  switch (value.type) {
    case ref::CliValueType::string:
      return !is_false_text(value.text);
    case ref::CliValueType::unsigned_number:
      return value.unsigned_number != 0;
    case ref::CliValueType::duration:
      return value.seconds != 0;
    default:
      return value.number != 0;
  }
}

Json number_of(const ref::CliValue &value) {
  switch (value.type) {
    case ref::CliValueType::string:
      if (const auto number = number_in<int64_t>(value.text)) return *number;
      if (const auto number = number_in<uint64_t>(value.text)) return *number;
      return carried_text(value.text);
    case ref::CliValueType::unsigned_number:
      return value.unsigned_number;
    case ref::CliValueType::duration:
      return value.seconds;
    default:
      return value.number;
  }
}

}  // namespace

std::optional<Json> typed_value(const SchemaElement &element, const ref::CliValue &value) {
  switch (element.type) {
    case CLI_TYPE_NUMBER:
    case CLI_TYPE_DURATION:
    case kFactor:
      return number_of(value);
    case CLI_TYPE_BOOLEAN:
      return boolean_of(value);
    case CLI_TYPE_INTERFACE:
      if (value.text.find_first_not_of(' ') == std::string::npos) return std::nullopt;
      return carried_text(value.text);
    default:
      return carried_text(value.text);
  }
}

DocumentWriter::DocumentWriter(ByteSink bytes, const Header &header) : bytes_(std::move(bytes)) {
  path_.push_back({&record_of(CLI_RECORD_DOCUMENT)});
  const std::string values[] = {kSchemaVersion, carried_text(header.hostname), header.time};
  for (size_t i = 0; i < std::size(values); i++)
    path_.back().fields.push_back({find_element(kHeaderColumns[i].number), values[i]});
}

void DocumentWriter::promise(const SchemaRecord &kind) {
  if (std::ranges::find(promised_, &kind) == promised_.end()) promised_.push_back(&kind);
}

void DocumentWriter::value(const ref::CliValue &value) {
  const SchemaElement *element = find_element(value.element);
  if (element == nullptr || stopped_) return;
  enter(record_of(element->record), element->begins);
  if (auto typed = typed_value(*element, value)) path_.back().fields.push_back({element, std::move(*typed)});
  send();
}

void DocumentWriter::finish() {
  while (path_.size() > 1) close_deepest();
  if (stopped_) path_.back().fields.push_back({find_element(kInterruptedColumn.number), true});
  close_deepest();
  out_ += '\n';
  send();
}

// Makes an instance of the record the deepest open one.
void DocumentWriter::enter(const SchemaRecord &record, bool begins) {
  const auto is_open = [this, &record] {
    return std::any_of(path_.begin(), path_.end(), [&record](const Level &level) { return level.record == &record; });
  };
  if (is_open()) {
    while (path_.back().record != &record) close_deepest();
    if (!begins) return;
    close_deepest();
  } else {
    enter(record_of(record.parent), false);
  }
  open(record);
}

void DocumentWriter::open(const SchemaRecord &record) {
  const size_t depth = path_.size() - 1;
  flush_fields(depth);
  write_before_child(path_[depth], depth, record);
  if (path_[depth].open_list != &record) path_[depth].kinds.push_back(record.id);
  path_[depth].open_list = &record;
  path_[depth].has_members = true;
  path_.push_back({&record});
}

// Writes the beginning of a record that gets children, and the fields that it has so far.
void DocumentWriter::flush_fields(size_t depth) {
  Level &level = path_[depth];
  if (!level.opened) {
    if (depth == 0) write_prologue();
    write_opening(level, depth);
    level.opened = true;
  }
  if (level.fields.empty()) return;
  write_fields(level, depth);
  level.has_members = true;
  level.open_list = nullptr;
  level.fields.clear();
}

// Whether there would have been more is not known when nothing more is wanted.
void DocumentWriter::add_empty_lists(size_t depth) {
  if (stopped_) return;
  for (const SchemaRecord *kind : promised_) {
    if (kind->parent != path_[depth].record->id || std::ranges::count(path_[depth].kinds, kind->id) > 0) continue;
    flush_fields(depth);
    write_empty_list(path_[depth], depth, *kind);
  }
}

void DocumentWriter::close_deepest() {
  const size_t depth = path_.size() - 1;
  add_empty_lists(depth);
  const Level &level = path_[depth];
  if (level.opened || (has_children(level.record->id) && !level.fields.empty())) {
    flush_fields(depth);
    write_closing(path_[depth], depth);
  } else {
    if (depth == 0) write_prologue();
    write_whole(path_[depth], depth);
  }
  path_.pop_back();
}

void DocumentWriter::send() {
  if (out_.empty()) return;
  if (!bytes_(out_)) stopped_ = true;
  out_.clear();
}

}  // namespace output
