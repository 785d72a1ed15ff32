// Filters are few and each is one word, with a text behind `include`: a list serves the reader, completion and help. The
// text ends at the next '|', so several words may be looked for.
#include "host/control/pipeline.h"

#include <algorithm>

namespace host {
namespace {

enum class FilterKind { include, count, no_more, json, xml };

struct FilterWord {
  FilterKind kind;
  const char *text;
  const char *help;
};

constexpr FilterWord kFilters[] = {
    {FilterKind::include, "include", "Only lines that contain a text"},
    {FilterKind::count, "count", "The number of lines"},
    {FilterKind::no_more, "no-more", "Without stopping at each page"},
    {FilterKind::json, "json", "As JSON"},
    {FilterKind::xml, "xml", "As XML"},
};

using Words = std::vector<std::string>;

void apply(const FilterWord &filter, const Words &words, size_t begin, size_t end, Pipeline *line) {
  const auto fail = [line](size_t word, std::string reason) { line->error = SyntaxError{word, std::move(reason)}; };
  if (filter.kind == FilterKind::include) {
    if (begin == end) return fail(end, "the line is incomplete; expected TEXT");
    std::string text = words[begin];
    for (size_t i = begin + 1; i < end; i++) text += " " + words[i];
    line->filters.include = std::move(text);
    return;
  }
  if (begin != end) return fail(begin, "'" + printable(words[begin]) + "' is one word too many");
  const bool structured = filter.kind == FilterKind::json || filter.kind == FilterKind::xml;
  if (structured && line->filters.format) return fail(begin - 1, "the output has one form");
  switch (filter.kind) {
    case FilterKind::count:
      line->filters.count = true;
      break;
    case FilterKind::no_more:
      line->filters.no_more = true;
      break;
    case FilterKind::json:
      line->filters.format = OutputFormat::json;
      break;
    default:
      line->filters.format = OutputFormat::xml;
      break;
  }
}

// The filter from the word behind a '|' to the next one.
void read_filter(const Words &words, size_t begin, size_t end, Pipeline *line) {
  const std::string expected = "expected include, count, no-more, json or xml";
  if (begin == end) {
    line->error = SyntaxError{end, "the line is incomplete; " + expected};
    return;
  }
  const auto filter = std::find_if(std::begin(kFilters), std::end(kFilters),
                                   [&](const FilterWord &other) { return words[begin] == other.text; });
  if (filter == std::end(kFilters)) {
    line->error = SyntaxError{begin, "'" + printable(words[begin]) + "' is not known here; " + expected};
    return;
  }
  apply(*filter, words, begin + 1, end, line);
}

}  // namespace

Pipeline read_pipeline(const Words &words) {
  Pipeline line;
  auto bar = std::find(words.begin(), words.end(), "|");
  line.command.assign(words.begin(), bar);
  line.filtered = bar != words.end();
  while (bar != words.end() && !line.error) {
    const auto begin = bar + 1;
    bar = std::find(begin, words.end(), "|");
    read_filter(words, static_cast<size_t>(begin - words.begin()), static_cast<size_t>(bar - words.begin()), &line);
  }
  if (!line.error && line.filters.format && (line.filters.include || line.filters.count))
    line.error = SyntaxError{line.command.size(), "include and count take lines of text, not a document"};
  return line;
}

std::vector<Candidate> filter_candidates(const Words &words) {
  const auto last_bar = std::find(words.rbegin(), words.rend(), "|");
  const auto behind = static_cast<size_t>(last_bar - words.rbegin());
  std::vector<Candidate> all;
  if (behind == 0)
    for (const FilterWord &filter : kFilters) all.push_back({filter.text, filter.help, true});
  else if (*last_bar.base() == "include" && behind == 1)
    all.push_back({"TEXT", "The text; it ends at the next | or at the end of the line", false});
  else
    all = {{"|", "Another filter", true}, {std::string(kEndOfLine), "end of the line", false}};
  return all;
}

std::string point_out(const Words &words, const SyntaxError &error) {
  std::string line = " ", mark;
  for (size_t i = 0; i <= words.size(); i++) {
    if (i == error.word) mark = std::string(line.size() + 1, ' ') + "^";
    if (i < words.size()) line += " " + printable(words[i]);
  }
  return line + "\n" + mark + "\n" + error.reason + "\n";
}

bool is_view(const Statement &statement) {
  return statement.command >= Command::show_module && statement.command <= Command::show_clock;
}

}  // namespace host
