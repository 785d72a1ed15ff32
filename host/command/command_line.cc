// Reads a client's line on the daemon's side, once more and by the same grammar as the client: what comes over a socket
// is not believed. The filters behind '|' become writers in front of the one that writes the form; the first one
// written is the first that lines pass.
#include "host/command/command_line.h"

#include <utility>

#include "host/output/filters.h"
#include "host/output/listing.h"

namespace host {

namespace {

constexpr const char *kLineEnds = "\r\n";

std::string without_end(const std::string &text) { return text.substr(0, text.find_last_not_of(kLineEnds) + 1); }

output::LineFilter line_filter_of(LinePattern pattern) {
  switch (pattern) {
    case LinePattern::include:
      return output::LineFilter::include;
    case LinePattern::exclude:
      return output::LineFilter::exclude;
    case LinePattern::begin:
      return output::LineFilter::begin;
    default:
      return output::LineFilter::section;
  }
}

bool is_looking(const Statement &statement) {
  if (statement.effect == Effect::stream || statement.effect == Effect::text) return true;
  return is_view(statement) && find_argument(statement, "passwords") == nullptr;
}

}  // namespace

CommandLine read_command_line(const ControlServer::Request &request, const std::string &hostname) {
  auto [words, line, match] = read_line(request.line);
  const OutputFormat format = format_of(line, match, request.format);
  CommandLine read{std::move(match), format, line.filters, "", "", request.by, hostname, request.client};
  const std::optional<SyntaxError> &error = read.match.error ? read.match.error : line.error;
  if (error) {
    read.error = error->reason + "\n";
    read.mark = point_out(words, *error);
  } else if (line.filtered && !is_view(read.match.statements.back()) &&
             read.match.statements.back().effect != Effect::stream) {
    read.error = "only views can be filtered\n";
  }
  if (read.error.empty() && request.read_only && !is_looking(read.match.statements.front()))
    read.error = "this socket is for looking only: it takes views without passwords, and monitor\n";
  for (const auto &[kind, pattern] : line.filters.patterns)
    if (const std::string fault = output::pattern_fault(pattern); !fault.empty() && read.error.empty())
      read.error = "'" + printable(pattern) + "' " + fault + "\n";
  return read;
}

std::unique_ptr<output::Writer> writer_for(const CommandLine &line, OutputChannel &channel) {
  const output::ByteSink bytes = [&channel](std::string_view text) {
    channel.output(text);
    return channel.wanted();
  };
  std::unique_ptr<output::Writer> writer = output::writer_of(line.format, bytes, output::header_now(line.hostname));
  if (line.filters.count) writer = output::count_lines(std::move(writer));
  for (auto pattern = line.filters.patterns.rbegin(); pattern != line.filters.patterns.rend(); ++pattern)
    writer = output::filter_lines(line_filter_of(pattern->first), pattern->second, std::move(writer));
  return writer;
}

void finish(const CommandLine &line, const std::string &text, OutputChannel &channel) {
  if (line.format == OutputFormat::text) {
    channel.output(text);
  } else {
    const std::unique_ptr<output::Writer> writer = writer_for(line, channel);
    output::Listing listing(*writer);
    if (!text.empty()) listing.note(without_end(text));
    writer->finish();
  }
  channel.end(kStatusDone);
}

void refuse(const CommandLine &line, uint32_t status, const std::string &text, OutputChannel &channel) {
  if (line.format != OutputFormat::text) {
    const std::unique_ptr<output::Writer> writer = writer_for(line, channel);
    output::record_failure(*writer, status, without_end(text));
    writer->finish();
  }
  channel.error(line.mark + text);
  channel.end(status);
}

}  // namespace host
