// The findings of `qvdevice rules check` on one rules list: unknown keys, values of the wrong
// type, patterns that do not compile, and rules that can never match or never decide. Each
// finding is one line that names the rule (counted from 1).
#pragma once

#include <string>
#include <vector>

#include "Foundation/Value.h"

namespace qvdevice {

std::vector<std::string> checkRules(const qv::Value& rules);

}  // namespace qvdevice
