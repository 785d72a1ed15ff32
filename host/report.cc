#include "report.h"

#include <nlohmann/json.hpp>

namespace host {
namespace {

std::string padded(std::string text, int width) {
  if (width > 0 && text.size() < static_cast<size_t>(width))
    text.resize(static_cast<size_t>(width), ' ');
  else if (width > 0)
    text += ' ';
  return text;
}

void end_line(std::string *line) {
  line->erase(line->find_last_not_of(' ') + 1);
  *line += '\n';
}

std::string json_value(const Column &column, const std::string &value) {
  switch (column.kind) {
    case Column::Kind::number:
      return value.empty() ? "null" : value;
    case Column::Kind::boolean:
      return value == "yes" ? "true" : "false";
    case Column::Kind::text:
      break;
  }
  return nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string xml_value(const Column &column, const std::string &value) {
  if (column.kind == Column::Kind::boolean) return value == "yes" ? "true" : "false";
  std::string text;
  for (const char c : value) {
    switch (c) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      default:
        text += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
  }
  return text;
}

}  // namespace

Report::Report(OutputFormat format, ref::CliSink &sink) : format_(format), sink_(sink) {
  if (format_ == OutputFormat::json) sink_.text("{");
  if (format_ == OutputFormat::xml) sink_.text("<pimhostd-output>\n");
}

void Report::table(const char *name, const char *title, const std::vector<Column> &columns) {
  close_table();
  table_ = name;
  columns_ = &columns;
  first_row_ = true;
  if (format_ == OutputFormat::json) sink_.text((first_table_ ? "\"" : ",\"") + table_ + "\":[");
  if (format_ == OutputFormat::text) {
    if (title != nullptr) sink_.text((first_table_ ? "" : "\n") + std::string(title) + "\n");
    std::string heading;
    for (const Column &column : columns) heading += padded(column.title, column.width);
    end_line(&heading);
    if (heading != "\n") sink_.text(heading);
  }
  first_table_ = false;
}

void Report::close_table() {
  if (columns_ != nullptr && format_ == OutputFormat::json) sink_.text("]");
  columns_ = nullptr;
}

void Report::row(const std::vector<std::string> &values) {
  switch (format_) {
    case OutputFormat::text:
      row_text(values);
      break;
    case OutputFormat::json:
      row_json(values);
      break;
    case OutputFormat::xml:
      row_xml(values);
      break;
  }
  first_row_ = false;
}

void Report::row_text(const std::vector<std::string> &values) {
  std::string line;
  for (size_t i = 0; i < values.size(); i++) line += padded(values[i], (*columns_)[i].width);
  end_line(&line);
  sink_.text(line);
}

void Report::row_json(const std::vector<std::string> &values) {
  std::string object = first_row_ ? "{" : ",{";
  for (size_t i = 0; i < values.size(); i++) {
    const Column &column = (*columns_)[i];
    object += (i == 0 ? "\"" : ",\"") + std::string(column.name) + "\":" + json_value(column, values[i]);
  }
  sink_.text(object + "}");
}

void Report::row_xml(const std::vector<std::string> &values) {
  std::string element = " <" + table_ + ">\n";
  for (size_t i = 0; i < values.size(); i++) {
    const Column &column = (*columns_)[i];
    const std::string name = column.name;
    element += "  <" + name + ">" + xml_value(column, values[i]) + "</" + name + ">\n";
  }
  sink_.text(element + " </" + table_ + ">\n");
}

void Report::note(std::string_view line) {
  if (format_ == OutputFormat::text) sink_.text(std::string(line) + "\n");
}

void Report::finish() {
  close_table();
  if (format_ == OutputFormat::json) sink_.text("}\n");
  if (format_ == OutputFormat::xml) sink_.text("</pimhostd-output>\n");
}

}  // namespace host
