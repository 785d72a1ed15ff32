// Writers of command output: plain text, JSON and XML, and filters of text.
//
// A writer takes what a handler prints or records (ref::CliSink) and sends bytes on as it goes: whatever a listing's
// length, memory holds one record of it. Between the end of the handler and the end of the output stands finish().
#ifndef HOST_OUTPUT_OUTPUT_H
#define HOST_OUTPUT_OUTPUT_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/output/format.h"
#include "host/output/header.h"
#include "host/output/schema.h"
#include "platform/reference/cli.h"

namespace output {

// Takes bytes. False: they were taken, but no more are wanted; from then on the handler is told to stop, what it still
// produces is dropped, and only what completes a JSON or XML document is sent.
using ByteSink = std::function<bool(std::string_view)>;

class Writer : public ref::CliSink {
 public:
  // The output shows the records of a kind: a document has an empty list where their parent has none of them. Before
  // the parent's first value that lies below it.
  virtual void promise(const SchemaRecord &kind) { (void)kind; }
  // What is shown has a form of its own as YANG data, of another module than documents. False: that is not wanted.
  virtual bool instead(const std::function<std::string()> &yang_data) { return (void)yang_data, false; }
  // The handler has returned: sends what was held back and ends the document. Once.
  virtual void finish() = 0;
};

// Operator's text; recorded values are ignored.
std::unique_ptr<Writer> text_writer(ByteSink bytes);

// The recorded values behind the header as a document of the output schema; text is ignored. A document that ends
// before the command did, since no more bytes were wanted, says that it was interrupted.
std::unique_ptr<Writer> json_writer(ByteSink bytes, const Header &header);
std::unique_ptr<Writer> json_line_writer(ByteSink bytes, const Header &header);
std::unique_ptr<Writer> xml_writer(ByteSink bytes, const Header &header);
std::unique_ptr<Writer> yang_writer(ByteSink bytes, const Header &header);
// A writer of any form; text has no header.
std::unique_ptr<Writer> writer_of(Format format, ByteSink bytes, const Header &header);

// Why a command failed, for its document. status: of the client's exit.
void record_failure(ref::CliSink &sink, uint32_t status, const std::string &reason);

}  // namespace output

#endif  // HOST_OUTPUT_OUTPUT_H
