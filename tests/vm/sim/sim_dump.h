// Canonical text of a parsed script, one directive per line, for checking
// the parser (tavrine-sim --dump).
#pragma once

#include <string>

#include "sim_script.h"

namespace tvm {

std::string DumpScript(const Script& script);

}  // namespace tvm
