#include "host/command/command_line.h"

namespace host {

CommandLine read_command_line(const ControlServer::Request &request) {
  const std::vector<std::string> words = split_words(request.line);
  const Pipeline line = read_pipeline(words);
  CommandLine read{match_line(Mode::exec, line.command, true), line.filters.format.value_or(request.format),
                   line.filters, ""};
  const std::optional<SyntaxError> &error = read.match.error ? read.match.error : line.error;
  if (error)
    read.error = point_out(words, *error);
  else if (line.filtered && !is_view(read.match.statements.back()))
    read.error = "only views can be filtered\n";
  return read;
}

std::unique_ptr<output::Writer> writer_for(OutputFormat format, const Filters &filters, OutputChannel &channel) {
  const output::ByteSink bytes = [&channel](std::string_view text) {
    channel.output(text);
    return channel.wanted();
  };
  std::unique_ptr<output::Writer> writer = format == OutputFormat::json  ? output::json_writer(bytes)
                                           : format == OutputFormat::xml ? output::xml_writer(bytes)
                                                                         : output::text_writer(bytes);
  if (filters.count) writer = output::count_lines(std::move(writer));
  if (filters.include) writer = output::include_lines(*filters.include, std::move(writer));
  return writer;
}

}  // namespace host
