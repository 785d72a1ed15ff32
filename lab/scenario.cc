// Reads scenario files. One function reads each form of a step; a step is known by the key that only its form has.
//
// A file is checked whole before anything is started: words that nobody knows, patterns that are no regular
// expressions, names of PEs, VRFs and flows that are not there. A slip in the last step should not be found after
// minutes.
#include "lab/scenario.h"

#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <stdexcept>

#include "lab/process.h"
#include "lab/traffic_control.h"

namespace lab {
namespace {

using json = nlohmann::ordered_json;

const double kPatienceSeconds = std::chrono::duration<double>(kPatience).count();

void read_commands(const json &value, Step *step) {
  if (value.is_array())
    step->commands = value.get<std::vector<std::string>>();
  else
    step->commands = {value.get<std::string>()};
  if (step->commands.empty()) throw std::runtime_error("a step without a command");
}

void read_expectation(const json &object, Step *step) {
  step->kind = Step::Kind::expect;
  step->text = object.at("expect").get<std::string>();
  step->pattern = object.at("matches").get<std::string>();
  step->absent = object.value("absent", false);
  step->times = object.value("times", -1);
  step->seconds = object.value("within", kPatienceSeconds);
  (void)std::regex(step->pattern);
}

void read_commanding(const json &object, Step *step) {
  step->kind = Step::Kind::command;
  if (object.contains("on")) step->pe = object["on"].get<std::string>();
  if (object.contains("in")) step->place = object["in"].get<std::string>();
  read_commands(object.at("command"), step);
  step->print = object.value("print", false);
  if (object.contains("expect")) read_expectation(object, step);
}

void read_process(const json &object, const char *key, Step::Kind kind, Step *step) {
  step->kind = kind;
  step->pe = object[key].get<std::string>();
  step->stateful = object.value("restart", std::string()) == "stateful";
  const std::string part = object.value("part", std::string("control"));
  if (part != "control" && part != "forwarder") throw std::runtime_error("a part is control or forwarder");
  step->forwarder = part == "forwarder";
}

std::optional<uint64_t> number_in(const json &object, const char *key) {
  return object.contains(key) ? std::optional(object[key].get<uint64_t>()) : std::nullopt;
}

void read_flow(const json &object, Step *step) {
  step->flow = object["flow"].get<std::string>();
  if (object.contains("rate")) {
    step->kind = Step::Kind::rate;
    step->rate = object["rate"].get<double>();
    return;
  }
  for (const auto &[key, kind] : {std::pair{"join", Step::Kind::join}, {"leave", Step::Kind::leave}}) {
    if (!object.contains(key)) continue;
    step->kind = kind;
    step->pe = object[key].get<std::string>();
    return;
  }
  step->pe = object.at("at").get<std::string>();
  step->text = object.at("expect").get<std::string>();
  step->seconds = object.value("within", kPatienceSeconds);
  step->lost = number_in(object, "lost");
  step->duplicates = number_in(object, "duplicates");
  step->kind = step->lost || step->duplicates ? Step::Kind::judge : Step::Kind::arrive;
}

bool present(const json &object, const char *yes, const char *no) {
  const auto word = object.at("set").get<std::string>();
  if (word != yes && word != no) throw std::runtime_error(std::string("it can be set ") + yes + " or " + no);
  return word == yes;
}

void read_link(const json &object, Step *step) {
  step->pe = object["link"].get<std::string>();
  if (object.contains("set")) {
    step->kind = Step::Kind::set_link;
    step->present = present(object, "up", "down");
  } else if (object.contains("netem")) {
    step->kind = Step::Kind::impair;
    step->text = object["netem"].get<std::string>();
  } else if (object.contains("lose")) {
    step->kind = Step::Kind::lose;
    step->rate = object["lose"].get<double>();
    if (step->rate < 0 || step->rate > 100) throw std::runtime_error("a link loses 0 to 100 percent");
  } else {
    step->kind = Step::Kind::carried;
    step->text = object.at("expect").get<std::string>();
    step->groups = object.at("groups").get<std::string>();
    (void)in_prefix("0.0.0.0", step->groups);
    step->packets = number_in(object, "packets");
    step->at_least = object.value("at_least", 1);
    step->from_pe = object.value("from", false);
    step->seconds = object.value("within", kPatienceSeconds);
  }
}

void read_memory(const json &object, Step *step) {
  read_process(object, "memory", Step::Kind::memory, step);
  step->text = object.at("expect").get<std::string>();
  step->grows_kib = object.at("grows_at_most").get<uint64_t>();
}

void read_vrf(const json &object, Step *step) {
  step->kind = Step::Kind::set_vrf;
  step->vrf = object["vrf"].get<std::string>();
  step->pe = object.at("of").get<std::string>();
  step->present = present(object, "present", "absent");
}

void read_text(const json &object, const char *key, Step::Kind kind, Step *step) {
  step->kind = kind;
  step->text = object[key].get<std::string>();
}

void read_wait(const json &object, Step *step) {
  step->kind = Step::Kind::wait;
  step->seconds = object["wait"].get<double>();
}

// A form of a step: the key that tells it, what may stand beside it, whether it needs a network, and who reads it.
struct Form {
  const char *key;
  std::set<std::string> beside;
  bool network;
  std::function<void(const json &, Step *)> read;
};

const std::vector<Form> &forms() {
  using Kind = Step::Kind;
  static const std::set<std::string> expectation{"command", "print", "expect", "matches", "absent", "times", "within"};
  static const std::vector<Form> all{
      {"say", {}, false, [](const json &o, Step *s) { read_text(o, "say", Kind::say, s); }},
      {"wait", {}, false, read_wait},
      {"start", {"restart", "part"}, false, [](const json &o, Step *s) { read_process(o, "start", Kind::start, s); }},
      {"stop", {"part"}, false, [](const json &o, Step *s) { read_process(o, "stop", Kind::stop, s); }},
      {"kill", {"part"}, false, [](const json &o, Step *s) { read_process(o, "kill", Kind::kill, s); }},
      {"on", expectation, false, read_commanding},
      {"in", expectation, true, read_commanding},
      {"mark", {}, true, [](const json &o, Step *s) { read_text(o, "mark", Kind::mark, s); }},
      {"flow", {"rate", "join", "leave", "at", "expect", "within", "lost", "duplicates"}, true, read_flow},
      {"memory", {"part", "expect", "grows_at_most"}, true, read_memory},
      {"link", {"set", "netem", "lose", "expect", "groups", "packets", "at_least", "from", "within"}, true, read_link},
      {"vrf", {"of", "set"}, true, read_vrf},
  };
  return all;
}

Step read_step(const Scenario &scenario, const json &object) {
  for (const Form &form : forms()) {
    if (!object.contains(form.key)) continue;
    for (const auto &[word, value] : object.items())
      if (word != form.key && word != "why" && !form.beside.contains(word))
        throw std::runtime_error("'" + word + "' is not known here");
    if (!scenario.network && (form.network || object.contains("part")))
      throw std::runtime_error(std::string("'") + form.key + "' needs a network");
    Step step;
    form.read(object, &step);
    return step;
  }
  throw std::runtime_error("a step that does nothing");
}

// The step for each flow and each PE that it stands for.
std::vector<Step> expanded(const Scenario &scenario, const Step &step) {
  std::vector<Step> flows;
  if (step.flow == "*") {
    for (const NetworkFlow &flow : scenario.network->flows) flows.emplace_back(step).flow = flow.name;
  } else {
    flows.push_back(step);
  }
  std::vector<Step> result;
  for (const Step &item : flows) {
    std::vector<std::string> pes{item.pe};
    if (item.pe == "all" && !item.flow.empty()) {
      pes = scenario.network->flow(item.flow).to;
    } else if (item.pe == "all") {
      pes.clear();
      for (const auto &[name, config] : scenario.configs) pes.push_back(name);
    }
    for (const std::string &pe : pes) result.emplace_back(item).pe = pe;
  }
  return result;
}

void check_names(const Scenario &scenario, const Step &step) {
  const bool asked = step.kind == Step::Kind::command || step.kind == Step::Kind::expect;
  const bool reflector = asked && step.pe == kReflector && (scenario.network || !scenario.reflector.empty());
  if (!step.pe.empty() && !reflector && !scenario.configs.contains(step.pe))
    throw std::runtime_error("there is no PE '" + step.pe + "'");
  if (!step.flow.empty()) {
    const NetworkFlow &flow = scenario.network->flow(step.flow);
    if (!step.pe.empty() && !scenario.network->has(step.pe, flow.vrf))
      throw std::runtime_error(step.pe + " has no VRF " + flow.vrf);
  }
  if (!step.place.empty()) scenario.network->namespace_of(step.place);
  if (!step.vrf.empty()) scenario.network->namespace_of(step.pe + "/" + step.vrf);
}

// What went wrong, without the library's own mark in front.
std::string reason(const std::exception &error) {
  const std::string text = error.what();
  const size_t mark = text.starts_with("[json.exception") ? text.find("] ") : std::string::npos;
  return mark == std::string::npos ? text : text.substr(mark + 2);
}

void read_steps(const json &steps, Scenario *scenario) {
  int number = 0;
  for (const json &object : steps) {
    ++number;
    try {
      for (const Step &step : expanded(*scenario, read_step(*scenario, object))) {
        check_names(*scenario, step);
        scenario->steps.push_back(step);
      }
    } catch (const std::exception &error) {
      throw std::runtime_error("step " + std::to_string(number) + ", " + object.dump() + ": " + reason(error));
    }
  }
}

void read_setting(const json &file, Scenario *scenario) {
  if (file.contains("network")) {
    if (file.contains("pes") || file.contains("reflector"))
      throw std::runtime_error("a network has PEs and a reflector of its own");
    scenario->network = read_network(file["network"]);
    for (const NetworkPe &pe : scenario->network->pes) scenario->configs[pe.name] = {};
    return;
  }
  scenario->reflector = file.value("reflector", std::string());
  for (const auto &[name, pe] : file.at("pes").items()) {
    const json &config = pe.at("config");
    if (config.is_array())
      scenario->configs[name].lines = config.get<std::vector<std::string>>();
    else
      scenario->configs[name].file = config.get<std::string>();
  }
}

}  // namespace

Scenario read_scenario(const std::string &path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + ": cannot be read");
  try {
    const json file = json::parse(in, nullptr, true, true);
    Scenario scenario;
    scenario.name = file.at("name").get<std::string>();
    scenario.clock_scale = file.value("clock_scale", 1.0);
    read_setting(file, &scenario);
    read_steps(file.at("steps"), &scenario);
    return scenario;
  } catch (const std::exception &error) {
    throw std::runtime_error(path + ": " + reason(error));
  }
}

}  // namespace lab
