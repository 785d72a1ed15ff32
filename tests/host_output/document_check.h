// Checks of documents of the output schema.
#ifndef TESTS_HOST_OUTPUT_DOCUMENT_CHECK_H
#define TESTS_HOST_OUTPUT_DOCUMENT_CHECK_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "host/output/output.h"
#include "host/output/schema.h"
#include "platform/cli_schema.h"

using Json = nlohmann::ordered_json;

// Writers of documents that all have the same header.
inline std::unique_ptr<output::Writer> json_document(output::ByteSink bytes) {
  return output::json_writer(std::move(bytes), {"pe1", "2026-01-31T12:00:00.000Z"});
}
inline std::unique_ptr<output::Writer> xml_document(output::ByteSink bytes) {
  return output::xml_writer(std::move(bytes), {"pe1", "2026-01-31T12:00:00.000Z"});
}
// What is in a document beside its header.
inline Json body_of(const std::string &document) {
  Json body = Json::parse(document);
  for (const output::Column &column : output::kHeaderColumns) EXPECT_EQ(body.erase(column.name), 1u) << column.name;
  return body;
}

struct CommandResult {
  int status = -1;     // as wait() has it; -1: no process
  std::string output;  // standard output
};
inline CommandResult run_command(const std::string &command) {
  CommandResult result;
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  std::array<char, 4096> piece{};
  for (size_t n = fread(piece.data(), 1, piece.size(), pipe); n > 0; n = fread(piece.data(), 1, piece.size(), pipe))
    result.output.append(piece.data(), n);
  result.status = pclose(pipe);
  return result;
}

// A file of this test process that goes away with the object.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string_view content) {
    std::string name = (std::filesystem::temp_directory_path() / "host_output_XXXXXX").string();
    const int descriptor = mkstemp(name.data());
    EXPECT_GE(descriptor, 0);
    if (descriptor >= 0) close(descriptor);
    path = name;
    std::ofstream(path, std::ios::binary) << content;
  }
  ~TemporaryFile() { std::filesystem::remove(path); }
  TemporaryFile(const TemporaryFile &) = delete;
  TemporaryFile &operator=(const TemporaryFile &) = delete;
  std::string path;
};

// What xmllint has against a document of our schema; empty: nothing.
inline std::string xml_faults(const std::string &document) {
  const TemporaryFile file(document);
  const CommandResult result =
      run_command("xmllint --noout --schema '" DOCS_DIR "/schema/mvpn-output.xsd' '" + file.path + "' 2>&1");
  return result.status == 0 ? "" : result.output;
}

// What an object has against its record's description: unknown members, values of wrong kinds, a first field missing.
inline void check_record(const output::SchemaRecord &record, const Json &object, const std::string &path) {
  ASSERT_TRUE(object.is_object()) << path;
  size_t known = 0;
  for (const output::SchemaElement &element : output::all_elements()) {
    if (element.record != record.id) continue;
    if (element.always) {
      EXPECT_TRUE(object.contains(element.name)) << path << "/" << element.name;
    }
    if (!object.contains(element.name)) continue;
    known++;
    const Json &value = object[element.name];
    const std::string where = path + "/" + element.name + " = " + value.dump();
    if (element.type == CLI_TYPE_NUMBER) {
      EXPECT_TRUE(value.is_number_integer()) << where;
    } else if (element.type == CLI_TYPE_DURATION || element.type == output::kFactor) {
      EXPECT_TRUE(value.is_number()) << where;
    } else if (element.type == CLI_TYPE_BOOLEAN) {
      EXPECT_TRUE(value.is_boolean()) << where;
    } else {
      EXPECT_TRUE(value.is_string()) << where;
    }
  }
  for (const output::SchemaRecord &child : output::all_records()) {
    if (child.parent != record.id || !object.contains(child.name)) continue;
    known++;
    ASSERT_TRUE(object[child.name].is_array()) << path << "/" << child.name;
    for (const Json &item : object[child.name]) check_record(child, item, path + "/" + child.name);
  }
  EXPECT_EQ(known, object.size()) << path << " has members that the schema has not: " << object.dump();
}
inline void check_json(const std::string &document) {
  // Names that stand twice in an object are a fault that the parser would hide.
  std::vector<std::vector<std::string>> names;
  bool repeated = false;
  const auto watch = [&](int, Json::parse_event_t event, Json &value) {
    if (event == Json::parse_event_t::object_start) names.emplace_back();
    if (event == Json::parse_event_t::key) {
      const auto name = value.get<std::string>();
      for (const std::string &earlier : names.back()) repeated = repeated || earlier == name;
      names.back().push_back(name);
    }
    if (event == Json::parse_event_t::object_end) names.pop_back();
    return true;
  };
  const Json parsed = Json::parse(document, watch, false);
  ASSERT_FALSE(parsed.is_discarded()) << document;
  EXPECT_FALSE(repeated) << document;
  check_record(output::record_of(CLI_RECORD_DOCUMENT), parsed, "");
}

#endif  // TESTS_HOST_OUTPUT_DOCUMENT_CHECK_H
