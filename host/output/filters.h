// Filters of text behind a view. They pass recorded values on, which documents are made of.
#ifndef HOST_OUTPUT_FILTERS_H
#define HOST_OUTPUT_FILTERS_H

#include <memory>
#include <string>

#include "host/output/output.h"

namespace output {

enum class LineFilter {
  include,  // lines that match
  exclude,  // the others
  begin,    // everything from the first that matches on
  section,  // those that match, and what is indented below them
};

// Why a text cannot be used as a pattern; empty: it can. Patterns are RE2's, looked for anywhere in a line.
std::string pattern_fault(const std::string &pattern);

// pattern: one without a fault.
std::unique_ptr<Writer> filter_lines(LineFilter filter, const std::string &pattern, std::unique_ptr<Writer> next);
// The number of lines instead of the lines.
std::unique_ptr<Writer> count_lines(std::unique_ptr<Writer> next);

}  // namespace output

#endif  // HOST_OUTPUT_FILTERS_H
