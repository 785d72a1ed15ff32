// Document writers and filters: documents are whole whatever the commands record and wherever an operator stops them.
#include <algorithm>
#include <iterator>
#include <regex>
#include <sstream>

#include "host/output/filters.h"
#include "host/output/output.h"
#include "platform/reference/cli.h"
#include "tests/host_output/document_check.h"

namespace {

using Texts = std::vector<std::string>;

ref::CliValue text_value(int element, std::string text) {
  ref::CliValue value;
  value.element = element;
  value.text = std::move(text);
  return value;
}
ref::CliValue number_value(int element, int64_t number) {
  ref::CliValue value = text_value(element, std::to_string(number));
  value.type = ref::CliValueType::number;
  value.number = number;
  return value;
}
ref::CliValue unsigned_value(int element, uint64_t number) {
  ref::CliValue value = text_value(element, std::to_string(number));
  value.type = ref::CliValueType::unsigned_number;
  value.unsigned_number = number;
  return value;
}
ref::CliValue boolean_value(int element, bool on) {
  ref::CliValue value = text_value(element, on ? "true" : "false");
  value.type = ref::CliValueType::boolean;
  value.number = on ? 1 : 0;
  return value;
}
ref::CliValue duration_value(int element, double seconds) {
  ref::CliValue value;
  value.element = element;
  value.type = ref::CliValueType::duration;
  value.seconds = seconds;
  return value;
}

// A value such as a command records under an element.
ref::CliValue some_value(const output::SchemaElement &element) {
  switch (element.type) {
    case CLI_TYPE_NUMBER:
      return number_value(element.number, element.number);
    case CLI_TYPE_BOOLEAN:
      return boolean_value(element.number, true);
    case CLI_TYPE_DURATION:
    case output::kFactor:
      return duration_value(element.number, 1.5);
    case CLI_TYPE_ADDRESS:
      return text_value(element.number, "10.0.0.1");
    case CLI_TYPE_SOURCE:
      return text_value(element.number, "*");
    case output::kTime:
      return text_value(element.number, "2026-01-31T12:00:00.000Z");
    default:
      return text_value(element.number, "text");
  }
}

using MakeWriter = std::unique_ptr<output::Writer> (*)(output::ByteSink);

// What a writer makes of values when no more bytes are wanted after the n-th delivery.
std::string written(MakeWriter make, const std::vector<ref::CliValue> &values, size_t enough_after = SIZE_MAX,
                    const std::vector<cli_record> &promised = {}) {
  std::string bytes;
  size_t deliveries = 0;
  const auto writer = make([&](std::string_view piece) {
    bytes.append(piece);
    return ++deliveries < enough_after;
  });
  for (const cli_record record : promised) writer->promise(output::record_of(record));
  for (const ref::CliValue &value : values) {
    writer->text("text is for people\n");
    writer->value(value);
  }
  writer->finish();
  return bytes;
}

// Every element once but those of the header, record by record: the children of a VRF before the other kinds.
std::vector<ref::CliValue> every_element() {
  const auto elements = output::all_elements();
  std::vector<output::SchemaElement> all(elements.begin(), elements.end());
  std::erase_if(all, [](const auto &element) { return element.record == CLI_RECORD_DOCUMENT && element.always; });
  std::ranges::stable_sort(all, {}, [](const auto &element) { return std::pair(element.record, !element.begins); });
  std::vector<ref::CliValue> values;
  for (const output::SchemaElement &element : all) values.push_back(some_value(element));
  return values;
}

TEST(Documents, AreWholeWhenACommandRecordsNothing) {
  EXPECT_EQ(Json::parse(written(json_document, {})),
            Json({{"schema-version", "1.0"}, {"hostname", "pe1"}, {"time", "2026-01-31T12:00:00.000Z"}}));
  EXPECT_EQ(xml_faults(written(xml_document, {})), "");
  EXPECT_NE(xml_faults("<other/>"), "") << "the check finds faults";
}

TEST(Documents, HoldEveryElementOfTheSchema) {
  const std::vector<ref::CliValue> values = every_element();
  const std::string json = written(json_document, values), xml = written(xml_document, values);
  check_json(json);
  EXPECT_EQ(xml_faults(xml), "") << xml;
  for (const output::SchemaElement &element : output::all_elements()) {
    EXPECT_NE(json.find("\"" + std::string(element.name) + "\":"), std::string::npos) << element.name;
    EXPECT_NE(xml.find("<" + std::string(element.name) + ">"), std::string::npos) << element.name;
  }
}

// Two VRFs with lists of several kinds, a field behind a list, and a list at the root.
std::vector<ref::CliValue> nested_values() {
  std::vector<ref::CliValue> values;
  for (const char *vrf : {"red", "blue", "empty"}) {
    values.push_back(text_value(CLI_ELEMENT_VRF_NAME, vrf));
    if (std::string(vrf) == "empty") break;
    for (int i = 0; i < 3; i++) {
      values.push_back(text_value(CLI_ELEMENT_ROUTE_SOURCE, "10.0.0." + std::to_string(i)));
      values.push_back(text_value(CLI_ELEMENT_ROUTE_GROUP, "239.1.1.1"));
      values.push_back(duration_value(CLI_ELEMENT_ROUTE_UPTIME, 0.25 * i));
    }
    values.push_back(number_value(CLI_ELEMENT_ENCAP_INDEX, 2));
    values.push_back(number_value(CLI_ELEMENT_ENCAP_INDEX, 3));
    values.push_back(text_value(CLI_ELEMENT_VRF_RD, "65000:1"));
  }
  values.push_back(text_value(CLI_ELEMENT_SAFI_RD, "65000:9"));
  values.push_back(text_value(CLI_ELEMENT_SAFI_LOCAL, "False"));
  return values;
}

TEST(Documents, HaveTheEmptyListsThatAViewShows) {
  const std::vector<cli_record> promised = {CLI_RECORD_VRF, CLI_RECORD_ROUTE, CLI_RECORD_SAFI};
  const struct {
    std::vector<ref::CliValue> values;
    const char *body;
  } cases[] = {
      {{}, R"({"vrf": [], "mdt-safi-entry": []})"},
      {{text_value(CLI_ELEMENT_VRF_NAME, "red"), text_value(CLI_ELEMENT_VRF_NAME, "blue"),
        text_value(CLI_ELEMENT_ROUTE_SOURCE, "10.0.0.1")},
       R"({"vrf": [{"name": "red", "mdt-route": []}, {"name": "blue", "mdt-route": [{"mdt-source": "10.0.0.1"}]}],
           "mdt-safi-entry": []})"},
      {{text_value(CLI_ELEMENT_SAFI_RD, "1:1")}, R"({"mdt-safi-entry": [{"route-distinguisher": "1:1"}], "vrf": []})"},
  };
  for (const auto &c : cases) {
    const std::string json = written(json_document, c.values, SIZE_MAX, promised);
    check_json(json);
    EXPECT_EQ(body_of(json), Json::parse(c.body)) << json;
    EXPECT_EQ(xml_faults(written(xml_document, c.values, SIZE_MAX, promised)), "");
  }
  // What had not begun when the listing was cut may have had rows.
  const Json cut = body_of(written(json_document, cases[1].values, 1, promised));
  EXPECT_FALSE(cut.contains("mdt-safi-entry")) << cut;
  EXPECT_EQ(cut["interrupted"], true);
}

TEST(Documents, NestRecordsUnderTheirParents) {
  const Json document = body_of(written(json_document, nested_values()));
  const Json expected = Json::parse(R"({
    "vrf": [
      {"name": "red",
       "mdt-route": [{"mdt-source": "10.0.0.0", "mdt-group": "239.1.1.1", "uptime-seconds": 0.0},
                     {"mdt-source": "10.0.0.1", "mdt-group": "239.1.1.1", "uptime-seconds": 0.25},
                     {"mdt-source": "10.0.0.2", "mdt-group": "239.1.1.1", "uptime-seconds": 0.5}],
       "encapsulation": [{"encapsulation-index": 2}, {"encapsulation-index": 3}], "route-distinguisher": "65000:1"},
      {"name": "blue",
       "mdt-route": [{"mdt-source": "10.0.0.0", "mdt-group": "239.1.1.1", "uptime-seconds": 0.0},
                     {"mdt-source": "10.0.0.1", "mdt-group": "239.1.1.1", "uptime-seconds": 0.25},
                     {"mdt-source": "10.0.0.2", "mdt-group": "239.1.1.1", "uptime-seconds": 0.5}],
       "encapsulation": [{"encapsulation-index": 2}, {"encapsulation-index": 3}], "route-distinguisher": "65000:1"},
      {"name": "empty"}],
    "mdt-safi-entry": [{"route-distinguisher": "65000:9", "local": false}]})");
  EXPECT_EQ(document, expected) << document.dump(2);
  EXPECT_EQ(xml_faults(written(xml_document, nested_values())), "");
}

// The documents are valid however many deliveries are taken, and bytes stop being made at once.
TEST(Documents, AreWholeWhereverTheyAreCut) {
  const std::vector<ref::CliValue> values = nested_values();
  const std::string whole = written(json_document, values);
  EXPECT_FALSE(Json::parse(whole).contains("interrupted"));
  for (size_t n = 1; n <= 24; n++) {
    SCOPED_TRACE(n);
    const std::string json = written(json_document, values, n), xml = written(xml_document, values, n);
    check_json(json);
    EXPECT_EQ(xml_faults(xml), "") << xml;
    EXPECT_EQ(Json::parse(json).contains("interrupted"), body_of(json) != body_of(whole)) << json;
    if (n == 1) {
      EXPECT_LT(json.size(), whole.size() / 2);
      EXPECT_LT(xml.size(), written(xml_document, values).size() / 2);
    }
  }
  // Values that end after any of them.
  for (size_t n = 0; n <= values.size(); n++) {
    const std::vector<ref::CliValue> first(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(n));
    SCOPED_TRACE(n);
    check_json(written(json_document, first));
  }
}

TEST(Documents, AreSentWhileTheyAreMade) {
  for (const MakeWriter make : {json_document, xml_document}) {
    size_t sent = 0, longest = 0;
    const auto writer = make([&](std::string_view piece) {
      sent += piece.size();
      longest = std::max(longest, piece.size());
      return true;
    });
    writer->value(text_value(CLI_ELEMENT_VRF_NAME, "red"));
    size_t previous = 0;
    for (int i = 0; i < 10000; i++) {
      writer->value(text_value(CLI_ELEMENT_ROUTE_SOURCE, "10.0.0.1"));
      writer->value(text_value(CLI_ELEMENT_ROUTE_GROUP, "239.1.1.1"));
      if (i > 1 && i % 1000 == 0) {
        EXPECT_GT(sent, previous + 1000 * 20) << i;
        previous = sent;
      }
    }
    writer->finish();
    EXPECT_LT(longest, 500u) << "one record at a time";
  }
}

TEST(Documents, ConvertValuesToTheTypeOfTheirElement) {
  const struct {
    ref::CliValue value;
    const char *json;  // of the field; null: left out
  } cases[] = {
      {text_value(CLI_ELEMENT_VRF_SHARED, ""), "false"},
      {text_value(CLI_ELEMENT_VRF_SHARED, " Shared"), "true"},
      {text_value(CLI_ELEMENT_SENT_INSTALLED, "No"), "false"},
      {text_value(CLI_ELEMENT_SENT_INSTALLED, "Yes"), "true"},
      {text_value(CLI_ELEMENT_MRIB_WORK_PENDING, "FALSE"), "false"},
      {text_value(CLI_ELEMENT_MRIB_WORK_PENDING, "TRUE"), "true"},
      {text_value(CLI_ELEMENT_SAFI_LOCAL, "False"), "false"},
      {text_value(CLI_ELEMENT_SAFI_LOCAL, "True"), "true"},
      {boolean_value(CLI_ELEMENT_VRF_RD_SET, false), "false"},
      {number_value(CLI_ELEMENT_VRF_SEND_JOINS, -1), "-1"},
      {unsigned_value(CLI_ELEMENT_RANGE_THRESHOLD, UINT64_MAX), "18446744073709551615"},
      {text_value(CLI_ELEMENT_SENT_COUNT, "4294967295"), "4294967295"},
      {number_value(CLI_ELEMENT_VRF_JP_INTERVAL, 60), "60"},
      {duration_value(CLI_ELEMENT_SENT_UPTIME, 12.5), "12.5"},
      {text_value(CLI_ELEMENT_VRF_MTI_NAME, " "), nullptr},
      {text_value(CLI_ELEMENT_VRF_CONFIGURED_SOURCE, ""), nullptr},
      {text_value(CLI_ELEMENT_VRF_MTI_NAME, "mti2"), "\"mti2\""},
      {text_value(CLI_ELEMENT_RANGE_ROUTE_MAP, "a<b>&\"c\"\\'"), "\"a<b>&\\\"c\\\"\\\\'\""},
      {text_value(CLI_ELEMENT_RANGE_ROUTE_MAP, "\x01\xff\n"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\\n\""},
      {text_value(CLI_ELEMENT_NONE, "x"), nullptr},
      {text_value(99999, "x"), nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.value.element);
    std::vector<ref::CliValue> values = {text_value(CLI_ELEMENT_VRF_NAME, "red")};
    const output::SchemaElement *element = output::find_element(c.value.element);
    if (element != nullptr && element->record != CLI_RECORD_VRF)
      for (const output::SchemaElement &other : output::all_elements())
        if (other.record == element->record && other.begins) values.push_back(some_value(other));
    values.push_back(c.value);
    const std::string json = written(json_document, values), xml = written(xml_document, values);
    EXPECT_EQ(xml_faults(xml), "") << xml;
    if (c.json == nullptr) {
      values.pop_back();
      EXPECT_EQ(json, written(json_document, values));
      EXPECT_EQ(xml, written(xml_document, values));
    } else {
      const Json wanted = Json::parse(c.json);
      const std::string member = std::string("\"") + element->name + "\":";
      const size_t at = json.find(member);
      ASSERT_NE(at, std::string::npos) << json;
      const size_t begin = json.find_first_not_of(' ', at + member.size());
      EXPECT_EQ(json.substr(begin, wanted.dump().size()), wanted.dump());
    }
  }
}

TEST(Filters, ActOnWholeLinesOfText) {
  using output::LineFilter;
  const Texts pieces = {"vrf red", " up\n  rd 1\n  ", "group 239.1.1.1\nvrf ", "blue down\n\n", "no end: red"};
  const struct {
    std::vector<std::pair<LineFilter, const char *>> filters;
    const char *expected;
  } cases[] = {
      {{{LineFilter::include, "red"}}, "vrf red up\nno end: red\n"},
      {{{LineFilter::include, "^vrf (red|blue)"}}, "vrf red up\nvrf blue down\n"},
      {{{LineFilter::include, ""}}, "vrf red up\n  rd 1\n  group 239.1.1.1\nvrf blue down\n\nno end: red\n"},
      {{{LineFilter::exclude, "^ |^$"}}, "vrf red up\nvrf blue down\nno end: red\n"},
      {{{LineFilter::begin, "blue"}}, "vrf blue down\n\nno end: red\n"},
      {{{LineFilter::section, "^vrf"}}, "vrf red up\n  rd 1\n  group 239.1.1.1\nvrf blue down\n"},
      {{{LineFilter::section, "vrf red"}, {LineFilter::exclude, "rd"}}, "vrf red up\n  group 239.1.1.1\n"},
  };
  for (const auto &c : cases) {
    for (const bool counted : {false, true}) {
      std::string bytes;
      std::unique_ptr<output::Writer> writer = output::text_writer([&bytes](std::string_view piece) {
        bytes.append(piece);
        return true;
      });
      if (counted) writer = output::count_lines(std::move(writer));
      for (auto filter = c.filters.rbegin(); filter != c.filters.rend(); ++filter)
        writer = output::filter_lines(filter->first, filter->second, std::move(writer));
      for (const std::string &piece : pieces) writer->text(piece);
      writer->finish();
      const std::string expected = c.expected;
      EXPECT_EQ(bytes, counted ? std::to_string(std::ranges::count(expected, '\n')) + "\n" : expected);
    }
  }
}

TEST(Filters, TakeNoPatternThatIsNone) {
  EXPECT_EQ(output::pattern_fault("^mti[0-9]+ "), "");
  EXPECT_NE(output::pattern_fault("MTI(mti2"), "");
  EXPECT_NE(output::pattern_fault(std::string(256, 'a')), "");
  EXPECT_NE(output::pattern_fault("((a{100}){100}){100}"), "") << "one that would take much memory";
}

TEST(Filters, StopAndPassOn) {
  using output::LineFilter;
  std::string bytes;
  const auto once = [&bytes](std::string_view piece) {
    bytes.append(piece);
    return false;
  };
  auto writer = output::filter_lines(LineFilter::include, "a", output::text_writer(once));
  EXPECT_TRUE(writer->more());
  writer->text("b\n");
  EXPECT_TRUE(writer->more()) << "nothing was sent";
  writer->text("a1\na2\n");
  EXPECT_FALSE(writer->more());
  writer->text("a3\n");
  writer->finish();
  EXPECT_EQ(bytes, "a1\n");

  // Values go through filters of text.
  bytes.clear();
  writer = output::filter_lines(LineFilter::include, "nothing", json_document([&bytes](std::string_view piece) {
                                  bytes.append(piece);
                                  return true;
                                }));
  writer->value(text_value(CLI_ELEMENT_VRF_NAME, "red"));
  writer->finish();
  EXPECT_EQ(body_of(bytes)["vrf"], Json::parse(R"([{"name": "red"}])"));
}

TEST(Schema, FilesAreWhatTheToolPrints) {
  const std::pair<const char *, const char *> files[] = {{"md", "output-schema.md"},
                                                         {"xsd", "schema/mvpn-output.xsd"},
                                                         {"json", "schema/mvpn-output.schema.json"},
                                                         {"yang", "../yang/libmvpn-state.yang"}};
  for (const auto &[form, name] : files) {
    std::ifstream file(std::string(DOCS_DIR) + "/" + name, std::ios::binary);
    ASSERT_TRUE(file) << name;
    const std::string kept((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const CommandResult printed = run_command(std::string(SCHEMA_TOOL) + " " + form);
    EXPECT_EQ(printed.status, 0);
    EXPECT_TRUE(printed.output == kept) << name << " is not what `schema_tool " << form << "` prints";
    EXPECT_FALSE(kept.empty());
  }
  EXPECT_NE(run_command(std::string(SCHEMA_TOOL) + " yaml 2>/dev/null").status, 0);
}

TEST(Schema, TellsAddressesAndTimesFromOtherText) {
  const std::ifstream file(DOCS_DIR "/schema/mvpn-output.schema.json");
  std::stringstream text;
  text << file.rdbuf();
  const Json types = Json::parse(text.str())["$defs"];
  const struct {
    const char *type;
    std::vector<const char *> right, wrong;
  } cases[] = {
      {"address",
       {"0.0.0.0", "255.255.255.255", "192.0.2.10"},
       {"256.0.0.1", "1.2.3", "1.2.3.4.5", "01.2.3.4", "*", ""}},
      {"source", {"*", "10.99.199.249"}, {"**", "10.0.0.300", "any"}},
      {"time",
       {"2026-01-31T12:00:00.000Z", "2026-12-01T23:59:60Z"},
       {"2026-13-01T00:00:00Z", "2026-01-31 12:00:00Z", "2026-01-31T24:00:00Z", "2026-01-31T12:00:00"}},
  };
  for (const auto &c : cases) {
    const std::regex pattern(types[c.type]["pattern"].get<std::string>());
    for (const char *value : c.right) EXPECT_TRUE(std::regex_search(value, pattern)) << value;
    for (const char *value : c.wrong) EXPECT_FALSE(std::regex_search(value, pattern)) << value;
  }
}

TEST(Schema, NamesAreUniqueWhereTheyStandTogether) {
  std::vector<std::pair<output::RecordId, std::string>> names;
  for (const output::SchemaElement &element : output::all_elements()) names.emplace_back(element.record, element.name);
  for (const output::SchemaRecord &record : output::all_records()) names.emplace_back(record.parent, record.name);
  std::sort(names.begin(), names.end());
  const auto twice = std::adjacent_find(names.begin(), names.end());
  EXPECT_EQ(twice, names.end()) << twice->second;

  // The schema files define types and records under their names.
  std::vector<std::string> defined;
  for (const output::SchemaType &type : output::all_types()) defined.emplace_back(type.name);
  for (const output::SchemaRecord &record : output::all_records()) defined.emplace_back(record.name);
  std::sort(defined.begin(), defined.end());
  const auto again = std::adjacent_find(defined.begin(), defined.end());
  EXPECT_EQ(again, defined.end()) << *again;
}

}  // namespace
