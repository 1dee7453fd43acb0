// A parsed script written back as a script: one directive per line, in a canonical form
// that parses to the same script (tavrine-sim --dump; --from-log --dump prints the script
// a replay plays).
#pragma once

#include <string>

#include "sim_script.h"

namespace tvm {

std::string DumpScript(const Script& script);

}  // namespace tvm
