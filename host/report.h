// What the host's own views print: tables, as text for people, as JSON or as XML. Rows go out as they come.
//
//   JSON  {"table": [{"column": value, …}, …], …}
//   XML   <pimhostd-output><table><column>value</column>…</table>…</pimhostd-output>, one element for each row
#ifndef HOST_REPORT_H
#define HOST_REPORT_H

#include <string>
#include <string_view>
#include <vector>

#include "control_protocol.h"
#include "reference.h"

namespace host {

struct Column {
  enum class Kind { text, number, boolean };  // booleans are "yes" and "no" in text
  const char *title;                          // in the text form's heading
  const char *name;                           // in documents
  int width;                                  // in the text form; 0: as wide as the value
  Kind kind = Kind::text;
};

class Report {
 public:
  Report(OutputFormat format, ref::CliSink &sink);

  // Begins a table. title: printed above it; null: none. The columns must outlive the table.
  void table(const char *name, const char *title, const std::vector<Column> &columns);
  // Values in the order of the columns; as text, whatever their kind.
  void row(const std::vector<std::string> &values);
  // A line of text that documents leave out.
  void note(std::string_view line);
  void finish();

  bool wanted() { return sink_.more(); }

 private:
  void close_table();
  void row_text(const std::vector<std::string> &values);
  void row_json(const std::vector<std::string> &values);
  void row_xml(const std::vector<std::string> &values);

  OutputFormat format_;
  ref::CliSink &sink_;
  std::string table_;
  const std::vector<Column> *columns_ = nullptr;
  bool first_table_ = true;
  bool first_row_ = true;
};

}  // namespace host

#endif  // HOST_REPORT_H
