// A row is printed twice: as text, for whoever reads, and as recorded values, for documents; which of the two is used
// is the writer's business. Every hundred rows it offers a yield, so whatever a caller knows of the module or of a
// service may be stale behind row().
#include "host/output/listing.h"

#include <cstdio>

#include "platform/thread.h"

namespace output {
namespace {

constexpr size_t kRowsBetweenYields = 100;  // less changes hands too often, more keeps other threads waiting

void append_padded(const std::string &text, int width, std::string *line) {
  *line += text;
  if (width == 0) return;
  const auto room = static_cast<size_t>(width);
  line->append(text.size() < room ? room - text.size() : 1, ' ');
}

void end_line(std::string *line) {
  line->erase(line->find_last_not_of(' ') + 1);
  *line += '\n';
}

struct ToText {
  const Column &column;

  std::string operator()(std::monostate) const { return "-"; }
  std::string operator()(const std::string &text) const { return text; }
  std::string operator()(bool truth) const {
    if (column.form == Column::Form::origin) return truth ? "local" : "remote";
    return truth ? "yes" : "no";
  }
  std::string operator()(uint64_t number) const {
    if (column.form == Column::Form::plain) return std::to_string(number);
    char text[24];
    std::snprintf(text, sizeof text, "0x%08llx", static_cast<unsigned long long>(number));
    return text;
  }
  std::string operator()(Cell::Seconds time) const { return (*this)(time.count()); }
  std::string operator()(double number) const {
    char text[48];
    std::snprintf(text, sizeof text, "%.3f", number);
    return text;
  }
};

// "red:1,blue:2".
std::string list_text(const View &view, const Cell &list) {
  std::string text;
  for (const Row &item : list.items) {
    if (!text.empty()) text += ',';
    for (size_t i = 0; i < item.size(); i++)
      text += (i == 0 ? "" : ":") + std::visit(ToText{view.columns[i]}, item[i].value);
  }
  return text.empty() ? "-" : text;
}

struct ToValue {
  ref::CliValue *value;

  void operator()(std::monostate) const {}
  void operator()(const std::string &text) const { value->text = text; }
  void operator()(bool truth) const {
    value->type = ref::CliValueType::boolean;
    value->number = truth ? 1 : 0;
  }
  void operator()(uint64_t number) const {
    value->type = ref::CliValueType::unsigned_number;
    value->unsigned_number = number;
  }
  void operator()(Cell::Seconds time) const { (*this)(time.count()); }
  // The recorded numbers with a fraction are those of durations.
  void operator()(double number) const {
    value->type = ref::CliValueType::duration;
    value->seconds = number;
  }
};

ref::CliValue value_of(const Column &column, const Cell &cell) {
  ref::CliValue value;
  value.element = column.number;
  std::visit(ToValue{&value}, cell.value);
  return value;
}

// The fields of a record, the one that begins it first; then its children.
template <typename IsShown>
void record(const View &view, const Row &row, IsShown is_shown, ref::CliSink &sink) {
  sink.value(value_of(view.columns[view.key], row[view.key]));
  for (size_t i = 0; i < row.size(); i++) {
    const Column &column = view.columns[i];
    const bool there = !is_list(column) && is_shown(column) && !std::holds_alternative<std::monostate>(row[i].value);
    if (there && i != view.key) sink.value(value_of(column, row[i]));
  }
  for (size_t i = 0; i < row.size(); i++)
    for (const Row &item : row[i].items) record(*view.columns[i].items, item, is_shown, sink);
}

void promise_records(const View &view, RecordId parent, Writer &writer) {
  const SchemaRecord &record = *find_record(view.record, parent);
  writer.promise(record);
  for (const Column &column : view.columns)
    if (is_list(column)) promise_records(*column.items, record.id, writer);
}

}  // namespace

void Listing::promise(const View &view) { promise_records(view, CLI_RECORD_DOCUMENT, sink_); }

void Listing::begin(const View &view, bool detail) {
  promise(view);
  if (view_ != nullptr) sink_.text("\n");
  view_ = &view;
  detail_ = detail;
  between_sheets_ = false;
  if (view.title != nullptr) sink_.text(std::string(view.title) + "\n");
  if (!view.sheet) heading();
}

void Listing::heading() {
  std::string line;
  for (const Column &column : view_->columns)
    if (is_shown(column)) append_padded(column.title, column.width, &line);
  end_line(&line);
  if (line != "\n") sink_.text(line);
}

bool Listing::row(const Row &row) {
  text_of(row);
  record(
      *view_, row, [this](const Column &column) { return is_shown(column); }, sink_);
  if (++rows_ % kRowsBetweenYields == 0) tsp_sched_may_yield();
  return sink_.more();
}

void Listing::note(const std::string &text) {
  begin(kNotes);
  row({text});
}

void Listing::text_of(const Row &row) { view_->sheet ? sheet_of(row) : line_of(row); }

// Values that there are; those behind the first, which names the row, are indented.
void Listing::sheet_of(const Row &row) {
  std::string text = between_sheets_ ? "\n" : "";
  between_sheets_ = true;
  for (size_t i = 0; i < row.size(); i++) {
    const Column &column = view_->columns[i];
    const std::string value =
        is_list(column) ? list_text(*column.items, row[i]) : std::visit(ToText{column}, row[i].value);
    if (!is_shown(column) || value == "-") continue;
    text += std::string(i == 0 ? "" : "  ") + column.title + ": " + value + "\n";
  }
  sink_.text(text);
}

void Listing::line_of(const Row &row) {
  std::string line;
  for (size_t i = 0; i < row.size(); i++) {
    const Column &column = view_->columns[i];
    if (!is_shown(column)) continue;
    const bool list = is_list(column);
    append_padded(list ? list_text(*column.items, row[i]) : std::visit(ToText{column}, row[i].value), column.width,
                  &line);
  }
  end_line(&line);
  sink_.text(line);
}

}  // namespace output
