// Copies of what ConfigWork says, taken before the first row, because rows yield and operators go on working.
#include "host/daemon/config_views.h"

#include "host/daemon/config_work.h"
#include "host/output/wall_time.h"

namespace host {
namespace {

void show_lines(const std::vector<std::string> &lines, output::Listing &listing) {
  listing.begin(output::kConfigDiff);
  for (const std::string &line : lines)
    if (!listing.row({line})) return;
}

}  // namespace

void show_config_diff(const ViewInput &input, output::Listing &listing) {
  show_lines(input.process.work->changes(), listing);
}

void show_config_candidate(const ViewInput &input, output::Listing &listing) {
  const auto changes = input.process.work->candidate_changes();
  if (!changes) return listing.note("there is no candidate: configure exclusive begins one");
  show_lines(*changes, listing);
}

void show_config_former(const ViewInput &input, output::Listing &listing) {
  const std::deque<ConfigWork::Former> all = input.process.work->former();  // a copy, since rows may yield
  listing.begin(output::kFormerConfigs);
  uint64_t number = 0;
  for (const ConfigWork::Former &former : all)
    if (!listing.row({++number, output::wall_time(former.until), former.what, former.by})) return;
}

}  // namespace host
