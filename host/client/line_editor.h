// Lines from a terminal: editing, a history that outlives the session, completion and help.
#ifndef HOST_CLIENT_LINE_EDITOR_H
#define HOST_CLIENT_LINE_EDITOR_H

#include <histedit.h>

#include <memory>
#include <optional>
#include <string>

#include "host/client/session.h"

namespace host {

class LineEditor {
 public:
  // history_file: empty = the history ends with the session.
  LineEditor(Session &session, std::string history_file);

  // The next line, without its end; nothing at the end of input.
  std::optional<std::string> read();

 private:
  static char *prompt(EditLine *editor);
  static unsigned char complete(EditLine *editor, int key);
  static unsigned char help(EditLine *editor, int key);
  static unsigned char drop_line(EditLine *editor, int key);
  static unsigned char suspend(EditLine *editor, int key);
  void remember(const char *line);

  struct EndEditor {
    void operator()(EditLine *editor) const { el_end(editor); }
  };
  struct EndHistory {
    void operator()(History *history) const { history_end(history); }
  };

  using HistoryPointer = std::unique_ptr<History, EndHistory>;
  static HistoryPointer read_history(const std::string &file);

  Session &session_;
  std::string history_file_;
  std::string prompt_;
  bool interrupted_ = false;  // the line was dropped
  HistoryPointer history_;
  std::unique_ptr<EditLine, EndEditor> editor_;
};

// Where the history is kept: below $XDG_STATE_HOME or ~/.local/state; the folder is made. Empty: nowhere.
std::string history_path();

}  // namespace host

#endif  // HOST_CLIENT_LINE_EDITOR_H
