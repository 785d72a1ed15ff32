#include "scenario.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
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

Step read_step(const Scenario &scenario, const json &object) {
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
    throw std::runtime_error("a step that does nothing: " + object.dump());
  }
  return step;
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
    for (const json &step : file.at("steps")) scenario.steps.push_back(read_step(scenario, step));
    return scenario;
  } catch (const std::exception &error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}

}  // namespace lab
