#include "lab/scenario.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <stdexcept>

namespace lab {
namespace {

using nlohmann::json;

std::string pe_of(const Scenario &scenario, const json &value) {
  const auto name = value.get<std::string>();
  if (!scenario.configs.contains(name)) throw std::runtime_error("there is no PE '" + name + "'");
  return name;
}

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
  step->seconds = object.value("within", 10.0);
  (void)std::regex(step->pattern);
}

void refuse_unknown_words(const json &object) {
  static const std::set<std::string> known{"say",    "wait",  "on",     "command", "print",   "expect", "matches",
                                           "absent", "times", "within", "start",   "restart", "stop",   "kill"};
  for (const auto &[word, value] : object.items())
    if (!known.contains(word)) throw std::runtime_error("'" + word + "' is not known here");
}

Step read_step(const Scenario &scenario, const json &object) {
  refuse_unknown_words(object);
  Step step;
  if (object.contains("say")) {
    step.text = object["say"].get<std::string>();
  } else if (object.contains("wait")) {
    step.kind = Step::Kind::wait;
    step.seconds = object["wait"].get<double>();
  } else if (object.contains("on")) {
    step.kind = Step::Kind::command;
    step.pe = pe_of(scenario, object["on"]);
    read_commands(object.at("command"), &step);
    step.print = object.value("print", false);
    if (object.contains("expect")) read_expectation(object, &step);
  } else if (object.contains("start")) {
    step.kind = Step::Kind::start;
    step.text = pe_of(scenario, object["start"]);
    step.stateful = object.value("restart", std::string()) == "stateful";
  } else if (object.contains("stop")) {
    step.kind = Step::Kind::stop;
    step.text = pe_of(scenario, object["stop"]);
  } else if (object.contains("kill")) {
    step.kind = Step::Kind::kill;
    step.text = pe_of(scenario, object["kill"]);
  } else {
    throw std::runtime_error("a step that does nothing");
  }
  return step;
}

// What went wrong, without the library's own mark in front.
std::string reason(const std::exception &error) {
  const std::string text = error.what();
  const size_t mark = text.starts_with("[json.exception") ? text.find("] ") : std::string::npos;
  return mark == std::string::npos ? text : text.substr(mark + 2);
}

void read_steps(const json &steps, Scenario *scenario) {
  for (const json &step : steps) {
    try {
      scenario->steps.push_back(read_step(*scenario, step));
    } catch (const std::exception &error) {
      const std::string number = std::to_string(scenario->steps.size() + 1);
      throw std::runtime_error("step " + number + ", " + step.dump() + ": " + reason(error));
    }
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
    scenario.reflector = file.value("reflector", std::string());
    for (const auto &[name, pe] : file.at("pes").items()) scenario.configs[name] = pe.at("config").get<std::string>();
    read_steps(file.at("steps"), &scenario);
    return scenario;
  } catch (const std::exception &error) {
    throw std::runtime_error(path + ": " + reason(error));
  }
}

}  // namespace lab
