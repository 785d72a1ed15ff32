// Claims, trials and former configurations around Router::replace(), which does the work. Whoever is refused changes
// nothing.
//
// Invariants: a candidate exists while a client holds the configuration, and only that client edits it; a trial knows
// what it goes back to; `loaded_` is what ran when the file was last read or written, so that the difference from it is
// what nobody has written yet. Trap: a holder's connection may end at any time, so holder_ is a weak pointer and asked
// each time.
#include "host/daemon/config_work.h"

#include <stdexcept>
#include <utility>

#include "host/config/config_diff.h"
#include "host/config/config_edit.h"
#include "host/output/wall_time.h"
#include "platform/reference/runtime.h"

namespace host {
namespace {

constexpr const char *kTimeIsUp = "commit confirmed";

Outcome refused(std::string reason) { return {false, std::move(reason) + "\n"}; }

}  // namespace

ConfigWork::ConfigWork(Loop &loop, Router &router, EventBus &events, LogLine log, Try try_config, std::string file)
    : loop_(loop),
      router_(router),
      events_(events),
      log_(std::move(log)),
      try_(std::move(try_config)),
      file_(std::move(file)),
      loaded_(router.running()),
      stamp_(stamp_of(file_)),
      trial_timer_(loop.io()) {}

// ------------------------------------------------------------------------------------------------- who holds it

bool ConfigWork::holds(const Asker &asker) const {
  const auto client = asker.client.lock();
  return client != nullptr && client == holder_.lock();
}

std::string ConfigWork::refusal(const Asker &asker) const {
  if (holder_.expired() || holds(asker)) return "";
  return "the configuration is held by " + holder_name_ + ", who works on it with configure exclusive";
}

Outcome ConfigWork::take(const Asker &asker) {
  if (const std::string reason = refusal(asker); !reason.empty()) return refused(reason);
  if (holds(asker)) return {};
  const auto client = asker.client.lock();
  if (client == nullptr) return refused("the connection has ended");
  client->stays = true;
  holder_ = client;
  holder_name_ = asker.name;
  candidate_ = router_.running();
  return {true, "what is entered runs with commit\n"};
}

void ConfigWork::release() {
  if (const auto client = holder_.lock()) client->stays = false;
  holder_.reset();
  candidate_ = {};
}

Outcome ConfigWork::abort(const Asker &asker, bool force) {
  if (holder_.expired()) return refused("nobody holds the configuration");
  if (const std::string reason = refusal(asker); !reason.empty() && !force) return refused(reason);
  const bool changed = !difference_text(router_.running(), candidate_).empty();
  release();
  return {true, changed ? "what was not committed is dropped\n" : ""};
}

// ------------------------------------------------------------------------------------------------------ changing

Outcome ConfigWork::configure(const Asker &asker, const std::vector<Statement> &statements) {
  if (const std::string reason = refusal(asker); !reason.empty()) return refused(reason);
  return holds(asker) ? edit(asker, statements) : router_.configure(statements);
}

Outcome ConfigWork::edit(const Asker &asker, const std::vector<Statement> &statements) {
  if (!holds(asker))
    return refused(
        "you do not hold the configuration: begin with configure exclusive. What was not committed is dropped");
  Config wanted = candidate_;
  if (const std::string reason = edit_config(statements, &wanted); !reason.empty()) return refused(reason);
  if (Outcome outcome = outcome_of(wanted.check()); !outcome.accepted) return outcome;
  candidate_ = std::move(wanted);
  return {};
}

void ConfigWork::keep(Config before, const std::string &by, const std::string &what) {
  if (difference_text(before, router_.running()).empty()) return;
  former_.push_front({std::move(before), std::chrono::system_clock::now(), by, what});
  if (former_.size() > kKept) former_.pop_back();
}

// Another configuration in the place of the running one, which is kept.
Outcome ConfigWork::replace(Config wanted, const std::string &by, const std::string &what) {
  Config before = router_.running();
  Outcome outcome = outcome_of(router_.replace(std::move(wanted)));
  if (outcome.accepted)
    keep(std::move(before), by, what);
  else
    outcome.text += "what ran before runs again\n";
  return outcome;
}

bool ConfigWork::has_changes(const Asker &asker) const {
  return holds(asker) && !difference_text(router_.running(), candidate_).empty();
}

// What only the module refuses would have to be taken back, and flows might move meanwhile: so it is asked beforehand,
// where nothing runs. It is asked about a file's text, which an empty configuration has none of. `proceed` is asked
// once it has passed, and looks again at whatever others may have changed meanwhile.
void ConfigWork::when_tried(const Config &wanted, const Asker &asker, const std::function<Outcome()> &proceed,
                            const Done &done) {
  std::string text = wanted.print(Config::Passwords::shown);
  if (difference_text(router_.running(), wanted).empty() || read_config_text(text).config.empty())
    return done(proceed());
  try {
    try_(std::move(text), [this, by = asker.name, proceed, done](const ConfigCheck::Result &tried) {
      Loop::Turn turn(loop_);
      events_.set_cause(by);  // until the turn ends
      Outcome outcome = tried.passed ? proceed() : refused("the configuration stays as it is");
      outcome.text.insert(0, tried.text());
      done(outcome);
    });
  } catch (const std::runtime_error &error) {
    done(refused(std::string("the configuration cannot be tried: ") + error.what()));
  }
}

// Whoever asked waits meanwhile, so the candidate is what was tried unless the claim has ended.
void ConfigWork::commit(const Asker &asker, std::optional<std::chrono::minutes> confirm_within, const Done &done) {
  if (const std::string reason = refusal(asker); !reason.empty()) return done(refused(reason));
  if (!has_changes(asker)) return done(commit_now(asker, confirm_within));
  const auto proceed = [this, asker, confirm_within] {
    return holds(asker) ? commit_now(asker, confirm_within) : refused("the candidate was dropped while it was tried");
  };
  when_tried(candidate_, asker, proceed, done);
}

// A commit on trial keeps what was on trial before it, and where that one goes back to.
Outcome ConfigWork::commit_now(const Asker &asker, std::optional<std::chrono::minutes> confirm_within) {
  const bool changed = has_changes(asker);
  if (!changed && !trial_) return refused("there is nothing to commit");
  Config before = trial_ ? trial_->before : router_.running();
  Config committed = trial_ ? trial_->committed : Config();
  Outcome outcome;
  if (changed) {
    outcome = replace(candidate_, asker.name, "commit");
    if (!outcome.accepted) return outcome;
    candidate_ = committed = router_.running();
  }
  if (confirm_within) {
    begin_trial(std::move(before), std::move(committed), *confirm_within);
    outcome.text +=
        "what ran before runs again at " + output::wall_time(trial_->until) + " unless commit comes before\n";
  } else if (trial_) {
    end_trial();
    outcome.text += "confirmed\n";
  }
  return outcome;
}

// Minutes are the platform's, as every time that operators give.
void ConfigWork::begin_trial(Config before, Config committed, std::chrono::minutes time) {
  using Clock = std::chrono::steady_clock;
  const auto real = std::chrono::duration_cast<Clock::duration>(time / ref::clock_scale());
  trial_ = Trial{std::move(before), std::move(committed), std::chrono::system_clock::now() + real};
  trial_timer_.expires_after(real);
  trial_timer_.async_wait([this](const boost::system::error_code &error) {
    if (error) return;
    Loop::Turn turn(loop_);
    // A commit may have come when the timer had run out already.
    if (trial_ && trial_timer_.expiry() <= Clock::now()) go_back();
  });
}

void ConfigWork::end_trial() {
  trial_.reset();
  trial_timer_.cancel();
}

void ConfigWork::go_back() {
  events_.set_cause(kTimeIsUp);  // until the turn ends
  const Trial trial = *std::exchange(trial_, std::nullopt);
  const std::vector<std::string> lost = lost_changes(trial.committed, router_.running(), trial.before);
  const Outcome outcome = replace(trial.before, kTimeIsUp, "not confirmed");
  if (!outcome.accepted)
    return log_(Level::error, "nobody confirmed the commit, and going back failed: " +
                                  outcome.text.substr(0, outcome.text.size() - 1));
  log_(Level::warning, "nobody confirmed the commit: what ran before it runs again");
  for (const std::string &line : lost) log_(Level::warning, "entered since the commit and taken back with it: " + line);
}

// For who holds the configuration only the candidate goes back.
void ConfigWork::rollback(const Asker &asker, std::optional<size_t> steps, const Done &done) {
  if (const std::string reason = refusal(asker); !reason.empty()) return done(refused(reason));
  const bool own = holds(asker);
  if (own && !steps) {
    candidate_ = router_.running();
    return done({true, "the candidate is what runs\n"});
  }
  const size_t wanted = steps.value_or(1);
  if (wanted > former_.size())
    return done(refused("there are " + std::to_string(former_.size()) + " former configurations"));
  const Config former = former_[wanted - 1].config;
  if (own) {
    candidate_ = former;
    return done({true, "runs with commit\n"});
  }
  const auto proceed = [this, asker, former] {
    if (const std::string reason = refusal(asker); !reason.empty()) return refused(reason);
    Outcome outcome = replace(former, asker.name, "rollback");
    if (outcome.accepted) end_trial();
    return outcome;
  };
  when_tried(former, asker, proceed, done);
}

// ------------------------------------------------------------------------------------------------------- the file

std::string ConfigWork::why_not_loaded() const {
  if (holder_.expired()) return "";
  return "the configuration is held by " + holder_name_ + ": commit or abort first";
}

ConfigWork::Loaded ConfigWork::load(Config config, const std::string &by) {
  Loaded loaded;
  loaded.lost = lost_changes(loaded_, router_.running(), config);
  const FileStamp stamp = stamp_of(file_);
  Config before = router_.running();
  loaded.errors = router_.replace(std::move(config));
  if (!loaded.errors.empty()) return {loaded.errors, {}};
  keep(std::move(before), by, "reload");
  end_trial();
  loaded_ = router_.running();
  stamp_ = stamp;
  return loaded;
}

Outcome ConfigWork::write(const Asker &asker, bool force) {
  if (const std::string reason = refusal(asker); !reason.empty()) return refused(reason);
  if (trial_) return refused("a commit waits for its confirmation: commit, or rollback");
  const FileStamp found = stamp_of(file_);
  const bool known = found == stamp_, there = found != FileStamp();
  if (!known && !force) return refused(file_ + " was changed after it was read: reload it, or write force");
  const std::string text = router_.running().print(Config::Passwords::shown);
  ConfigFile written = read_config_text(text);
  written.config.choose_numbers(&router_.running());
  for (const std::string &line : difference_text(router_.running(), written.config))
    written.errors.push_back({0, "it would not be read as it runs: " + line});
  if (!written.errors.empty()) return refused(described(file_, written.errors.front()));
  const std::string reason = write_config_file(file_, text);
  if (known || reason.empty()) stamp_ = stamp_of(file_);  // also failing touches what is told of it
  if (!reason.empty()) return refused(reason);
  loaded_ = std::move(written.config);
  return {true, "written to " + file_ + (there ? "; the former file is " + file_ + "~" : "") + "\n"};
}

std::vector<std::string> ConfigWork::changes() const { return difference_text(loaded_, router_.running()); }

std::optional<std::vector<std::string>> ConfigWork::candidate_changes() const {
  if (holder_.expired()) return std::nullopt;
  return difference_text(router_.running(), candidate_);
}

std::string ConfigWork::status() const {
  std::string text = changes().empty() ? "as in the file" : "changed since the file was read or written";
  if (stamp_of(file_) != stamp_) text += "; the file was changed since";
  if (trial_) text += "; on trial until " + output::wall_time(trial_->until);
  if (!holder_.expired()) text += "; held by " + holder_name_;
  return text;
}

}  // namespace host
