// Filters are few and each is one word, some with a pattern behind: a list serves the reader, completion and help. A
// pattern ends at the next '|' that begins a filter, so it may have blanks, and a '|' of its own.
#include "host/control/pipeline.h"

#include <algorithm>

namespace host {
namespace {

enum class FilterKind { include, exclude, begin, section, count, no_more, json, xml, yang };

struct FilterWord {
  FilterKind kind;
  const char *text;
  const char *help;
};

constexpr FilterWord kFilters[] = {
    {FilterKind::include, "include", "Only lines that match a pattern"},
    {FilterKind::exclude, "exclude", "Only lines that do not match a pattern"},
    {FilterKind::begin, "begin", "Everything from the first line on that matches a pattern"},
    {FilterKind::section, "section", "Lines that match a pattern, with what is indented below them"},
    {FilterKind::count, "count", "The number of lines"},
    {FilterKind::no_more, "no-more", "Without stopping at each page"},
    {FilterKind::json, "json", "As JSON"},
    {FilterKind::xml, "xml", "As XML"},
    {FilterKind::yang, "yang", "As data of a YANG module, in JSON"},
};

using Words = std::vector<std::string>;

bool takes_pattern(const FilterWord &filter) { return filter.kind <= FilterKind::section; }

const FilterWord *find_filter(std::string_view word) {
  const auto found = std::find_if(std::begin(kFilters), std::end(kFilters),
                                  [&](const FilterWord &other) { return word == other.text; });
  return found == std::end(kFilters) ? nullptr : found;
}

// The same, cut as long as it is the only one: behind a '|' that is a word of its own nothing else can be meant.
const FilterWord *find_cut_filter(std::string_view word) {
  if (const FilterWord *whole = find_filter(word); whole != nullptr || word.empty()) return whole;
  const auto begins = [word](const FilterWord &other) { return std::string_view(other.text).starts_with(word); };
  const auto found = std::find_if(std::begin(kFilters), std::end(kFilters), begins);
  const bool only = found != std::end(kFilters) && std::none_of(found + 1, std::end(kFilters), begins);
  return only ? found : nullptr;
}

// Quotes around the whole pattern are not part of it.
std::string pattern_of(const Words &words, size_t begin, size_t end) {
  std::string text = words[begin];
  for (size_t i = begin + 1; i < end; i++) text += " " + words[i];
  const bool quoted = text.size() > 2 && (text.front() == '\'' || text.front() == '"') && text.back() == text.front();
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// The word behind the '|' at a place, were it to begin a filter.
std::string_view word_behind_bar(const Words &words, size_t word, size_t bar) {
  std::string_view rest = std::string_view(words[word]).substr(bar + 1);
  if (rest.empty() && word + 1 < words.size()) rest = words[word + 1];
  return rest.substr(0, rest.find('|'));
}

void apply(const FilterWord &filter, const Words &words, size_t begin, size_t end, Pipeline *line) {
  const auto fail = [line](size_t word, std::string reason) { line->error = SyntaxError{word, std::move(reason)}; };
  if (takes_pattern(filter)) {
    if (begin == end) return fail(end, "the line is incomplete; expected PATTERN");
    line->filters.patterns.emplace_back(static_cast<LinePattern>(filter.kind), pattern_of(words, begin, end));
    return;
  }
  if (begin != end) return fail(begin, "'" + printable(words[begin]) + "' is one word too many");
  const bool structured = filter.kind >= FilterKind::json;
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
    case FilterKind::yang:
      line->filters.format = OutputFormat::yang;
      break;
    default:
      line->filters.format = OutputFormat::xml;
      break;
  }
}

// The filter from the word behind a '|' to the next one.
void read_filter(const Words &words, size_t begin, size_t end, Pipeline *line) {
  const std::string expected = "expected include, exclude, begin, section, count, no-more, json, xml or yang";
  if (begin == end) {
    line->error = SyntaxError{end, "the line is incomplete; " + expected};
    return;
  }
  const FilterWord *filter = find_cut_filter(words[begin]);
  if (filter == nullptr) {
    line->error = SyntaxError{begin, "'" + printable(words[begin]) + "' is not known here; " + expected};
    return;
  }
  apply(*filter, words, begin + 1, end, line);
}

}  // namespace

// Other commands than views have no filters, and text of theirs may hold a '|'.
Words split_pipeline(std::string_view line) {
  const Words words = split_words(line);
  const auto may_be = [&words](size_t at, std::string_view command) {
    return words.size() > at && !words[at].empty() && command.starts_with(words[at]);
  };
  const size_t first = may_be(0, "do") && words.front() == "do" ? 1 : 0;
  if (!may_be(first, "show") && !may_be(first, "monitor")) return words;
  Words split;
  for (size_t i = 0; i < words.size(); i++) {
    std::string_view word = words[i];
    size_t done = 0;
    for (size_t bar = word.find('|'); bar != word.npos; bar = word.find('|', bar + 1)) {
      if (word.size() == 1 || find_filter(word_behind_bar(words, i, bar)) == nullptr) continue;
      if (bar > done) split.emplace_back(word.substr(done, bar - done));
      split.emplace_back("|");
      done = bar + 1;
    }
    if (done < word.size()) split.emplace_back(word.substr(done));
  }
  return split;
}

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
  if (!line.error && line.filters.format && (!line.filters.patterns.empty() || line.filters.count))
    line.error = SyntaxError{line.command.size(), "filters of lines take text, not a document"};
  return line;
}

std::vector<Candidate> filter_candidates(const Words &words) {
  const auto last_bar = std::find(words.rbegin(), words.rend(), "|");
  const auto behind = static_cast<size_t>(last_bar - words.rbegin());
  std::vector<Candidate> all;
  if (behind == 0)
    for (const FilterWord &filter : kFilters) all.push_back({filter.text, filter.help, true});
  else if (const FilterWord *filter = find_cut_filter(*last_bar.base());
           filter && takes_pattern(*filter) && behind == 1)
    all.push_back({"PATTERN", "A regular expression; it ends at the next filter or at the end of the line", false});
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
  return line + "\n" + mark + "\n";
}

ReadLine read_line(std::string_view line) {
  ReadLine read;
  read.words = split_pipeline(line);
  read.pipeline = read_pipeline(read.words);
  read.match = match_line(Mode::exec, read.pipeline.command, true);
  return read;
}

OutputFormat format_of(const Pipeline &line, const Match &match, OutputFormat clients) {
  if (line.filters.format) return *line.filters.format;
  if (match.error || match.statements.front().effect != Effect::stream) return clients;
  const bool json = clients == OutputFormat::json || find_argument(match.statements.front(), "json") != nullptr;
  return json ? OutputFormat::json_line : clients;
}

bool is_view(const Statement &statement) { return statement.effect == Effect::view; }

bool only_looks(const Statement &statement) { return statement.effect != Effect::change; }

}  // namespace host
