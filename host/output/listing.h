// Prints the host's own views: each row goes to a sink as a line of text and as recorded values, as the module's
// handlers do it, and the writer behind the sink takes what it shows.
#ifndef HOST_OUTPUT_LISTING_H
#define HOST_OUTPUT_LISTING_H

#include <chrono>
#include <concepts>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "host/output/output.h"
#include "host/output/view.h"

namespace output {

// A value of a row. Nothing: "-" in text, left out of documents.
struct Cell {
  using Seconds = std::chrono::duration<double>;

  Cell() = default;
  Cell(std::string text) : value(std::move(text)) {}
  Cell(const char *text) : value(text) {}
  Cell(std::same_as<bool> auto truth) : value(truth) {}
  Cell(std::unsigned_integral auto number) requires(!std::same_as<decltype(number), bool>) : value(uint64_t{number}) {}
  Cell(Seconds time) : value(time) {}
  Cell(std::same_as<double> auto factor) : value(factor) {}
  Cell(std::vector<std::vector<Cell>> list) : items(std::move(list)) {}

  // monostate: there is none, or the cell is a list.
  std::variant<std::monostate, std::string, uint64_t, bool, Seconds, double> value;
  std::vector<std::vector<Cell>> items;  // of a list
};
using Row = std::vector<Cell>;  // in the order of the view's columns, those that are not shown included

class Listing {
 public:
  explicit Listing(Writer &sink) : sink_(sink) {}

  // Begins a table: with its heading, and behind an empty line when it is not the first.
  void begin(const View &view, bool detail = false);
  // The answer is about such rows, though there may be no table of them: documents have their list.
  void promise(const View &view);
  // A row of the table, then sometimes a yield. False: nobody wants more.
  bool row(const Row &row);
  // As Writer::instead().
  bool instead(const std::function<std::string()> &yang_data) { return sink_.instead(yang_data); }
  // A sentence instead of rows, or behind them.
  void note(const std::string &text);

 private:
  void heading();
  void text_of(const Row &row);
  void line_of(const Row &row);
  void sheet_of(const Row &row);
  bool is_shown(const Column &column) const { return detail_ || !column.only_in_detail; }

  Writer &sink_;
  const View *view_ = nullptr;
  bool detail_ = false;
  size_t rows_ = 0;
  bool between_sheets_ = false;  // an empty line is due before the next
};

}  // namespace output

#endif  // HOST_OUTPUT_LISTING_H
