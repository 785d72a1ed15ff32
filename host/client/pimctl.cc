// pimctl: commands of pimhostd, one per call, from a terminal, or from a pipe. Output goes to standard output, reasons
// of failures to standard error. The exit status is that of the command, or of the first that failed of a pipe's.
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "host/client/answer.h"
#include "host/client/interrupt.h"
#include "host/client/line_editor.h"
#include "host/client/pager.h"
#include "host/client/session.h"
#include "options/command_line.h"

namespace {

constexpr const char *kFooter = R"(
With a command pimctl runs it. Without one it opens a session on a terminal, or runs the lines of its input until one
fails. In a session Tab completes a word and ? lists what may stand at the cursor; configure opens the configuration,
exit leaves a mode or the session, end leaves the configuration; help says more.

Behind a view: | include PATTERN, | exclude, | begin, | section, | count, | json, | xml, | yang, | no-more

Exit status: 0 done, 1 failed, 2 not understood, 3 pimhostd cannot be reached, 4 it does not answer in time

Examples:
  pimctl show mvpn mdt vrf red
  pimctl --json show mvpn mdt
  pimctl 'show mrib routes | count'
  pimctl configure vrf red mdt default 239.1.1.1
)";

uint32_t execute(host::ControlClient &client, host::OutputFormat format, const std::string &line, bool slow,
                 host::Answer *answer) {
  return client.execute(format, line, slow, [answer](host::FrameType type, std::string_view part) {
    answer->note(type, part);
    if (type != host::FrameType::error) return host::write_output(part);
    host::print_error(part);
    return true;
  });
}

// Ctrl-C ends the program as it would otherwise, but for a word about the line, and behind the end of a document.
uint32_t run_once(const std::string &path, host::ControlClient::Timeout silence, host::OutputFormat format,
                  const std::string &line) {
  const host::ReadLine read = host::read_line(line);
  const host::Statement *first = read.first();
  host::Answer answer(host::format_of(read.pipeline, read.match, format));
  try {
    host::ControlClient client(path, silence);
    const host::InterruptGuard guard;
    if (answer.is_document()) client.complete_when(host::InterruptGuard::interrupted);
    const uint32_t status = execute(client, format, line, first != nullptr && first->slow, &answer);
    if (!answer.is_document() || !host::InterruptGuard::interrupted()) return answer.end(status);
  } catch (const std::runtime_error &error) {
    if (!host::InterruptGuard::interrupted()) return answer.end(host::tell_lost(error, first), error.what());
  }
  host::print_error(host::note_of_abandoned(first));
  std::raise(SIGINT);
  return host::kStatusFailed;
}

// Whoever has the packaged unit need not name its socket.
std::string default_control_path() {
  std::error_code error;
  const bool unit = std::filesystem::exists(host::kUnitControlPath, error);
  return unit ? host::kUnitControlPath : host::kDefaultControlPath;
}

// Lines are read as the terminal writes them; the editor drops what it takes for no characters.
void use_locale() {
  if (std::setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1) std::setlocale(LC_CTYPE, "C.UTF-8");
}

// The exit status of a command or session whose output may not have been written. A reader that has gone, as behind
// `| head`, wants no reason.
int finish(uint32_t status) {
  const int error = host::write_error();
  if (error == 0 || error == EPIPE) return static_cast<int>(status);
  host::print_error(std::string("pimctl: the output cannot be written: ") + std::strerror(error) + "\n");
  return static_cast<int>(status == host::kStatusDone ? host::kStatusFailed : status);
}

host::Paging paging_of_terminal() {
  const char *program = std::getenv("PAGER");
  return {true, {}, program == nullptr ? "" : program};
}

uint32_t run_lines(host::Session &session) {
  std::string line;
  for (size_t number = 1; !session.ended() && std::getline(std::cin, line); number++) {
    const uint32_t status = session.run(line);
    if (status == host::kStatusDone) continue;
    std::cerr << "pimctl: line " << number << " failed; the lines behind it were not run\n";
    return status;
  }
  return host::kStatusDone;
}

// A Ctrl-C between the end of a command and the next prompt is nobody's.
uint32_t run_session(host::Session &session) {
  std::signal(SIGINT, SIG_IGN);
  host::LineEditor editor(session, host::history_path());
  while (!session.ended()) {
    const std::optional<std::string> line = editor.read();
    if (!line) {
      std::cout << '\n';
      break;
    }
    session.run(*line);
  }
  return host::kStatusDone;
}

// The command reference's table of a mode.
void print_syntax(const char *title, host::Mode mode) {
  std::cout << "### " << title << "\n\n| Syntax | |\n|---|---|\n";
  for (host::SyntaxLine line : host::syntax_of(mode)) {
    for (size_t at = 0; (at = line.syntax.find('|', at)) != std::string::npos; at += 2) line.syntax.insert(at, "\\");
    std::cout << "| `" << line.syntax << "` | " << line.help << " |\n";
  }
  std::cout << '\n';
}

// One a line, with its help behind a tab. Arguments that have no names yet are no completion.
int print_completions(const std::string &path, const std::vector<std::string> &words) {
  host::Session session(path, host::OutputFormat::text, host::Paging(), std::chrono::seconds(1));
  for (const host::Candidate &candidate : session.next(words))
    if (candidate.is_keyword) std::cout << candidate.text << '\t' << candidate.help << '\n';
  return 0;
}

// What a line asks for whose options cannot be read: its program reads a document all the same.
host::OutputFormat format_on(int argc, char **argv) {
  for (int i = 1; i < argc; i++) {
    const std::string_view word = argv[i];
    if (word == "--") break;
    if (word == "--json") return host::OutputFormat::json;
    if (word == "--xml") return host::OutputFormat::xml;
  }
  return host::OutputFormat::text;
}

void print_all_syntax() {
  print_syntax("Commands", host::Mode::exec);
  print_syntax("configure", host::Mode::global);
  print_syntax("configure pim", host::Mode::pim);
  print_syntax("configure core", host::Mode::core);
  print_syntax("configure forwarding kernel", host::Mode::forwarding);
  print_syntax("configure interface INTERFACE", host::Mode::interface);
  print_syntax("configure vrf NAME", host::Mode::vrf);
  print_syntax("configure bgp", host::Mode::bgp);
}

}  // namespace

int main(int argc, char **argv) {
  options::CommandLine app("Commands of pimhostd", kFooter);
  std::string path = default_control_path();
  double timeout = 10;
  bool json = false, xml = false, syntax = false, complete = false;
  std::vector<std::string> words;
  app.add("--control", &path, "control socket of pimhostd").show_default();
  app.add("--timeout", &timeout, "seconds that pimhostd may be silent; 0: any time")
      .within(0.0, 86400.0)
      .show_default();
  const options::Option as_json = app.add_flag("--json", &json, "answers as JSON documents");
  app.add_flag("--xml", &xml, "answers as XML documents").excludes(as_json);
  app.add_flag("--syntax", &syntax, "").hidden();      // the tables of the command reference
  app.add_flag("--complete", &complete, "").hidden();  // what may stand behind the words, for a shell's completion
  app.add("command", &words, "the command's words");
  app.version("pimctl " MVPN_VERSION);
  if (const std::optional<int> status = app.parse(argc, argv, static_cast<int>(host::kStatusSyntax)))
    return static_cast<int>(host::Answer(format_on(argc, argv)).end(static_cast<uint32_t>(*status), app.wrong()));
  if (syntax) {
    print_all_syntax();
    return 0;
  }
  const host::OutputFormat format = json  ? host::OutputFormat::json
                                    : xml ? host::OutputFormat::xml
                                          : host::OutputFormat::text;
  std::signal(SIGPIPE, SIG_IGN);
  use_locale();
  const host::ControlClient::Timeout silence(static_cast<int64_t>(timeout * 1000));
  try {
    if (complete) return print_completions(path, words);
    if (!words.empty()) return finish(run_once(path, silence, format, host::join_words(words)));
    const bool terminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    host::Session session(path, format, terminal ? paging_of_terminal() : host::Paging(), silence);
    return finish(terminal ? run_session(session) : run_lines(session));
  } catch (const std::exception &error) {
    return static_cast<int>(host::Answer(format).end(host::tell_lost(error, nullptr), error.what()));
  }
}
