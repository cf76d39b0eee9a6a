#include "tools/tallowctl/Findings.h"

#include <algorithm>

namespace tallow::ctl {

std::size_t Findings::problemCount() const {
  return static_cast<std::size_t>(std::count_if(_all.begin(), _all.end(), [](const Finding& each) {
    return each.severity == Severity::Problem;
  }));
}

Array Findings::rows() const {
  constexpr const char* kNames[] = {"fine", "note", "problem"};
  std::vector<Value> rows;
  for (const Finding& each : _all)
    rows.emplace_back(Dictionary{{"severity", kNames[static_cast<int>(each.severity)]},
                                 {"area", each.area},
                                 {"what", each.what},
                                 {"advice", each.advice}});
  return Array(std::move(rows));
}

}  // namespace tallow::ctl
