// Writes the pages. A template of the project decides what report.html looks like; this file gives it values, with
// pictures from lab/drawing.cc. Called once, at the end of a run, from what the run recorded.
#include "lab/pages.h"

#include <ctemplate/template.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <pugixml.hpp>
#include <stdexcept>

namespace lab {
namespace {

// More flows than this are drawn, but folded up.
constexpr size_t kOpenFlows = 12;

std::string seconds_text(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

void add_expectations(const Report &report, ctemplate::TemplateDictionary *page) {
  std::string part;
  for (const Entry &entry : report.entries()) {
    if (entry.kind == Entry::Kind::heading) part = entry.text;
    if (entry.kind != Entry::Kind::expectation) continue;
    ctemplate::TemplateDictionary *row = page->AddSectionDictionary("EXPECTATION");
    row->SetValue("AT", seconds_text(entry.at));
    row->SetValue("HOLDS", entry.holds ? "ok" : "wrong");
    row->SetValue("PART", part);
    row->SetValue("EXPECTED", entry.text);
    row->SetValue("HAPPENED", entry.happened);
  }
}

void add_log(const Report &report, ctemplate::TemplateDictionary *page) {
  for (const Entry &entry : report.entries()) {
    ctemplate::TemplateDictionary *row = page->AddSectionDictionary("LOG");
    if (entry.kind == Entry::Kind::block) {
      row->SetValueAndShowSection("TEXT", entry.text, "BLOCK");
      continue;
    }
    ctemplate::TemplateDictionary *line = row->AddSectionDictionary("LINE");
    line->SetValue("AT", seconds_text(entry.at));
    line->SetValue("KIND", entry.kind == Entry::Kind::heading ? "heading" : entry.holds ? "plain" : "wrong");
    const bool expectation = entry.kind == Entry::Kind::expectation;
    line->SetValue("TEXT",
                   expectation ? (entry.holds ? "ok: " : "WRONG: ") + entry.text + ": " + entry.happened : entry.text);
  }
}

void add_pictures(const Report &report, const Findings &findings, ctemplate::TemplateDictionary *page) {
  if (findings.network) page->SetValueAndShowSection("DRAWING", draw_network(*findings.network), "NETWORK");
  size_t number = 0;
  for (const nlohmann::json &flow : findings.flows) {
    ctemplate::TemplateDictionary *part = page->AddSectionDictionary("FLOW");
    part->SetValue("NAME", flow.at("flow").get<std::string>());
    part->SetValue("VRF", flow.at("vrf").get<std::string>());
    part->SetValue("FROM", flow.at("from").get<std::string>());
    part->SetValue("GROUP", flow.at("group").get<std::string>());
    part->SetValue("OPEN", number++ < kOpenFlows ? "open" : "");
    part->SetValue("DRAWING", draw_flow(flow, report));
  }
  if (findings.events.empty()) return;
  ctemplate::TemplateDictionary *part = page->AddSectionDictionary("EVENTS");
  part->SetValue("DRAWING", draw_events(findings.events, report));
  for (const PeEvent &event : findings.events) {
    ctemplate::TemplateDictionary *row = part->AddSectionDictionary("EVENT");
    row->SetValue("AT", seconds_text(event.at));
    row->SetValue("PE", event.pe);
    row->SetValue("TEXT", event.text);
  }
}

void write_html(const Report &report, const Findings &findings, const std::string &file, const std::string &to) {
  ctemplate::TemplateDictionary page("report");
  page.SetValue("TITLE", report.name());
  page.SetValue("RESULT", report.wrong() == 0 ? "ok" : "wrong");
  page.SetValue("HELD", std::to_string(report.expected() - report.wrong()));
  page.SetValue("EXPECTED", std::to_string(report.expected()));
  page.SetValue("SECONDS", seconds_text(report.entries().empty() ? 0 : report.entries().back().at));
  add_pictures(report, findings, &page);
  add_expectations(report, &page);
  add_log(report, &page);
  std::string text;
  if (!ctemplate::ExpandTemplate(file, ctemplate::DO_NOT_STRIP, &page, &text))
    throw std::runtime_error(file + ": the report's template cannot be used");
  std::ofstream out(to);
  out << text;
  if (!out.flush()) throw std::runtime_error(to + ": cannot be written");
}

void write_junit(const Report &report, const std::string &to) {
  pugi::xml_document document;
  pugi::xml_node suite = document.append_child("testsuites").append_child("testsuite");
  suite.append_attribute("name") = report.name().c_str();
  suite.append_attribute("tests") = static_cast<unsigned>(report.expected());
  suite.append_attribute("failures") = static_cast<unsigned>(report.wrong());
  suite.append_attribute("time") = seconds_text(report.entries().empty() ? 0 : report.entries().back().at).c_str();
  double before = 0;
  for (const Entry &entry : report.entries()) {
    if (entry.kind != Entry::Kind::expectation) continue;
    pugi::xml_node test = suite.append_child("testcase");
    test.append_attribute("classname") = "lab";
    test.append_attribute("name") = entry.text.c_str();
    test.append_attribute("time") = seconds_text(entry.at - before).c_str();
    before = entry.at;
    if (entry.holds) continue;
    pugi::xml_node failure = test.append_child("failure");
    failure.append_attribute("message") = entry.happened.c_str();
  }
  if (!document.save_file(to.c_str(), "  ")) throw std::runtime_error(to + ": cannot be written");
}

}  // namespace

void write_pages(const Report &report, const Findings &findings, const std::string &project,
                 const std::string &folder) {
  std::filesystem::create_directories(folder);
  write_html(report, findings, project + "/lab/templates/report.html", folder + "/report.html");
  write_junit(report, folder + "/junit.xml");
}

}  // namespace lab
