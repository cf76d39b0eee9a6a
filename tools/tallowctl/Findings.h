#pragma once

#include <string>
#include <vector>

#include "platform/Base/Value.h"

namespace tallow::ctl {

// What a look at the installation has found, area by area, in the order found. A value.
class Findings {
 public:
  enum class Severity {
    Fine,     // looked at, and as it should be
    Note,     // worth a look; the service does its work
    Problem,  // something does not work, or will not for long
  };

  void fine(std::string area, std::string what) {
    _add(Severity::Fine, std::move(area), std::move(what), {});
  }
  void note(std::string area, std::string what, std::string advice) {
    _add(Severity::Note, std::move(area), std::move(what), std::move(advice));
  }
  void problem(std::string area, std::string what, std::string advice) {
    _add(Severity::Problem, std::move(area), std::move(what), std::move(advice));
  }

  std::size_t problemCount() const;
  // "fine", "note" or "problem" under "severity", and "area", "what", "advice".
  Array rows() const;

 private:
  struct Finding {
    Severity severity;
    std::string area, what, advice;
  };
  void _add(Severity severity, std::string area, std::string what, std::string advice) {
    _all.push_back({severity, std::move(area), std::move(what), std::move(advice)});
  }

  std::vector<Finding> _all;
};

}  // namespace tallow::ctl
